// File utilities: MD5 of files against md5sum, whole-file LZMA against xz, the codec's
// handling of damaged streams, and the writability probe.
#include "Common.h"
#include "KsTestSupport.h"
#include "Lzma.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <random>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
QByteArray randomBytes(qint64 inSize, unsigned inSeed)
{
    std::mt19937 rng(inSeed);
    QByteArray out(inSize, Qt::Uninitialized);
    for (qint64 i = 0; i < inSize; ++i)
        out[i] = static_cast<char>(rng() & 0xFF);
    return out;
}

QByteArray textBytes(qint64 inSize, unsigned inSeed)
{
    static const char* const sWords[] = {"cache ", "item ", "digest ", "lzma ", "\n", "0042 ", "resource "};
    std::mt19937 rng(inSeed);
    QByteArray out;
    out.reserve(inSize + 16);
    while (out.size() < inSize)
        out += sWords[rng() % 7];
    out.truncate(inSize);
    return out;
}

// Runs a tool; its standard output, or a failed test when it does not exit with 0.
QByteArray runTool(const QString& inProgram, const QStringList& inArgs, const QString& inStdinFile = QString())
{
    QProcess p;
    if (!inStdinFile.isEmpty())
        p.setStandardInputFile(inStdinFile);
    p.start(inProgram, inArgs);
    const bool done = p.waitForFinished(120000);
    EXPECT_TRUE(done && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0)
        << inProgram.toStdString() << ": " << p.readAllStandardError().toStdString();
    return p.readAllStandardOutput();
}

QByteArray lzmaOf(const QByteArray& inPlain)
{
    McDArray<unsigned char> out;
    EXPECT_TRUE(lzmaCompress(out, reinterpret_cast<const unsigned char*>(inPlain.constData()), inPlain.size()).isOk());
    return QByteArray(reinterpret_cast<const char*>(out.data()), out.size());
}

}

