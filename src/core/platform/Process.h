#pragma once
// Starting a program, Qt-free; the one place that forks and executes programs. It can be held
// before it starts until resume(), so that a caller may finish its own work (or let go of files)
// first. A detached program (the default) outlives this object and the caller, which never has
// to wait for it; an attached one is our child, and the caller waits for its exit status.
#include "PlatformStatus.h"

#include <string>
#include <vector>

namespace KsPlatform
{
struct ProcessStart
{
    std::string program;                   // path of the executable (no search along PATH)
    std::vector<std::string> arguments;    // without the program itself
    std::string workingDirectory;          // empty: the caller's
    std::vector<std::string> environment;  // "KEY=value"; empty: the caller's environment
    bool newSession = true;                // leave the caller's session and terminal
    bool detached = true;                  // false: our child, to be waited for with waitForExit()
};

class Process
{
public:
    Process();
    // A held program is let go: it must never wait forever for a caller that has gone.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // inHeld: the program is created but waits before it starts until resume().
    // Otherwise it starts at once, and a program that cannot be executed is reported here.
    Status start(const ProcessStart& inStart, bool inHeld);
    // Lets a held program start; reports a program that could not be executed.
    Status resume();
    bool isHeld() const { return mGate >= 0; }

    // The program's process id; -1 before start.
    long long processId() const { return mPid; }
    // True until the program has ended (a held program counts as running).
    bool isRunning() const;
    // Attached programs only: waits until the program has ended (a held one is resumed first).
    // outExitCode is its exit status, or 128 plus the signal that ended it.
    Status waitForExit(int& outExitCode);
    // The same for at most inTimeoutMs: outEnded tells whether it ended (and outExitCode is then
    // set as above); a program still running after that stays our child and keeps running.
    Status waitForExitWithin(int inTimeoutMs, bool& outEnded, int& outExitCode);

    // Any process: its state letter ('R', 'S', 'Z', ...) and start time (clock ticks since boot,
    // which tells it from a later process with the same id). False when there is no such process.
    static bool stateOf(long long inPid, char& outState, unsigned long long& outStartTime);

private:
    Status waitForExec();
    Status waitPrepare();
    static int exitCodeOf(int inWaitStatus);
    void reap(int& outStatus);

    long long mPid = -1;
    unsigned long long mStartTime = 0;  // tells our program from a later one with the same id
    int mGate = -1;                     // written (or closed) to let a held program start
    int mReport = -1;                   // receives errno when the exec fails; closed by the exec
    bool mDetached = true;
    bool mReaped = false;
    std::string mProgram;
};
}
