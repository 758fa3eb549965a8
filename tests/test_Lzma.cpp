// The piecewise LZMA reader: the same bytes whatever the size of the pieces the input comes in,
// nothing after the stream's end, no report of its own; and every input the fuzzer kept
// (fuzz/regressions/lzma) replayed.
#include "KsTestSupport.h"
#include "Lzma.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>
#include <cstring>

using namespace KsDeploy;

namespace
{
struct Decoded
{
    McResult result;
    QByteArray out;
};

Decoded streamDecode(const QByteArray& inData, size_t inPiece)
{
    Decoded d;
    size_t at = 0;
    const size_t size = static_cast<size_t>(inData.size());
    d.result = lzmaUncompressStream(
        [&](const unsigned char* inOut, size_t inSize) {
            d.out.append(reinterpret_cast<const char*>(inOut), static_cast<qsizetype>(inSize));
            return d.out.size() <= (8 << 20);
        },
        [&](unsigned char* outData, size_t inRoom) -> int64_t {
            const size_t n = std::min({inRoom, inPiece, size - at});
            std::memcpy(outData, inData.constData() + at, n);
            at += n;
            return static_cast<int64_t>(n);
        });
    return d;
}

Decoded wholeDecode(const QByteArray& inData)
{
    Decoded d;
    d.result = lzmaUncompressTo(
        [&](const unsigned char* inOut, size_t inSize) {
            d.out.append(reinterpret_cast<const char*>(inOut), static_cast<qsizetype>(inSize));
            return d.out.size() <= (8 << 20);
        },
        reinterpret_cast<const unsigned char*>(inData.constData()), inData.size());
    return d;
}

QByteArray packed(const QByteArray& inPlain)
{
    McDArray<unsigned char> out;
    EXPECT_TRUE(lzmaCompress(out, reinterpret_cast<const unsigned char*>(inPlain.constData()), inPlain.size()).isOk());
    return QByteArray(reinterpret_cast<const char*>(out.data()), static_cast<qsizetype>(out.size()));
}

QByteArray text(int inLines)
{
    QByteArray t;
    for (int i = 0; i < inLines; ++i)
        t += QByteArray::number(i * 7919) + " some words to make it compressible\n";
    return t;
}
}

TEST(LzmaStream, PiecesOfAnySizeGiveTheSameBytes)
{
    const QByteArray plain = text(20000);
    const QByteArray stream = packed(plain);
    // Pieces smaller than the header, ending inside it, and larger than the reader's buffer.
    for (size_t piece : {size_t(1), size_t(5), size_t(13), size_t(4096), size_t(3) << 20})
    {
        SCOPED_TRACE(piece);
        const Decoded d = streamDecode(stream, piece);
        EXPECT_TRUE(d.result.isOk()) << d.result.text();
        EXPECT_TRUE(d.out == plain);
    }
}

TEST(LzmaStream, RefusesWhatFollowsTheEndAndReportsNothing)
{
    KsTest::FailureRecorder failures;
    const QByteArray stream = packed(text(100));
    const Decoded trailing = streamDecode(stream + QByteArray(1, '\0'), 64);
    EXPECT_TRUE(trailing.result.isBad());
    EXPECT_STREQ("lzma decompression: data after the end of the stream", trailing.result.text());

    const Decoded cut = streamDecode(stream.left(stream.size() - 3), 64);
    EXPECT_STREQ("lzma decompression: truncated data", cut.result.text());

    // A source that cannot read, and a sink that gives up: failures, not hangs.
    const McResult unreadable = lzmaUncompressStream([](const unsigned char*, size_t) { return true; },
                                                     [](unsigned char*, size_t) -> int64_t { return -1; });
    EXPECT_STREQ("lzma decompression: the input cannot be read", unreadable.text());
    size_t at = 0;
    const McResult stopped = lzmaUncompressStream([](const unsigned char*, size_t) { return false; },
                                                  [&](unsigned char* outData, size_t inRoom) -> int64_t {
                                                      const size_t n =
                                                          std::min(inRoom, static_cast<size_t>(stream.size()) - at);
                                                      std::memcpy(outData, stream.constData() + at, n);
                                                      at += n;
                                                      return static_cast<int64_t>(n);
                                                  });
    EXPECT_TRUE(stopped.isBad());
    // The caller decides what is a failure: a broken copy with a fallback is none.
    EXPECT_TRUE(failures.failures().empty());
}

