#pragma once
#include <QString>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace QxBase
{
// Files without a name (File::openNameless), made ahead in one folder on a worker thread and
// handed out open for writing. Making a file is mostly the file system's work (finding a free
// inode), and many small downloads into one folder spend most of their time on it: a second core
// takes it off the thread that runs the transfers. take() never waits; with none ready the
// caller makes its own. Files not taken are closed, and so gone, with the pool.
class NamelessFilePool
{
public:
    NamelessFilePool(const QString& inFolder, int inAhead);
    ~NamelessFilePool();
    NamelessFilePool(const NamelessFilePool&) = delete;
    NamelessFilePool& operator=(const NamelessFilePool&) = delete;

    const QString& folder() const { return mFolder; }
    // A descriptor of a new file without a name in folder(), now the caller's; -1 when none is
    // ready (or the folder cannot have such files).
    int take();

private:
    void work();

    const QString mFolder;
    const size_t mAhead;
    std::mutex mMutex;
    std::condition_variable mRoom;
    std::deque<int> mReady;  // guarded by mMutex
    bool mStopping = false;  // guarded by mMutex
    std::thread mWorker;
};
}
