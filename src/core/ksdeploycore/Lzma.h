#pragma once
#include "KsGlobal.h"

#include <functional>
#include <vector>

namespace KsDeploy
{
// Whole-buffer codec in the ".lzma" format (the format `xz --format=lzma` reads and writes):
// a 13-byte header with the coder properties and the size, then the raw stream.
McResult lzmaCompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize);
McResult lzmaUncompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize);

// The same codec over the whole input, handing the output to inSink piece by piece as it is
// produced (the concatenation is exactly what the calls above return). A sink that returns
// false stops the codec with a failure. Lets a file be written without a second whole copy
// of it in memory.
using LzmaSink = std::function<bool(const unsigned char* inData, size_t inSize)>;
McResult lzmaCompressTo(const LzmaSink& inSink, const unsigned char* inData, int64_t inSize);
McResult lzmaUncompressTo(const LzmaSink& inSink, const unsigned char* inData, int64_t inSize);

// The codec's output for the whole input, as lzmaCompress gives it, unless it grows beyond
// inLimit bytes. Says nothing and shares nothing, so any thread may run it.
enum class LzmaWithin
{
    Done,
    TooLarge,
    Failed,  // the codec could not run (no memory)
};
LzmaWithin lzmaCompressWithin(std::vector<unsigned char>& outData, const unsigned char* inData, int64_t inSize,
                              uint64_t inLimit);

// A quick look at whether the codec could shrink the data at all: true when windows spread over
// it do not shrink by 2% under the fast preset. Small inputs are never judged so. A guess, so
// only good for leaving out a copy that would likely not be worth having.
bool lzmaLooksIncompressible(const unsigned char* inData, int64_t inSize);

// Decoding with bounded memory, input and output both piece by piece: inSource fills up to
// inRoom bytes and returns how many, 0 at the end of the input, -1 when it cannot read (it keeps
// its own reason). The output never exceeds the size the header states, and nothing may follow
// the stream's end. Reports nothing itself: the caller decides whether a failure is one (a
// broken copy that has a fallback is not).
using LzmaSource = std::function<int64_t(unsigned char* outData, size_t inRoom)>;
McResult lzmaUncompressStream(const LzmaSink& inSink, const LzmaSource& inSource);
}
