#pragma once
#include "McString.h"

#include <cstring>

namespace McLib
{
// A 16-byte digest; all zero means "no digest known".
class MD5
{
public:
    MD5() { std::memset(mData, 0, sizeof(mData)); }

    const unsigned char* data() const { return mData; }
    unsigned char* data() { return mData; }
    bool isNull() const;
    void clear() { std::memset(mData, 0, sizeof(mData)); }

    // 32 lower-case hexadecimal digits; the empty text for the all-zero digest.
    McString toString() const;
    // Accepts 32 digits of either case, or the empty text; anything else reports and yields zero.
    static MD5 fromString(const McString& inEncodedBuffer);

    bool operator==(const MD5& inOther) const { return std::memcmp(mData, inOther.mData, 16) == 0; }
    bool operator!=(const MD5& inOther) const { return !(*this == inOther); }
    bool operator<(const MD5& inOther) const { return std::memcmp(mData, inOther.mData, 16) < 0; }

private:
    unsigned char mData[16];
};
}
