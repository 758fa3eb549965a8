#include "Lzma.h"

#include <lzma.h>

#include <algorithm>
#include <cstring>
#include <memory>

using namespace KsDeploy;

namespace
{
// Bounds what a stream may make us allocate: decoder state, and the size a header claims.
const uint64_t sDecoderMemLimit = 256ull << 20;
const uint64_t sMaxClaimedSize = 16ull << 30;
// The most a thread's idle decoder keeps between two streams.
const uint64_t sKeptDecoderMem = 16ull << 20;

const char* whyOf(lzma_ret inRet)
{
    return inRet == LZMA_MEMLIMIT_ERROR  ? "needs more memory than allowed"
           : inRet == LZMA_FORMAT_ERROR  ? "not in the lzma format"
           : inRet == LZMA_DATA_ERROR    ? "corrupt data"
           : inRet == LZMA_BUF_ERROR     ? "truncated data"
           : inRet == LZMA_OPTIONS_ERROR ? "unsupported options"
                                         : "codec failure";
}

McResult run(lzma_stream& inStream, McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize,
             int64_t inFirstGuess, const char* inWhat)
{
    McResult retVal;
    outData.resize(0);
    outData.reserve(std::max<int64_t>(inFirstGuess, 4096));
    inStream.next_in = inData;
    inStream.avail_in = static_cast<size_t>(inSize);
    lzma_ret ret = LZMA_OK;
    while (ret == LZMA_OK)
    {
        if (outData.size() == outData.capacity())
            outData.reserve(outData.capacity() + outData.capacity() / 2 + 65536);
        const int64_t before = outData.size();
        const int64_t room = outData.capacity() - before;
        outData.resize(outData.capacity());
        inStream.next_out = outData.data() + before;
        inStream.avail_out = static_cast<size_t>(room);
        ret = lzma_code(&inStream, LZMA_FINISH);
        outData.resize(before + room - static_cast<int64_t>(inStream.avail_out));
    }
    const bool ok = ret == LZMA_STREAM_END;
    MC_CHECK_TEXT(retVal, ok, "ret == LZMA_STREAM_END", QStringLiteral("%1: %2").arg(inWhat, whyOf(ret)));
    if (!ok)
        outData.resize(0);
    lzma_end(&inStream);
    return retVal;
}

// Output goes through a fixed buffer to the sink: no growing copy of the whole result.
McResult runTo(lzma_stream& inStream, const LzmaSink& inSink, const unsigned char* inData, int64_t inSize,
               const char* inWhat)
{
    McResult retVal;
    const size_t bufLen = 1 << 20;
    std::unique_ptr<unsigned char[]> buf(new unsigned char[bufLen]);
    inStream.next_in = inData;
    inStream.avail_in = static_cast<size_t>(inSize);
    lzma_ret ret = LZMA_OK;
    bool sinkOk = true;
    while (ret == LZMA_OK && sinkOk)
    {
        inStream.next_out = buf.get();
        inStream.avail_out = bufLen;
        ret = lzma_code(&inStream, LZMA_FINISH);
        const size_t produced = bufLen - inStream.avail_out;
        if (produced > 0 && (ret == LZMA_OK || ret == LZMA_STREAM_END))
            sinkOk = inSink(buf.get(), produced);
    }
    lzma_end(&inStream);
    if (!sinkOk)
    {
        retVal.makeBad(1);  // the sink has reported why
        return retVal;
    }
    MC_CHECK_TEXT(retVal, ret == LZMA_STREAM_END, "ret == LZMA_STREAM_END",
                  QStringLiteral("%1: %2").arg(inWhat, whyOf(ret)));
    return retVal;
}

// Reads the size a ".lzma" header claims (all ones: unknown) and refuses a stream too short for
// a header or claiming an absurd size, before a single byte is allocated for it.
McResult claimedSize(const unsigned char* inData, int64_t inSize, uint64_t& outClaimed)
{
    McResult retVal;
    outClaimed = UINT64_MAX;
    if (MC_CHECK_TEXT(retVal, inSize >= 13, "inSize >= 13", "lzma decompression: truncated data"))
        return retVal;
    uint64_t claimed = 0;
    for (int i = 0; i < 8; ++i)
        claimed |= static_cast<uint64_t>(inData[5 + i]) << (8 * i);
    outClaimed = claimed;
    const bool known = claimed != UINT64_MAX;
    MC_CHECK_TEXT(retVal, !known || claimed <= sMaxClaimedSize, "claimedSize <= sMaxClaimedSize",
                  QStringLiteral("lzma decompression: the stream claims %1 bytes").arg(claimed));
    return retVal;
}

McResult encoderStart(lzma_stream& outStream)
{
    McResult retVal;
    lzma_options_lzma options;
    lzma_lzma_preset(&options, 6);
    MC_CHECK_TEXT(retVal, lzma_alone_encoder(&outStream, &options) == LZMA_OK, "lzma_alone_encoder() == LZMA_OK",
                  "lzma compression could not start");
    return retVal;
}

// Checks the header of inData first (see claimedSize), then starts the decoder.
McResult decoderStart(lzma_stream& outStream, const unsigned char* inData, int64_t inSize, uint64_t& outClaimed)
{
    McResult retVal = claimedSize(inData, inSize, outClaimed);
    if (retVal.isBad())
        return retVal;
    MC_CHECK_TEXT(retVal, lzma_alone_decoder(&outStream, sDecoderMemLimit) == LZMA_OK,
                  "lzma_alone_decoder() == LZMA_OK", "lzma decompression could not start");
    return retVal;
}
}

