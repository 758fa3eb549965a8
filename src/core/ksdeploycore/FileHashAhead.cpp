#include "FileHashAhead.h"

#include "Common.h"

#include "InterruptSignals.h"

#include <algorithm>

using namespace KsDeploy;

FileHashAhead::FileHashAhead(const QStringList& inPaths, int inWorkers, int inMinimum)
    : mPaths(inPaths.size() >= inMinimum ? inPaths : QStringList()),
      mJobs(new Job[static_cast<size_t>(std::max<qsizetype>(1, mPaths.size()))])
{
    // A file this run wrote or hashed already is answered by the memo from its stamp: hashing it
    // again would cost what the memo saves (a staged update verifies a folder it just wrote).
    int toHash = 0;
    for (qsizetype i = 0; i < mPaths.size(); ++i)
    {
        if (scanFileSeen(mPaths[i]))
        {
            mJobs[static_cast<size_t>(i)].known = true;
            mJobs[static_cast<size_t>(i)].finished = true;
        }
        else
            ++toHash;
    }
    int workers = inWorkers > 0 ? inWorkers : static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 8u));
    workers = std::min(workers, toHash);
    for (int i = 0; i < workers; ++i)
        mWorkers.emplace_back([this] { work(); });
}

FileHashAhead::~FileHashAhead()
{
    mStop = true;
    for (std::thread& t : mWorkers)
        t.join();
}

void FileHashAhead::work()
{
    const int n = static_cast<int>(mPaths.size());
    for (int i = mNext.fetch_add(1); i < n; i = mNext.fetch_add(1))
    {
        Job& job = mJobs[static_cast<size_t>(i)];
        // Once stopped or interrupted the rest is only marked finished, so no one waits for it.
        if (!job.known && !mStop && KsPlatform::InterruptSignals::pending() == 0)
            job.hashed = scanFileSilently(mPaths[i], job.md5, job.stamp);
        job.finished.store(true, std::memory_order_release);
        // The walk sleeps only for the one file it waits for; every other job finishes unseen.
        std::lock_guard<std::mutex> lock(mMutex);
        if (mWaitingFor == i)
            mDone.notify_one();
    }
}

void FileHashAhead::record(int inIndex)
{
    if (inIndex < 0 || inIndex >= mPaths.size())
        return;
    Job& job = mJobs[static_cast<size_t>(inIndex)];
    if (!job.finished.load(std::memory_order_acquire))
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mWaitingFor = inIndex;
        mDone.wait(lock, [&] { return job.finished.load(std::memory_order_acquire); });
        mWaitingFor = -1;
    }
    if (job.hashed)
        scanFileRemember(mPaths[inIndex], job.md5, job.stamp);
}
