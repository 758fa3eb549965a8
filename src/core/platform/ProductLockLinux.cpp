#include "ProductLock.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
long ownerOf(int inFd)
{
    char buf[32] = {};
    const ssize_t n = ::pread(inFd, buf, sizeof(buf) - 1, 0);
    return n > 0 ? std::strtol(buf, nullptr, 10) : 0;
}
}

ProductLock::~ProductLock() { release(); }

Status ProductLock::acquire(const std::string& inPath, long& outOwner)
{
    outOwner = 0;
    if (mFd >= 0)
        return Status::ok();
    // A holder may remove the file between our open and our lock: then the lock we got is on a
    // file nobody else will look at, and we try again with the new one.
    for (int attempt = 0; attempt < 100; ++attempt)
    {
        const int fd = ::open(inPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0)
            return Status::bad(errno, inPath + ": " + std::strerror(errno));
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        {
            const int why = errno;
            if (why == EWOULDBLOCK)
            {
                // The holder writes its id right after locking: a moment's wait for it.
                for (int i = 0; i < 50 && outOwner == 0; ++i)
                {
                    outOwner = ownerOf(fd);
                    if (outOwner == 0)
                        ::usleep(2000);
                }
            }
            ::close(fd);
            return Status::bad(why, inPath + ": " + std::strerror(why));
        }
        struct stat locked, named;
        if (::fstat(fd, &locked) != 0 || ::stat(inPath.c_str(), &named) != 0 || locked.st_ino != named.st_ino ||
            locked.st_dev != named.st_dev)
        {
            ::close(fd);
            continue;
        }
        const std::string pid = std::to_string(static_cast<long>(::getpid())) + "\n";
        if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size()))
        {
            const int why = errno;
            ::close(fd);
            return Status::bad(why, inPath + ": " + std::strerror(why));
        }
        mFd = fd;
        mPath = inPath;
        return Status::ok();
    }
    return Status::bad(EAGAIN, inPath + ": " + std::strerror(EAGAIN));
}

void ProductLock::release()
{
    if (mFd < 0)
        return;
    ::unlink(mPath.c_str());
    ::close(mFd);
    mFd = -1;
    mPath.clear();
}
}