McResult KsDeploy::lzmaCompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize)
{
    lzma_stream stream = LZMA_STREAM_INIT;
    McResult retVal = encoderStart(stream);
    if (retVal.isBad())
        return retVal;
    return run(stream, outData, inData, inSize, inSize / 3 + 1024, "lzma compression");
}

McResult KsDeploy::lzmaUncompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize)
{
    uint64_t claimed = 0;
    lzma_stream stream = LZMA_STREAM_INIT;
    McResult retVal = decoderStart(stream, inData, inSize, claimed);
    if (retVal.isBad())
        return retVal;
    const bool known = claimed != UINT64_MAX;
    const int64_t guess = known ? static_cast<int64_t>(std::min<uint64_t>(claimed, 256ull << 20)) + 1 : inSize * 4;
    return run(stream, outData, inData, inSize, guess, "lzma decompression");
}

McResult KsDeploy::lzmaCompressTo(const LzmaSink& inSink, const unsigned char* inData, int64_t inSize)
{
    lzma_stream stream = LZMA_STREAM_INIT;
    McResult retVal = encoderStart(stream);
    if (retVal.isBad())
        return retVal;
    return runTo(stream, inSink, inData, inSize, "lzma compression");
}

LzmaWithin KsDeploy::lzmaCompressWithin(std::vector<unsigned char>& outData, const unsigned char* inData,
                                        int64_t inSize, uint64_t inLimit)
{
    outData.clear();
    lzma_options_lzma options;
    lzma_lzma_preset(&options, 6);
    lzma_stream stream = LZMA_STREAM_INIT;
    if (lzma_alone_encoder(&stream, &options) != LZMA_OK)
        return LzmaWithin::Failed;
    // Never more than the limit plus one block: past the limit the answer is known.
    const size_t block = 1 << 20;
    outData.reserve(static_cast<size_t>(std::min<uint64_t>(inLimit, static_cast<uint64_t>(inSize))) + block);
    stream.next_in = inData;
    stream.avail_in = static_cast<size_t>(inSize);
    lzma_ret ret = LZMA_OK;
    while (ret == LZMA_OK && outData.size() <= inLimit)
    {
        const size_t before = outData.size();
        outData.resize(before + block);
        stream.next_out = outData.data() + before;
        stream.avail_out = block;
        ret = lzma_code(&stream, LZMA_FINISH);
        outData.resize(before + block - stream.avail_out);
    }
    lzma_end(&stream);
    if (ret != LZMA_OK && ret != LZMA_STREAM_END)
        return LzmaWithin::Failed;
    if (outData.size() > inLimit)
    {
        outData.clear();
        return LzmaWithin::TooLarge;
    }
    return LzmaWithin::Done;
}

