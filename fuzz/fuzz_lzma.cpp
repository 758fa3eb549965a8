// Decodes arbitrary bytes as a ".lzma" copy, whole and piece by piece. The two must agree, and
// the piecewise decoder may never produce more than the header states. Any crash found is kept
// in fuzz/regressions/lzma, which the unit tests replay.
#include "Lzma.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{
// Enough for any input that is not a bomb; a bomb is stopped here rather than filling the memory.
const size_t sOutputCap = 8u << 20;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize)
{
    using namespace KsDeploy;
    if (inSize < 1)
        return 0;
    // The first byte picks the size of the pieces the input arrives in.
    const size_t piece = 1 + inData[0] % 97;
    const unsigned char* data = inData + 1;
    const size_t size = inSize - 1;

    std::vector<unsigned char> whole;
    bool wholeCapped = false;
    const McResult wholeResult = lzmaUncompressTo(
        [&](const unsigned char* inOut, size_t inOutSize) {
            if (whole.size() + inOutSize > sOutputCap)
            {
                wholeCapped = true;
                return false;
            }
            whole.insert(whole.end(), inOut, inOut + inOutSize);
            return true;
        },
        data, static_cast<int64_t>(size));

    std::vector<unsigned char> streamed;
    bool streamCapped = false;
    size_t at = 0;
    const McResult streamResult = lzmaUncompressStream(
        [&](const unsigned char* inOut, size_t inOutSize) {
            if (streamed.size() + inOutSize > sOutputCap)
            {
                streamCapped = true;
                return false;
            }
            streamed.insert(streamed.end(), inOut, inOut + inOutSize);
            return true;
        },
        [&](unsigned char* outData, size_t inRoom) -> int64_t {
            const size_t n = std::min({inRoom, piece, size - at});
            std::memcpy(outData, data + at, n);
            at += n;
            return static_cast<int64_t>(n);
        });

    if (size >= 13)
    {
        uint64_t claimed = 0;
        for (int i = 0; i < 8; ++i)
            claimed |= static_cast<uint64_t>(data[5 + i]) << (8 * i);
        if (claimed != UINT64_MAX && streamed.size() > claimed)
            std::abort();  // more than the header states
    }
    // A stream the piecewise decoder accepts is one the whole decoder accepts, with the same bytes
    // (the piecewise one is stricter: nothing may follow the end).
    if (streamResult.isOk() && !wholeCapped && (wholeResult.isBad() || whole != streamed))
        std::abort();
    // Without trailing bytes, the whole decoder's verdict is the piecewise one's.
    if (wholeResult.isOk() && !streamCapped && streamResult.isBad() &&
        std::strstr(streamResult.text(), "data after the end") == nullptr)
        std::abort();
    return 0;
}
