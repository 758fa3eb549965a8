#include "PlatformStatus.h"

std::string KsPlatform::latin1ToUtf8(const std::string& inLatin1)
{
    std::string out;
    out.reserve(inLatin1.size());
    for (const char ch : inLatin1)
    {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c < 0x80)
        {
            out += ch;
        }
        else
        {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

bool KsPlatform::utf8ToLatin1(const std::string& inUtf8, std::string& outLatin1)
{
    std::string out;
    out.reserve(inUtf8.size());
    for (size_t i = 0; i < inUtf8.size(); ++i)
    {
        const unsigned char c = static_cast<unsigned char>(inUtf8[i]);
        if (c < 0x80)
        {
            out += static_cast<char>(c);
            continue;
        }
        // Only the two-byte forms of U+0080..U+00FF fit into Latin-1.
        if ((c != 0xC2 && c != 0xC3) || i + 1 >= inUtf8.size())
            return false;
        const unsigned char c2 = static_cast<unsigned char>(inUtf8[i + 1]);
        if ((c2 & 0xC0) != 0x80)
            return false;
        out += static_cast<char>(((c & 0x03) << 6) | (c2 & 0x3F));
        ++i;
    }
    outLatin1.swap(out);
    return true;
}