bool KsDeploy::lzmaLooksIncompressible(const unsigned char* inData, int64_t inSize)
{
    // Windows spread over the whole input, each through the fast preset: a window that shrinks
    // by 2% means the data may be worth the real run.
    const int64_t window = 64 * 1024;
    if (inSize < 4 * window)
        return false;
    const int probes = static_cast<int>(std::min<int64_t>(8, inSize / window));
    std::vector<unsigned char> out(static_cast<size_t>(window + window / 4 + 4096));
    for (int i = 0; i < probes; ++i)
    {
        const int64_t at = (inSize - window) * i / std::max(1, probes - 1);
        lzma_options_lzma options;
        lzma_lzma_preset(&options, 1);
        lzma_stream stream = LZMA_STREAM_INIT;
        if (lzma_alone_encoder(&stream, &options) != LZMA_OK)
            return false;
        stream.next_in = inData + at;
        stream.avail_in = static_cast<size_t>(window);
        stream.next_out = out.data();
        stream.avail_out = out.size();
        const lzma_ret ret = lzma_code(&stream, LZMA_FINISH);
        const size_t produced = out.size() - stream.avail_out;
        lzma_end(&stream);
        if (ret != LZMA_STREAM_END || produced < static_cast<size_t>(window - window / 50))
            return false;
    }
    return true;
}

McResult KsDeploy::lzmaUncompressTo(const LzmaSink& inSink, const unsigned char* inData, int64_t inSize)
{
    uint64_t claimed = 0;
    lzma_stream stream = LZMA_STREAM_INIT;
    McResult retVal = decoderStart(stream, inData, inSize, claimed);
    if (retVal.isBad())
        return retVal;
    return runTo(stream, inSink, inData, inSize, "lzma decompression");
}

namespace
{
// An unreported failure with the same message and condition as the reporting checks above.
McResult streamFailure(const char* inCondition, const QString& inMessage)
{
    const QByteArray text = inMessage.toLatin1();
    return McResult(McResult::CodeFailMessage, __LINE__, "Lzma:KsDeploy::lzmaUncompressStream", text.constData(),
                    inCondition);
}

// Fills inoutData up to inWanted bytes from the source; false on a read error.
bool sourceFill(const LzmaSource& inSource, unsigned char* inoutData, size_t inWanted, size_t& inoutHave,
                bool& outEnded)
{
    while (inoutHave < inWanted)
    {
        const int64_t got = inSource(inoutData + inoutHave, inWanted - inoutHave);
        if (got < 0)
            return false;
        if (got == 0)
        {
            outEnded = true;
            break;
        }
        inoutHave += static_cast<size_t>(got);
    }
    return true;
}
}

namespace
{
// What one thread's decodings share: a cache of many small items would otherwise pay, per item,
// for two buffers and for setting up the decoder and its dictionary anew (the codec reuses both
// when started again on the same stream).
struct DecodeScratch
{
    static const size_t sBufLen = 1 << 20;
    lzma_stream stream = LZMA_STREAM_INIT;
    std::unique_ptr<unsigned char[]> in{new unsigned char[sBufLen]};
    std::unique_ptr<unsigned char[]> out{new unsigned char[sBufLen]};
    bool busy = false;
    ~DecodeScratch() { lzma_end(&stream); }
};
}

