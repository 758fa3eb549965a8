#include "QxFileCreateQueue.h"

#include <algorithm>

namespace QxBase
{
namespace
{
// Jobs handed over per lock: few enough that the workers start at once, enough that the lock is
// not taken for every file.
const size_t sBatch = 8;
}

FileCreateQueue::FileCreateQueue(int inWorkers) : mWorkerCount(static_cast<size_t>(std::max(1, inWorkers)))
{
    for (int i = 0; i < inWorkers; ++i)
        mWorkers.emplace_back([this] { work(); });
}

FileCreateQueue::~FileCreateQueue()
{
    handOver();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mWork.notify_all();
    for (std::thread& t : mWorkers)
        t.join();
}

void FileCreateQueue::add(const QString& inSource, const QString& inTarget, void* inTag)
{
    Job& job = mOrder.emplace_back();
    job.source = inSource;
    job.target = inTarget;
    job.tag = inTag;
    // Decided here, on the caller's thread, which is the one that makes folders.
    job.lookFirst = File::targetMayExist(inTarget);
    mBatch.push_back(&job);
    if (mBatch.size() >= sBatch)
        handOver();
}

void FileCreateQueue::handOver()
{
    if (mBatch.empty())
        return;
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mTodo.insert(mTodo.end(), mBatch.begin(), mBatch.end());
        wake = mIdle > 0;
    }
    mBatch.clear();
    // Busy workers come back for more by themselves.
    if (wake)
        mWork.notify_all();
}

bool FileCreateQueue::next(bool inWait, void*& outTag, QString& outTarget, bool& outCreated, FileStamp& outStamp)
{
    if (mOrder.empty())
        return false;
    Job& front = mOrder.front();
    if (!front.finished.load(std::memory_order_acquire))
    {
        if (!inWait)
            return false;
        // The oldest job may still be in the batch not handed over yet.
        handOver();
        std::unique_lock<std::mutex> lock(mMutex);
        // Both sides store, then look (sequentially consistent): the worker that finishes the job
        // either sees that we wait for it or we see the job finished.
        mWaitingFor.store(&front);
        mDone.wait(lock, [&] { return front.finished.load(); });
        mWaitingFor.store(nullptr);
    }
    outTag = front.tag;
    outTarget = front.target;
    outCreated = front.created;
    outStamp = front.stamp;
    mOrder.pop_front();
    return true;
}

void FileCreateQueue::work()
{
    std::vector<Job*> mine;
    for (;;)
    {
        {
            std::unique_lock<std::mutex> lock(mMutex);
            ++mIdle;
            mWork.wait(lock, [this] { return mStopping || !mTodo.empty(); });
            --mIdle;
            if (mTodo.empty())
                return;
            // A fair share of what waits, so that the other workers get some too.
            const size_t take = std::clamp<size_t>(mTodo.size() / mWorkerCount, 1, sBatch);
            mine.assign(mTodo.begin(), mTodo.begin() + static_cast<std::ptrdiff_t>(take));
            mTodo.erase(mTodo.begin(), mTodo.begin() + static_cast<std::ptrdiff_t>(take));
        }
        for (Job* job : mine)
        {
            job->created = File::copyCreateSilently(job->source, job->target, job->lookFirst, &job->stamp);
            job->finished.store(true);
            // The lock makes the wake-up wait until the caller sleeps, if it is about to.
            if (mWaitingFor.load() == job)
            {
                std::lock_guard<std::mutex> lock(mMutex);
                mDone.notify_all();
            }
        }
    }
}
}
