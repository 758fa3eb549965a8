#pragma once
// An exclusive lock on one product, held by a process for as long as it changes that product.
// The lock file holds the owner's process id, so that whoever is refused can say who holds it.
// The lock goes with the process, however it ends. Qt-free.
#include "PlatformStatus.h"

#include <string>

namespace KsPlatform
{
class ProductLock
{
public:
    ProductLock() = default;
    // Releases the lock.
    ~ProductLock();
    ProductLock(const ProductLock&) = delete;
    ProductLock& operator=(const ProductLock&) = delete;

    // Takes the lock without waiting. When another process holds it, the status is bad with
    // code EWOULDBLOCK and outOwner is that process's id (0 when it could not be read).
    Status acquire(const std::string& inPath, long& outOwner);
    // Lets go of the lock; removes its file, which is safe as acquire checks that the file it
    // locked is still the one with the name.
    void release();
    bool isHeld() const { return mFd >= 0; }

private:
    int mFd = -1;
    std::string mPath;
};
}