McResult KsDeploy::lzmaUncompressStream(const LzmaSink& inSink, const LzmaSource& inSource)
{
    static thread_local DecodeScratch sScratch;
    // A sink that decodes another stream on this thread gets scratch of its own.
    std::unique_ptr<DecodeScratch> own;
    DecodeScratch& scratch = sScratch.busy ? *(own = std::make_unique<DecodeScratch>()) : sScratch;
    struct Busy
    {
        DecodeScratch& s;
        ~Busy()
        {
            // A large dictionary is not kept for the rest of the thread's life.
            if (lzma_memusage(&s.stream) > sKeptDecoderMem)
                lzma_end(&s.stream);
            s.busy = false;
        }
    } busy{scratch};
    scratch.busy = true;
    const size_t bufLen = DecodeScratch::sBufLen;
    unsigned char* const in = scratch.in.get();
    unsigned char* const out = scratch.out.get();
    size_t have = 0;
    bool ended = false;
    if (!sourceFill(inSource, in, 13, have, ended))
        return streamFailure("cond[read]", QStringLiteral("lzma decompression: the input cannot be read"));
    if (have < 13)
        return streamFailure("cond[inSize >= 13]", QStringLiteral("lzma decompression: truncated data"));
    uint64_t claimed = 0;
    for (int i = 0; i < 8; ++i)
        claimed |= static_cast<uint64_t>(in[5 + i]) << (8 * i);
    const bool known = claimed != UINT64_MAX;
    if (known && claimed > sMaxClaimedSize)
        return streamFailure("cond[claimedSize <= sMaxClaimedSize]",
                             QStringLiteral("lzma decompression: the stream claims %1 bytes").arg(claimed));
    lzma_stream& stream = scratch.stream;
    if (lzma_alone_decoder(&stream, sDecoderMemLimit) != LZMA_OK)
        return streamFailure("cond[lzma_alone_decoder() == LZMA_OK]",
                             QStringLiteral("lzma decompression could not start"));
    stream.next_in = in;
    stream.avail_in = have;
    uint64_t produced = 0;
    lzma_ret ret = LZMA_OK;
    for (;;)
    {
        if (stream.avail_in == 0 && !ended)
        {
            have = 0;
            if (!sourceFill(inSource, in, bufLen, have, ended))
                return streamFailure("cond[read]", QStringLiteral("lzma decompression: the input cannot be read"));
            stream.next_in = in;
            stream.avail_in = have;
        }
        stream.next_out = out;
        stream.avail_out = bufLen;
        ret = lzma_code(&stream, ended ? LZMA_FINISH : LZMA_RUN);
        const size_t n = bufLen - stream.avail_out;
        produced += n;
        // The decoder stops at the stated size itself; this keeps it so whatever it does.
        if (known && produced > claimed)
            return streamFailure(
                "cond[produced <= claimedSize]",
                QStringLiteral("lzma decompression: more data than the %1 bytes the header states").arg(claimed));
        if (n > 0 && (ret == LZMA_OK || ret == LZMA_STREAM_END) && !inSink(out, n))
        {
            McResult retVal;
            retVal.makeBad(1);  // the sink has its own reason
            return retVal;
        }
        if (ret != LZMA_OK)
            break;
    }
    if (ret != LZMA_STREAM_END)
        return streamFailure("cond[ret == LZMA_STREAM_END]", QStringLiteral("lzma decompression: %1").arg(whyOf(ret)));
    // Whatever follows the end is no part of the item: an endless body behind a short stream.
    if (stream.avail_in == 0 && !ended)
    {
        have = 0;
        if (!sourceFill(inSource, in, 1, have, ended))
            return streamFailure("cond[read]", QStringLiteral("lzma decompression: the input cannot be read"));
        stream.avail_in = have;
    }
    if (stream.avail_in > 0)
        return streamFailure("cond[trailing == 0]",
                             QStringLiteral("lzma decompression: data after the end of the stream"));
    return McResult();
}
