#include "FileCopy.h"

#include <atomic>
#include <cerrno>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
// The device whose file system refused a reflink: its next files go straight to the kernel copy,
// without the failing call per file.
std::atomic<unsigned long long> sNoReflinkDevice{~0ull};
const long long sSmall = 16384;

bool writeFully(int inOut, const char* inData, ssize_t inSize)
{
    ssize_t w = 0;
    while (w < inSize)
    {
        const ssize_t k = ::write(inOut, inData + w, static_cast<size_t>(inSize - w));
        if (k < 0 && errno == EINTR)
            continue;
        if (k < 0)
            return false;
        if (k == 0)
        {
            errno = ENOSPC;
            return false;
        }
        w += k;
    }
    return true;
}
}

bool FileCopy::throughBuffer(int inIn, int inOut)
{
    static thread_local char sBuf[1 << 20];
    if (::lseek(inIn, 0, SEEK_SET) < 0 || ::ftruncate(inOut, 0) != 0 || ::lseek(inOut, 0, SEEK_SET) < 0)
        return false;
    for (;;)
    {
        const ssize_t r = ::read(inIn, sBuf, sizeof(sBuf));
        if (r == 0)
            return true;
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0 || !writeFully(inOut, sBuf, r))
            return false;
    }
}

bool FileCopy::content(int inIn, const struct stat& inSourceStat, int inOut)
{
    const long long size = inSourceStat.st_size;
    if (size <= 0)
        return true;
    // A small file (most of a product) goes through one buffer, a read and a write: a reflink or
    // a kernel copy saves nothing worth its call on so few bytes.
    if (size <= sSmall)
    {
        static thread_local char sBuf[sSmall];
        ssize_t r;
        do
            r = ::read(inIn, sBuf, sizeof(sBuf));
        while (r < 0 && errno == EINTR);
        if (r == size)
            return writeFully(inOut, sBuf, r);
        if (r < 0)
            return false;
        // The file changed its size meanwhile: the general way below copies what it holds now.
        if (::lseek(inIn, 0, SEEK_SET) < 0)
            return false;
    }
    // Blocks are shared only within one file system, the source's; one that has no reflinks
    // says so on the first file and is not asked again.
    const auto device = static_cast<unsigned long long>(inSourceStat.st_dev);
    if (device != sNoReflinkDevice.load(std::memory_order_relaxed))
    {
        if (::ioctl(inOut, FICLONE, inIn) == 0)
            return true;
        if (errno == EOPNOTSUPP || errno == ENOTTY || errno == EXDEV || errno == EINVAL || errno == ENOSYS)
            sNoReflinkDevice.store(device, std::memory_order_relaxed);
    }
    // The size known beforehand spares the last call that would only report the end.
    long long copied = 0;
    while (copied < size)
    {
        const ssize_t n = ::copy_file_range(inIn, nullptr, inOut, nullptr, 1 << 30, 0);
        if (n > 0)
        {
            copied += n;
            continue;
        }
        if (n == 0)
            return true;  // the source got shorter meanwhile: what it holds now is copied
        if (errno == EINTR)
            continue;
        if (errno == EXDEV || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOSYS || errno == EBADF ||
            errno == ETXTBSY || errno == EPERM)
            return throughBuffer(inIn, inOut);
        return false;
    }
    return true;
}
}
