#pragma once
#include "QxFile.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace QxBase
{
// Runs copyCreate's fast path on worker threads: creating many small files is mostly the file
// system's work, which a second core halves. Jobs come back in the order they were added, each
// only saying whether the file was created; anything else (something there, a failure) is for
// the caller to do again through copyCreate, which then says why. Folders must be made
// (makePath) by the thread that adds the jobs. Only that thread calls add, backlog and next.
class FileCreateQueue
{
public:
    explicit FileCreateQueue(int inWorkers);
    // Waits for the workers; jobs not taken back yet are finished first.
    ~FileCreateQueue();
    FileCreateQueue(const FileCreateQueue&) = delete;
    FileCreateQueue& operator=(const FileCreateQueue&) = delete;

    void add(const QString& inSource, const QString& inTarget, void* inTag);
    // Jobs added and not yet taken back: the caller keeps this bounded by taking them back.
    size_t backlog() const { return mOrder.size(); }
    // The oldest job once finished (inWait: wait for it); false when there is none (yet).
    bool next(bool inWait, void*& outTag, QString& outTarget, bool& outCreated, FileStamp& outStamp);

private:
    struct Job
    {
        QString source;
        QString target;
        void* tag = nullptr;
        bool lookFirst = true;
        bool created = false;
        FileStamp stamp;
        std::atomic<bool> finished{false};
    };
    void work();
    // Hands the jobs added since the last call to the workers, under one lock.
    void handOver();

    // The caller's thread alone changes it; a deque keeps the jobs where they are while the
    // workers hold them.
    std::deque<Job> mOrder;
    std::vector<Job*> mBatch;
    std::mutex mMutex;
    std::condition_variable mWork, mDone;
    std::deque<Job*> mTodo;                  // guarded by mMutex
    int mIdle = 0;                           // workers waiting for work, guarded by mMutex
    bool mStopping = false;                  // guarded by mMutex
    std::atomic<Job*> mWaitingFor{nullptr};  // the job the caller sleeps for
    size_t mWorkerCount = 0;
    std::vector<std::thread> mWorkers;
};
}
