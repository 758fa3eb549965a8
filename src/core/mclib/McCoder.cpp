#include "McCoder.h"

#include <cstring>

// RFC 1321 MD5. Rounds are written out so the compiler keeps the state in registers;
// blocks are read straight from the caller's buffer whenever 64 bytes are available.

namespace
{
inline uint32_t rotl(uint32_t x, int c) { return (x << c) | (x >> (32 - c)); }

inline uint32_t load32(const unsigned char* p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap32(v);
#endif
    return v;
}

#define MD5_F(x, y, z)                   ((z) ^ ((x) & ((y) ^ (z))))
// Only one operation waits for the newest word of the state (b in a step): H starts from the two
// older words, and G's two halves never share a bit, so they are added one by one (MD5_STEP_G).
#define MD5_H(x, y, z)                   (((y) ^ (z)) ^ (x))
#define MD5_I(x, y, z)                   ((y) ^ ((x) | ~(z)))
#define MD5_STEP(f, a, b, c, d, x, t, s) (a) = (b) + rotl((a) + (x) + (t) + f((b), (c), (d)), (s))
#define MD5_STEP_G(a, b, c, d, x, t, s)  (a) = (b) + rotl((a) + (x) + (t) + ((c) & ~(d)) + ((b) & (d)), (s))
}

McCoder::McCoder() { crcMD5Init(); }

void McCoder::crcMD5Init()
{
    mState[0] = 0x67452301u;
    mState[1] = 0xefcdab89u;
    mState[2] = 0x98badcfeu;
    mState[3] = 0x10325476u;
    mLength = 0;
    mBufferUsed = 0;
    mFinal = false;
    std::memset(mDigest, 0, sizeof(mDigest));
}

void McCoder::transform(const unsigned char* inBlock, size_t inBlocks)
{
    uint32_t a0 = mState[0], b0 = mState[1], c0 = mState[2], d0 = mState[3];
    for (size_t blk = 0; blk < inBlocks; ++blk, inBlock += 64)
    {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i)
            x[i] = load32(inBlock + 4 * i);
        uint32_t a = a0, b = b0, c = c0, d = d0;

        MD5_STEP(MD5_F, a, b, c, d, x[0], 0xd76aa478, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[1], 0xe8c7b756, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[2], 0x242070db, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[3], 0xc1bdceee, 22);
        MD5_STEP(MD5_F, a, b, c, d, x[4], 0xf57c0faf, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[5], 0x4787c62a, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[6], 0xa8304613, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[7], 0xfd469501, 22);
        MD5_STEP(MD5_F, a, b, c, d, x[8], 0x698098d8, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[9], 0x8b44f7af, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[10], 0xffff5bb1, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[11], 0x895cd7be, 22);
        MD5_STEP(MD5_F, a, b, c, d, x[12], 0x6b901122, 7);
        MD5_STEP(MD5_F, d, a, b, c, x[13], 0xfd987193, 12);
        MD5_STEP(MD5_F, c, d, a, b, x[14], 0xa679438e, 17);
        MD5_STEP(MD5_F, b, c, d, a, x[15], 0x49b40821, 22);

        MD5_STEP_G(a, b, c, d, x[1], 0xf61e2562, 5);
        MD5_STEP_G(d, a, b, c, x[6], 0xc040b340, 9);
        MD5_STEP_G(c, d, a, b, x[11], 0x265e5a51, 14);
        MD5_STEP_G(b, c, d, a, x[0], 0xe9b6c7aa, 20);
        MD5_STEP_G(a, b, c, d, x[5], 0xd62f105d, 5);
        MD5_STEP_G(d, a, b, c, x[10], 0x02441453, 9);
        MD5_STEP_G(c, d, a, b, x[15], 0xd8a1e681, 14);
        MD5_STEP_G(b, c, d, a, x[4], 0xe7d3fbc8, 20);
        MD5_STEP_G(a, b, c, d, x[9], 0x21e1cde6, 5);
        MD5_STEP_G(d, a, b, c, x[14], 0xc33707d6, 9);
        MD5_STEP_G(c, d, a, b, x[3], 0xf4d50d87, 14);
        MD5_STEP_G(b, c, d, a, x[8], 0x455a14ed, 20);
        MD5_STEP_G(a, b, c, d, x[13], 0xa9e3e905, 5);
        MD5_STEP_G(d, a, b, c, x[2], 0xfcefa3f8, 9);
        MD5_STEP_G(c, d, a, b, x[7], 0x676f02d9, 14);
        MD5_STEP_G(b, c, d, a, x[12], 0x8d2a4c8a, 20);

        MD5_STEP(MD5_H, a, b, c, d, x[5], 0xfffa3942, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[8], 0x8771f681, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[11], 0x6d9d6122, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[14], 0xfde5380c, 23);
        MD5_STEP(MD5_H, a, b, c, d, x[1], 0xa4beea44, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[4], 0x4bdecfa9, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[7], 0xf6bb4b60, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[10], 0xbebfbc70, 23);
        MD5_STEP(MD5_H, a, b, c, d, x[13], 0x289b7ec6, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[0], 0xeaa127fa, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[3], 0xd4ef3085, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[6], 0x04881d05, 23);
        MD5_STEP(MD5_H, a, b, c, d, x[9], 0xd9d4d039, 4);
        MD5_STEP(MD5_H, d, a, b, c, x[12], 0xe6db99e5, 11);
        MD5_STEP(MD5_H, c, d, a, b, x[15], 0x1fa27cf8, 16);
        MD5_STEP(MD5_H, b, c, d, a, x[2], 0xc4ac5665, 23);

        MD5_STEP(MD5_I, a, b, c, d, x[0], 0xf4292244, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[7], 0x432aff97, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[14], 0xab9423a7, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[5], 0xfc93a039, 21);
        MD5_STEP(MD5_I, a, b, c, d, x[12], 0x655b59c3, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[3], 0x8f0ccc92, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[10], 0xffeff47d, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[1], 0x85845dd1, 21);
        MD5_STEP(MD5_I, a, b, c, d, x[8], 0x6fa87e4f, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[15], 0xfe2ce6e0, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[6], 0xa3014314, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[13], 0x4e0811a1, 21);
        MD5_STEP(MD5_I, a, b, c, d, x[4], 0xf7537e82, 6);
        MD5_STEP(MD5_I, d, a, b, c, x[11], 0xbd3af235, 10);
        MD5_STEP(MD5_I, c, d, a, b, x[2], 0x2ad7d2bb, 15);
        MD5_STEP(MD5_I, b, c, d, a, x[9], 0xeb86d391, 21);

        a0 += a;
        b0 += b;
        c0 += c;
        d0 += d;
    }
    mState[0] = a0;
    mState[1] = b0;
    mState[2] = c0;
    mState[3] = d0;
}

