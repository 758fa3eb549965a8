// File digest tags on Linux: one extended attribute in the user namespace, a fixed layout of
// 36 bytes (a version mark, the digest, then size and time little-endian).
#include "FileDigestTag.h"

#include <cerrno>
#include <cstring>
#include <sys/xattr.h>

namespace KsPlatform
{
namespace
{
const char* const sName = "user.ksdeploy.digest";
const unsigned char sMark[4] = {'K', 'S', 'D', '1'};
const size_t sValueBytes = sizeof(sMark) + FileDigestTag::sDigestBytes + 16;

void putNumber(unsigned char* outAt, int64_t inValue)
{
    const uint64_t v = static_cast<uint64_t>(inValue);
    for (int i = 0; i < 8; ++i)
        outAt[i] = static_cast<unsigned char>(v >> (8 * i));
}

int64_t numberAt(const unsigned char* inAt)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v |= static_cast<uint64_t>(inAt[i]) << (8 * i);
    return static_cast<int64_t>(v);
}
}

Status FileDigestTag::write(const std::string& inPath, const unsigned char* inDigest, int64_t inSize, int64_t inMtimeNs)
{
    unsigned char value[sValueBytes];
    std::memcpy(value, sMark, sizeof(sMark));
    std::memcpy(value + sizeof(sMark), inDigest, sDigestBytes);
    putNumber(value + sizeof(sMark) + sDigestBytes, inSize);
    putNumber(value + sizeof(sMark) + sDigestBytes + 8, inMtimeNs);
    if (::lsetxattr(inPath.c_str(), sName, value, sizeof(value), 0) != 0)
    {
        const int error = errno;
        return Status::bad(error, inPath + ": " + std::strerror(error));
    }
    return Status::ok();
}

bool FileDigestTag::read(const std::string& inPath, int64_t inSize, int64_t inMtimeNs, unsigned char* outDigest)
{
    unsigned char value[sValueBytes + 1];
    const ssize_t n = ::lgetxattr(inPath.c_str(), sName, value, sizeof(value));
    if (n != static_cast<ssize_t>(sValueBytes) || std::memcmp(value, sMark, sizeof(sMark)) != 0)
        return false;
    if (numberAt(value + sizeof(sMark) + sDigestBytes) != inSize ||
        numberAt(value + sizeof(sMark) + sDigestBytes + 8) != inMtimeNs)
        return false;
    std::memcpy(outDigest, value + sizeof(sMark), sDigestBytes);
    return true;
}
}