class CommonTest : public KsTest::EngineTest
{
protected:
    void SetUp() override
    {
        KsTest::EngineTest::SetUp();
        ASSERT_TRUE(mDir.isValid());
    }
    QString path(const QString& inName) const { return mDir.filePath(inName); }
    // Everything in the work folder, hidden files included (temporary files start with a dot).
    QStringList listing() const
    {
        return QDir(mDir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }

    QTemporaryDir mDir;
};

// ---------------------------------------------------------------- scanFile

TEST_F(CommonTest, ScanFileMatchesMd5sumAtBlockBoundaries)
{
    const qint64 mib = 1048576;
    for (qint64 size : {qint64(0), qint64(1), mib - 1, mib, mib + 1, 3 * mib + 7})
    {
        const QString file = path(QStringLiteral("f%1").arg(size));
        KsTest::writeFile(file, randomBytes(size, static_cast<unsigned>(size)));
        const QByteArray expected = runTool(QStringLiteral("md5sum"), {file}).left(32);
        EXPECT_EQ(expected.toStdString(), scanFile(file).toString().str()) << "size " << size;
    }
}

TEST_F(CommonTest, ScanFileOfUnreadablePathsIsAllZeroAndSaysWhere)
{
    KsTest::ContractRecorder contracts;
    KsTest::FailureRecorder failures;
    const QString missing = path(QStringLiteral("missing"));
    EXPECT_TRUE(scanFile(missing).isNull());
    EXPECT_TRUE(contracts.has("QFile::exists(inFilePath)"));
    EXPECT_TRUE(failures.hasCondition("cond[qFile.exists()]"));
    EXPECT_TRUE(failures.hasMessage(missing.toStdString()));
    EXPECT_TRUE(failures.hasCondition("cond[retVal.isValid()]"));

    // A folder exists but is no file to hash.
    failures.clear();
    EXPECT_TRUE(scanFile(mDir.path()).isNull());
    EXPECT_TRUE(failures.hasCondition("cond[qFile.open(QIODevice::ReadOnly)]"));
    EXPECT_TRUE(failures.hasMessage(mDir.path().toStdString()));
}

TEST_F(CommonTest, ScanFileSeesEveryRewriteOfAFile)
{
    // The per-run memo must never answer with the digest of an older content, even when the
    // file is rewritten in place at once with the same size.
    const QString file = path(QStringLiteral("f"));
    for (unsigned i = 0; i < 50; ++i)
    {
        const QByteArray content = randomBytes(4096, i);
        QFile f(file);
        ASSERT_TRUE(f.open(QIODevice::ReadWrite));  // in place: same inode
        ASSERT_EQ(4096, f.write(content));
        f.close();
        McCoder coder;
        coder.crcMD5Update(reinterpret_cast<const unsigned char*>(content.constData()), 4096);
        coder.crcMD5Final();
        McLib::MD5 expected;
        coder.crcMD5Query(expected.data());
        ASSERT_EQ(expected.toString().str(), scanFile(file).toString().str()) << "rewrite " << i;
    }
}

// ---------------------------------------------------------------- LZMA files

TEST_F(CommonTest, CompressRoundTripsAndInteroperatesWithXz)
{
    const struct
    {
        const char* name;
        QByteArray content;
    } cases[] = {{"empty", QByteArray()},
                 {"one", QByteArray("x")},
                 {"random", randomBytes(300000, 7)},
                 {"text", textBytes(3 * 1048576 + 5, 3)}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const QString plain = path(QStringLiteral("%1.bin").arg(c.name));
        const QString packed = plain + QStringLiteral(".lzma");
        const QString back = plain + QStringLiteral(".back");
        KsTest::writeFile(plain, c.content);
        ASSERT_TRUE(fileCompress(packed, plain).isOk());
        const QByteArray ours = KsTest::readFile(packed);
        // No framing of our own: the codec's header (lc=3 lp=0 pb=2, 8 MiB dictionary) comes first.
        ASSERT_GE(ours.size(), 13);
        EXPECT_EQ(QByteArray::fromHex("5d00008000"), ours.left(5));
        ASSERT_TRUE(fileUncompress(back, packed).isOk());
        EXPECT_TRUE(KsTest::readFile(back) == c.content);

        // Ours decodes with xz, and xz's own output is the same byte stream and decodes with ours.
        EXPECT_TRUE(runTool(QStringLiteral("xz"), {"--format=lzma", "-d", "-c", packed}) == c.content);
        const QByteArray theirs = runTool(QStringLiteral("xz"), {"--format=lzma", "-6", "-T1", "-c"}, plain);
        EXPECT_TRUE(theirs == ours);
        const QString theirsFile = plain + QStringLiteral(".xz.lzma");
        KsTest::writeFile(theirsFile, theirs);
        ASSERT_TRUE(fileUncompress(back, theirsFile).isOk());
        EXPECT_TRUE(KsTest::readFile(back) == c.content);
    }
}

TEST_F(CommonTest, DamagedStreamsFailClearlyAndLeaveTheDestinationAlone)
{
    const QByteArray plain = textBytes(200000, 11);
    const QByteArray good = lzmaOf(plain);
    ASSERT_GT(good.size(), 100);

    QByteArray badFirstByte = good;
    badFirstByte[13] = '\xff';  // the range coder's first byte must be zero
    QByteArray badProperties = good;
    badProperties[0] = '\xff';
    QByteArray hugeDictionary = good;
    hugeDictionary.replace(1, 4, QByteArray::fromHex("ffffffff"));
    QByteArray absurdSize = good;
    absurdSize.replace(5, 8, QByteArray::fromHex("0000000000010000"));  // 2^40 bytes
    QByteArray longerThanItIs = good;
    const quint64 claimed = static_cast<quint64>(plain.size()) + 1000;
    for (int i = 0; i < 8; ++i)
        longerThanItIs[5 + i] = static_cast<char>((claimed >> (8 * i)) & 0xFF);
    QByteArray scrambled = good;
    for (int i = 40; i < scrambled.size() - 40; i += 7)
        scrambled[i] = static_cast<char>(scrambled[i] ^ 0x5A);

    const struct
    {
        const char* name;
        QByteArray stream;
        const char* message;
        const char* condition;
    } cases[] = {
        {"shorter than a header", good.left(10), "lzma decompression: truncated data", "cond[inSize >= 13]"},
        {"cut in the middle", good.left(good.size() / 2), "lzma decompression: truncated data",
         "cond[ret == LZMA_STREAM_END]"},
        {"last byte missing", good.left(good.size() - 1), "lzma decompression: truncated data",
         "cond[ret == LZMA_STREAM_END]"},
        {"bad first data byte", badFirstByte, "lzma decompression: corrupt data", "cond[ret == LZMA_STREAM_END]"},
        {"bad properties", badProperties, "lzma decompression: not in the lzma format", "cond[ret == LZMA_STREAM_END]"},
        {"4 GiB dictionary", hugeDictionary, "lzma decompression: needs more memory than allowed",
         "cond[ret == LZMA_STREAM_END]"},
        {"absurd size", absurdSize, "lzma decompression: the stream claims 1099511627776 bytes",
         "cond[claimedSize <= sMaxClaimedSize]"},
        {"claims more than it holds", longerThanItIs, "lzma decompression: corrupt data",
         "cond[ret == LZMA_STREAM_END]"},
        {"plain text", QByteArray("this is no lzma stream, just words in a file"), nullptr, nullptr},
        {"scrambled data", scrambled, nullptr, nullptr},
    };
    const QString dst = path(QStringLiteral("dst"));
    const QString src = path(QStringLiteral("src.lzma"));
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        KsTest::FailureRecorder failures;
        KsTest::writeFile(dst, "keep me");
        KsTest::writeFile(src, c.stream);
        const McResult r = fileUncompress(dst, src);
        ASSERT_TRUE(r.isBad());
        if (c.message)
        {
            EXPECT_STREQ(c.message, r.text());
            EXPECT_STREQ(c.condition, r.condition());
        }
        else
        {
            EXPECT_EQ(0, std::string(r.text()).rfind("lzma decompression: ", 0)) << r.text();
        }
        EXPECT_EQ(QByteArray("keep me"), KsTest::readFile(dst));
        EXPECT_EQ(QStringList({"dst", "src.lzma"}), listing());
    }
}

