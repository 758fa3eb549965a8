#pragma once
#include "QxFile.h"

#include <QStringList>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace KsDeploy
{
// Hashes files on worker threads ahead of a walk that asks scanFile for them one at a time: MD5
// runs on one core per file, so a product of many files is hashed on every core while the walk
// stays on this thread, in its order, with its progress and its messages. The walk calls
// record(i) before it needs file i, which waits for that digest and puts it in scanFile's memo.
// A file the workers could not read or that changed meanwhile is left out; scanFile then reads
// it again and says why. A file already in the memo is not hashed ahead at all. A pending interrupt makes the workers
// skip what is left.
class FileHashAhead
{
public:
    // inPaths in the order the walk will ask for them; inWorkers 0: one per core. Fewer than
    // inMinimum files are left to the walk alone: threads pay off only for many.
    explicit FileHashAhead(const QStringList& inPaths, int inWorkers = 0, int inMinimum = 65);
    // The workers skip what is left and are joined.
    ~FileHashAhead();
    FileHashAhead(const FileHashAhead&) = delete;
    FileHashAhead& operator=(const FileHashAhead&) = delete;

    // Waits for the digest of inPaths[inIndex] and records it (main thread only).
    void record(int inIndex);

private:
    struct Job
    {
        QxBase::FileStamp stamp;
        McLib::MD5 md5;
        bool hashed = false;
        bool known = false;  // in the memo before the workers started: left to scanFile
        std::atomic<bool> finished{false};
    };
    void work();

    QStringList mPaths;
    std::unique_ptr<Job[]> mJobs;
    std::atomic<int> mNext{0};
    std::atomic<bool> mStop{false};
    std::mutex mMutex;
    std::condition_variable mDone;
    int mWaitingFor = -1;  // guarded by mMutex
    std::vector<std::thread> mWorkers;
};
}
