#pragma once
#include "KsGlobal.h"

namespace KsDeploy
{
// Whole-buffer codec in the ".lzma" format (the format `xz --format=lzma` reads and writes):
// a 13-byte header with the coder properties and the size, then the raw stream.
McResult lzmaCompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize);
McResult lzmaUncompress(McDArray<unsigned char>& outData, const unsigned char* inData, int64_t inSize);
}
