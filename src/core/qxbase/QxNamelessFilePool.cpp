#include "QxNamelessFilePool.h"

#include "QxFile.h"

#include <unistd.h>

using namespace QxBase;

NamelessFilePool::NamelessFilePool(const QString& inFolder, int inAhead)
    : mFolder(inFolder), mAhead(static_cast<size_t>(std::max(1, inAhead)))
{
    mWorker = std::thread([this] { work(); });
}

NamelessFilePool::~NamelessFilePool()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mRoom.notify_one();
    mWorker.join();
    for (const int fd : mReady)
        ::close(fd);
}

int NamelessFilePool::take()
{
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mReady.empty())
            return -1;
        fd = mReady.front();
        mReady.pop_front();
    }
    mRoom.notify_one();
    return fd;
}

void NamelessFilePool::work()
{
    // openNameless wants a path in the folder; the name itself is not used.
    const QString inside = mFolder + QStringLiteral("/.nameless");
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;)
    {
        mRoom.wait(lock, [this] { return mStopping || mReady.size() < mAhead; });
        if (mStopping)
            return;
        lock.unlock();
        bool unsupported = false;
        const int fd = File::openNameless(inside, unsupported);
        lock.lock();
        // A folder that refuses (no such files, no room, no permission): the callers make their
        // own and meet the reason themselves.
        if (fd < 0)
            return;
        mReady.push_back(fd);
    }
}
