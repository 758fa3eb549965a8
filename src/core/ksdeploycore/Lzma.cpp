#include "Lzma.h"

#include <lzma.h>

#include <algorithm>
#include <cstring>

using namespace KsDeploy;

namespace
{
// Bounds what a stream may make us allocate: decoder state, and the size a header claims.
const uint64_t sDecoderMemLimit = 256ull << 20;
const uint64_t sMaxClaimedSize = 16ull << 30;

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
    const char* why = ret == LZMA_MEMLIMIT_ERROR  ? "needs more memory than allowed"
                      : ret == LZMA_FORMAT_ERROR  ? "not in the lzma format"
                      : ret == LZMA_DATA_ERROR    ? "corrupt data"
                      : ret == LZMA_BUF_ERROR     ? "truncated data"
                      : ret == LZMA_OPTIONS_ERROR ? "unsupported options"
                                                  : "codec failure";
    MC_CHECK_TEXT(retVal, ok, "ret == LZMA_STREAM_END", QStringLiteral("%1: %2").arg(inWhat, why));
    if (!ok)
        outData.resize(0);
    lzma_end(&inStream);
    return retVal;
}
}

McResult KsDeploy::lzmaCompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize)
{
    McResult retVal;
    lzma_options_lzma options;
    lzma_lzma_preset(&options, 6);
    lzma_stream stream = LZMA_STREAM_INIT;
    if (MC_CHECK_TEXT(retVal, lzma_alone_encoder(&stream, &options) == LZMA_OK, "lzma_alone_encoder() == LZMA_OK",
                      "lzma compression could not start"))
        return retVal;
    return run(stream, outData, inData, inSize, inSize / 3 + 1024, "lzma compression");
}

McResult KsDeploy::lzmaUncompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize)
{
    McResult retVal;
    if (MC_CHECK_TEXT(retVal, inSize >= 13, "inSize >= 13", "lzma decompression: truncated data"))
        return retVal;
    // The header's size field: all ones means unknown; anything absurd is refused before
    // a single byte is allocated for it.
    uint64_t claimed = 0;
    for (int i = 0; i < 8; ++i)
        claimed |= static_cast<uint64_t>(inData[5 + i]) << (8 * i);
    const bool known = claimed != UINT64_MAX;
    if (MC_CHECK_TEXT(retVal, !known || claimed <= sMaxClaimedSize, "claimedSize <= sMaxClaimedSize",
                      QStringLiteral("lzma decompression: the stream claims %1 bytes").arg(claimed)))
        return retVal;
    lzma_stream stream = LZMA_STREAM_INIT;
    if (MC_CHECK_TEXT(retVal, lzma_alone_decoder(&stream, sDecoderMemLimit) == LZMA_OK,
                      "lzma_alone_decoder() == LZMA_OK", "lzma decompression could not start"))
        return retVal;
    const int64_t guess = known ? static_cast<int64_t>(std::min<uint64_t>(claimed, 256ull << 20)) + 1 : inSize * 4;
    return run(stream, outData, inData, inSize, guess, "lzma decompression");
}
