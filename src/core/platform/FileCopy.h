#pragma once
// Copying one open file's content into another in the cheapest way the file system offers: a
// shared copy of the blocks (reflink) where it has them, else a copy inside the kernel, else
// through a buffer. Qt-free.
struct stat;

namespace KsPlatform
{
class FileCopy
{
public:
    // Copies the content of inIn (read from its start; inSourceStat its fstat) into the empty
    // inOut, which is written from its start; neither is closed. False with errno set when a
    // step failed.
    static bool content(int inIn, const struct stat& inSourceStat, int inOut);

private:
    static bool throughBuffer(int inIn, int inOut);
};
}
