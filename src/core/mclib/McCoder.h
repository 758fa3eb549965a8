#pragma once
#include "McString.h"

#include <cstdint>

// Incremental MD5 (RFC 1321) and hexadecimal conversion.
class McCoder
{
public:
    McCoder();

    void crcMD5Init();
    void crcMD5Update(const unsigned char* inData, unsigned int inLength);
    void crcMD5Final();
    void crcMD5Query(unsigned char outDigest[16]) const;

    // Writes 2 digits per byte; lower case when inLowerCase (the cache's item names rely on it).
    static void dataToHexString(const unsigned char* inData, unsigned int inLength, McString& outText,
                                bool inLowerCase);
    // Decodes pairs of digits of either case; returns false on a bad digit or odd length.
    static bool hexStringToData(unsigned char* outData, const McString& inText);

private:
    void transform(const unsigned char* inBlock, size_t inBlocks);

    uint32_t mState[4];
    uint64_t mLength = 0;
    unsigned char mBuffer[64];
    unsigned int mBufferUsed = 0;
    unsigned char mDigest[16];
    bool mFinal = false;
};
