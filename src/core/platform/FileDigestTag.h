#pragma once
// A file's MD5 kept on the file itself, valid only while the file keeps the size and modification
// time it had when it was tagged. The engine tags what it installs, so that a later update can
// take an unchanged file without reading it: a program that rewrites a file changes its time.
// On Linux an extended attribute of the inode (hard links share it); where the file system has
// none, writing fails and reading finds nothing, and the file is simply hashed. Qt-free.
#include "PlatformStatus.h"

#include <cstdint>
#include <string>

namespace KsPlatform
{
class FileDigestTag
{
public:
    static const size_t sDigestBytes = 16;

    // Tags the file at inPath (a link is not followed) with inDigest for the size and modification
    // time (nanoseconds since the epoch) the caller saw when it knew the digest.
    static Status write(const std::string& inPath, const unsigned char* inDigest, int64_t inSize, int64_t inMtimeNs);
    // True, with the digest, when the file has a tag made for exactly this size and time.
    static bool read(const std::string& inPath, int64_t inSize, int64_t inMtimeNs, unsigned char* outDigest);
};
}
