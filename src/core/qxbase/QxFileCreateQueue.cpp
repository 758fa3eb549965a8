#include "QxFileCreateQueue.h"

namespace QxBase
{
struct FileCreateQueue::Job
{
    QString source;
    QString target;
    bool lookFirst = true;
    bool finished = false;
    bool created = false;
    FileStamp stamp;
};

FileCreateQueue::FileCreateQueue(int inWorkers)
{
    for (int i = 0; i < inWorkers; ++i)
        mWorkers.emplace_back([this] { work(); });
}

FileCreateQueue::~FileCreateQueue()
{
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
    auto job = std::make_shared<Job>();
    job->source = inSource;
    job->target = inTarget;
    // Decided here, on the caller's thread, which is the one that makes folders.
    job->lookFirst = File::targetMayExist(inTarget);
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mOrder.push_back({job, inTag});
        mTodo.push_back(job);
    }
    mWork.notify_one();
}

size_t FileCreateQueue::backlog()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mOrder.size();
}

bool FileCreateQueue::next(bool inWait, void*& outTag, QString& outTarget, bool& outCreated, FileStamp& outStamp)
{
    std::unique_lock<std::mutex> lock(mMutex);
    if (mOrder.empty())
        return false;
    if (!mOrder.front().first->finished)
    {
        if (!inWait)
            return false;
        mDone.wait(lock, [this] { return mOrder.front().first->finished; });
    }
    const auto front = mOrder.front();
    mOrder.pop_front();
    lock.unlock();
    outTag = front.second;
    outTarget = front.first->target;
    outCreated = front.first->created;
    outStamp = front.first->stamp;
    return true;
}

void FileCreateQueue::work()
{
    std::unique_lock<std::mutex> lock(mMutex);
    for (;;)
    {
        mWork.wait(lock, [this] { return mStopping || !mTodo.empty(); });
        if (mTodo.empty())
            return;
        const std::shared_ptr<Job> job = mTodo.front();
        mTodo.pop_front();
        lock.unlock();
        const bool created = File::copyCreateSilently(job->source, job->target, job->lookFirst, &job->stamp);
        lock.lock();
        job->created = created;
        job->finished = true;
        mDone.notify_all();
    }
}
}
