#include "DurabilityWriteback.h"

#include <chrono>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
// Short enough that little piles up between turns, long enough that an idle change costs nothing.
const std::chrono::milliseconds sPause(100);
}

DurabilityWriteback::~DurabilityWriteback() { stop(); }

void DurabilityWriteback::start(const std::vector<std::string>& inPaths)
{
    stop();
    std::set<dev_t> seen;
    for (const std::string& path : inPaths)
    {
        struct stat st;
        if (::stat(path.c_str(), &st) != 0 || !seen.insert(st.st_dev).second)
            continue;
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0)
            mFds.push_back(fd);
    }
    if (mFds.empty())
        return;
    mStop = false;
    mThread = std::thread(&DurabilityWriteback::run, this);
}

void DurabilityWriteback::stop()
{
    {
        std::lock_guard<std::mutex> hold(mMutex);
        mStop = true;
    }
    mWake.notify_all();
    if (mThread.joinable())
        mThread.join();
    for (int fd : mFds)
        ::close(fd);
    mFds.clear();
}

void DurabilityWriteback::run()
{
    std::unique_lock<std::mutex> hold(mMutex);
    while (!mWake.wait_for(hold, sPause, [this] { return mStop; }))
    {
        hold.unlock();
        // The result does not matter here: the commit's flush reports what failed.
        for (int fd : mFds)
            ::syncfs(fd);
        hold.lock();
    }
}
}