TEST(LzmaStream, StreamsOnOneThreadStayApartAfterFailuresAndWhenNested)
{
    const QByteArray outerPlain = text(60000);  // a few MiB: the outer stream takes several pieces
    const QByteArray innerPlain = text(500);
    const QByteArray outer = packed(outerPlain);
    const QByteArray inner = packed(innerPlain);
    ASSERT_GT(outerPlain.size(), 2 << 20);

    // A failure leaves nothing behind for the next stream on this thread.
    QByteArray damaged = outer.left(outer.size() / 3);
    EXPECT_TRUE(streamDecode(damaged, 4096).result.isBad());
    EXPECT_EQ(innerPlain, streamDecode(inner, 100).out);

    // A sink that decodes another stream: both come out whole.
    Decoded d;
    size_t at = 0;
    int nested = 0;
    d.result = lzmaUncompressStream(
        [&](const unsigned char* inOut, size_t inSize) {
            const Decoded in = streamDecode(inner, 333);
            nested += in.result.isOk() && in.out == innerPlain ? 1 : 0;
            d.out.append(reinterpret_cast<const char*>(inOut), static_cast<qsizetype>(inSize));
            return true;
        },
        [&](unsigned char* outData, size_t inRoom) -> int64_t {
            const size_t n = std::min(inRoom, static_cast<size_t>(outer.size()) - at);
            std::memcpy(outData, outer.constData() + at, n);
            at += n;
            return static_cast<int64_t>(n);
        });
    ASSERT_TRUE(d.result.isOk());
    EXPECT_TRUE(d.out == outerPlain);
    EXPECT_GT(nested, 1);
}

TEST(LzmaRegressions, EveryKeptInputIsReadAsItsNameSays)
{
    // The fuzzer's format: one byte choosing the piece size, then the ".lzma" bytes. Inputs named
    // "bad-..." must be refused, "good-..." accepted; all keep the fuzzer's rules.
    QDirIterator it(QStringLiteral(KSDEPLOY_SOURCE_DIR "/fuzz/regressions/lzma"), QDir::Files);
    int replayed = 0;
    while (it.hasNext())
    {
        const QString path = it.next();
        const QString name = QFileInfo(path).fileName();
        SCOPED_TRACE(name.toStdString());
        const QByteArray input = KsTest::readFile(path);
        ASSERT_FALSE(input.isEmpty());
        const size_t piece = 1 + static_cast<unsigned char>(input[0]) % 97;
        const QByteArray data = input.mid(1);
        const Decoded streamed = streamDecode(data, piece);
        const Decoded whole = wholeDecode(data);
        if (data.size() >= 13)
        {
            quint64 claimed = 0;
            for (int i = 0; i < 8; ++i)
                claimed |= static_cast<quint64>(static_cast<unsigned char>(data[5 + i])) << (8 * i);
            if (claimed != ~quint64(0))
            {
                EXPECT_LE(static_cast<quint64>(streamed.out.size()), claimed);
            }
        }
        if (streamed.result.isOk())
        {
            EXPECT_TRUE(whole.result.isOk());
            EXPECT_TRUE(whole.out == streamed.out);
        }
        if (name.startsWith(QLatin1String("bad-")))
        {
            EXPECT_TRUE(streamed.result.isBad());
        }
        if (name.startsWith(QLatin1String("good-")))
        {
            EXPECT_TRUE(streamed.result.isOk()) << streamed.result.text();
        }
        ++replayed;
    }
    EXPECT_GE(replayed, 4);
}

namespace
{
QByteArray noise(int inBytes, unsigned inSeed)
{
    QByteArray n(inBytes, '\0');
    uint64_t x = inSeed * 0x9E3779B97F4A7C15ull + 1;
    for (char& c : n)
    {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        c = static_cast<char>(x >> 56);
    }
    return n;
}

const unsigned char* bytes(const QByteArray& inData)
{
    return reinterpret_cast<const unsigned char*>(inData.constData());
}
}

TEST(LzmaPublish, ACopyWithinItsLimitIsTheWholeCodecsOutputAndOneBeyondIsRefused)
{
    const QByteArray plain = text(20000);
    const QByteArray whole = packed(plain);
    std::vector<unsigned char> out;
    // Exactly at the limit still fits; one byte less does not.
    EXPECT_EQ(LzmaWithin::Done, lzmaCompressWithin(out, bytes(plain), plain.size(), whole.size()));
    EXPECT_TRUE(QByteArray(reinterpret_cast<const char*>(out.data()), static_cast<qsizetype>(out.size())) == whole);
    EXPECT_EQ(LzmaWithin::TooLarge, lzmaCompressWithin(out, bytes(plain), plain.size(), whole.size() - 1));
    EXPECT_TRUE(out.empty());
    const QByteArray random = noise(3 << 20, 1);
    EXPECT_EQ(LzmaWithin::TooLarge, lzmaCompressWithin(out, bytes(random), random.size(), random.size()));
}

TEST(LzmaPublish, OnlyDataThatShrinksNowhereLooksIncompressible)
{
    const QByteArray random = noise(2 << 20, 2);
    EXPECT_TRUE(lzmaLooksIncompressible(bytes(random), random.size()));
    EXPECT_FALSE(lzmaLooksIncompressible(bytes(text(60000)), text(60000).size()));
    // Small inputs are left to the real run.
    EXPECT_FALSE(lzmaLooksIncompressible(bytes(random), 200 * 1024));
    // Random for most of it, text at the end: the last window sees the text.
    QByteArray mixed = noise(2 << 20, 3);
    mixed.append(text(4000).left(64 * 1024));
    EXPECT_FALSE(lzmaLooksIncompressible(bytes(mixed), mixed.size()));
}
