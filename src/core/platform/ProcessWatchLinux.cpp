// Watching processes on Linux: a process of someone else's is followed through /proc (its state
// and start time, so that a new process that got the same id is not mistaken for it).
#include "ProcessWatch.h"

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>

namespace KsPlatform
{
void ProcessWatch::waitForEnd(long long inPid, int inTimeoutMs, bool& outEnded)
{
    outEnded = true;
    char state = 0;
    unsigned long long started = 0;
    if (inPid <= 0 || !Process::stateOf(inPid, state, started))
        return;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(inTimeoutMs);
    for (;;)
    {
        unsigned long long now = 0;
        if (!Process::stateOf(inPid, state, now) || state == 'Z' || state == 'X' || now != started)
            return;
        if (std::chrono::steady_clock::now() >= deadline)
        {
            outEnded = false;
            return;
        }
        usleep(10000);
    }
}

Status ProcessWatch::startWatched(const ProcessStart& inStart, int inWatchMs, StartOutcome& outOutcome)
{
    outOutcome = StartOutcome();
    ProcessStart start = inStart;
    start.detached = false;
    start.newSession = true;
    Process process;
    Status s = process.start(start, false);
    if (s.isBad())
        return s;
    outOutcome.pid = process.processId();
    return process.waitForExitWithin(inWatchMs, outOutcome.endedInTime, outOutcome.exitCode);
}
}
