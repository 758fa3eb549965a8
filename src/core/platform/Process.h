#pragma once
// Starting a program that runs on its own, Qt-free. It can be held before it starts until
// resume(), so that a caller may finish its own work (or let go of files) first. The program
// outlives this object and the caller; the caller never has to wait for it.
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

private:
    Status waitForExec();

    long long mPid = -1;
    unsigned long long mStartTime = 0;  // tells our program from a later one with the same id
    int mGate = -1;                     // written (or closed) to let a held program start
    int mReport = -1;                   // receives errno when the exec fails; closed by the exec
    std::string mProgram;
};
}
