#pragma once
#include <chrono>

// Stopwatch; getTime() is the elapsed time in seconds.
class McWatch
{
public:
    explicit McWatch(bool inStart = true)
    {
        if (inStart)
            start();
    }
    void start()
    {
        mStart = std::chrono::steady_clock::now();
        mRunning = true;
    }
    float getTime() const
    {
        if (!mRunning)
            return 0.0f;
        return std::chrono::duration<float>(std::chrono::steady_clock::now() - mStart).count();
    }

private:
    std::chrono::steady_clock::time_point mStart;
    bool mRunning = false;
};

class McThread
{
public:
    static void sleep(unsigned int inMilliseconds);
};

// Ends the process at once with the given exit code (no clean-up).
[[noreturn]] void McTerminateProcess(int inExitCode);