TEST_F(CommonTest, DecodingIntoATemporaryNameHashesWhatItWritesAndLeavesNothingElse)
{
    // More than the decoder's buffer, so the digest spans several pieces.
    const QByteArray plain = textBytes(3 << 20, 21) + randomBytes(100000, 22);
    const QString src = path(QStringLiteral("src.lzma"));
    KsTest::writeFile(src, lzmaOf(plain));
    const QString part = path(QStringLiteral(".item.part"));
    McLib::MD5 md5;
    ASSERT_TRUE(fileUncompressBounded(part, src, nullptr, &md5, true).isOk());
    EXPECT_EQ(plain, KsTest::readFile(part));
    EXPECT_EQ(scanFile(part), md5);
    EXPECT_FALSE(md5.isNull());
    EXPECT_EQ(QStringList({".item.part", "src.lzma"}), listing()) << "a second temporary file or a rename";

    // The temporary name is the caller's: an existing file of that name is not written over.
    McLib::MD5 untouched;
    KsTest::writeFile(part, "someone else's");
    EXPECT_TRUE(fileUncompressBounded(part, src, nullptr, &untouched, true).isBad());
    EXPECT_EQ(QByteArray("someone else's"), KsTest::readFile(part));
    EXPECT_TRUE(untouched.isNull());
    QFile::remove(part);

    // A damaged copy leaves no file and no digest.
    KsTest::writeFile(src, lzmaOf(plain).left(100000));
    EXPECT_TRUE(fileUncompressBounded(part, src, nullptr, &untouched, true).isBad());
    EXPECT_TRUE(untouched.isNull());
    EXPECT_EQ(QStringList({"src.lzma"}), listing());

    // A named destination still goes through a temporary file of its own.
    KsTest::writeFile(src, lzmaOf(plain));
    const QString dst = path(QStringLiteral("dst"));
    ASSERT_TRUE(fileUncompressBounded(dst, src, nullptr, &md5, false).isOk());
    EXPECT_EQ(scanFile(dst), md5);
    EXPECT_EQ(QStringList({"dst", "src.lzma"}), listing());
}

TEST_F(CommonTest, ProbeLeavesNothingAndFailsForAMissingFolder)
{
    const QStringList before = listing();
    EXPECT_TRUE(probeFileUpdate(mDir.path()).isOk());
    EXPECT_EQ(before, listing());
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(probeFileUpdate(path("missing")).isBad());
    EXPECT_FALSE(QFileInfo::exists(path("missing")));
}