void McCoder::crcMD5Update(const unsigned char* inData, unsigned int inLength)
{
    if (mFinal || inLength == 0)
        return;
    mLength += inLength;
    if (mBufferUsed > 0)
    {
        const unsigned int take = (64 - mBufferUsed < inLength) ? 64 - mBufferUsed : inLength;
        std::memcpy(mBuffer + mBufferUsed, inData, take);
        mBufferUsed += take;
        inData += take;
        inLength -= take;
        if (mBufferUsed < 64)
            return;
        transform(mBuffer, 1);
        mBufferUsed = 0;
    }
    const size_t blocks = inLength / 64;
    if (blocks)
    {
        transform(inData, blocks);
        inData += blocks * 64;
        inLength -= static_cast<unsigned int>(blocks * 64);
    }
    if (inLength)
    {
        std::memcpy(mBuffer, inData, inLength);
        mBufferUsed = inLength;
    }
}

void McCoder::crcMD5Final()
{
    if (mFinal)
        return;
    const uint64_t bits = mLength * 8;
    unsigned char pad[72];
    const unsigned int padLen = (mBufferUsed < 56) ? (56 - mBufferUsed) : (120 - mBufferUsed);
    std::memset(pad, 0, sizeof(pad));
    pad[0] = 0x80;
    for (int i = 0; i < 8; ++i)
        pad[padLen + i] = static_cast<unsigned char>(bits >> (8 * i));
    const uint64_t lengthKept = mLength;
    crcMD5Update(pad, padLen + 8);
    mLength = lengthKept;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j)
            mDigest[4 * i + j] = static_cast<unsigned char>(mState[i] >> (8 * j));
    mFinal = true;
}

void McCoder::crcMD5Query(unsigned char outDigest[16]) const { std::memcpy(outDigest, mDigest, 16); }

void McCoder::dataToHexString(const unsigned char* inData, unsigned int inLength, McString& outText, bool inLowerCase)
{
    static const char sLower[] = "0123456789abcdef";
    static const char sUpper[] = "0123456789ABCDEF";
    const char* digits = inLowerCase ? sLower : sUpper;
    std::string out(static_cast<size_t>(inLength) * 2, '0');
    for (unsigned int i = 0; i < inLength; ++i)
    {
        out[2 * i] = digits[inData[i] >> 4];
        out[2 * i + 1] = digits[inData[i] & 0x0f];
    }
    outText = McString(out);
}

namespace
{
int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}
}

bool McCoder::hexStringToData(unsigned char* outData, const McString& inText)
{
    const size_t n = inText.length();
    if (n % 2 != 0)
        return false;
    for (size_t i = 0; i < n; i += 2)
    {
        const int hi = hexValue(inText[i]);
        const int lo = hexValue(inText[i + 1]);
        if (hi < 0 || lo < 0)
            return false;
        outData[i / 2] = static_cast<unsigned char>((hi << 4) | lo);
    }
    return true;
}
