#include "McString.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

McString::McString(const char* inText, size_t inStart, size_t inLength)
{
    if (inText)
        mText.assign(inText + inStart, inLength);
}

McString McString::fromInt64(int64_t inValue) { return McString(std::to_string(inValue)); }

McString McString::printf(const char* inFormat, ...)
{
    va_list args;
    va_start(args, inFormat);
    va_list copy;
    va_copy(copy, args);
    const int n = std::vsnprintf(nullptr, 0, inFormat, copy);
    va_end(copy);
    std::string out;
    if (n > 0)
    {
        std::vector<char> buf(static_cast<size_t>(n) + 1);
        std::vsnprintf(buf.data(), buf.size(), inFormat, args);
        out.assign(buf.data(), static_cast<size_t>(n));
    }
    va_end(args);
    return McString(out);
}
