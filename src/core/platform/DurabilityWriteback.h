#pragma once
// Writing back a change's data while the change goes on, so that the flush at its commit finds
// little left to do: a thread flushes the file systems it is given, one after another, until it
// is stopped. It never decides what is durable (the commit's own flush does); it only spreads
// the disk's work over the time the change takes. Qt-free.
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace KsPlatform
{
class DurabilityWriteback
{
public:
    DurabilityWriteback() = default;
    // Stops the thread.
    ~DurabilityWriteback();
    DurabilityWriteback(const DurabilityWriteback&) = delete;
    DurabilityWriteback& operator=(const DurabilityWriteback&) = delete;

    // Starts flushing the file systems that hold inPaths (those that can be opened), each once
    // per turn, with a pause between turns.
    void start(const std::vector<std::string>& inPaths);
    // Ends the thread and waits for it (after the flush under way, if any).
    void stop();

private:
    void run();

    std::vector<int> mFds;
    std::thread mThread;
    std::mutex mMutex;
    std::condition_variable mWake;
    bool mStop = false;
};
}
