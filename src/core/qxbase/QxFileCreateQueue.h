#pragma once
#include "QxFile.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace QxBase
{
// Runs copyCreate's fast path on worker threads: creating many small files is mostly the file
// system's work, which a second core halves. Jobs come back in the order they were added, each
// only saying whether the file was created; anything else (something there, a failure) is for
// the caller to do again through copyCreate, which then says why. Folders must be made
// (makePath) by the thread that adds the jobs.
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
    size_t backlog();
    // The oldest job once finished (inWait: wait for it); false when there is none (yet).
    bool next(bool inWait, void*& outTag, QString& outTarget, bool& outCreated, FileStamp& outStamp);

private:
    struct Job;
    void work();

    std::mutex mMutex;
    std::condition_variable mWork, mDone;
    std::deque<std::pair<std::shared_ptr<Job>, void*>> mOrder;
    std::deque<std::shared_ptr<Job>> mTodo;
    bool mStopping = false;
    std::vector<std::thread> mWorkers;
};
}
