#pragma once
// Watching programs that are not ours to wait for, and starting one to see whether it comes up.
// Qt-free.
#include "PlatformStatus.h"
#include "Process.h"

namespace KsPlatform
{
class ProcessWatch
{
public:
    // Waits until the process inPid has ended (a zombie counts as ended), at most inTimeoutMs.
    // outEnded is false when it still runs after that. Any process may be watched, not only
    // our children. A pid of 0 or less has nothing to wait for.
    static void waitForEnd(long long inPid, int inTimeoutMs, bool& outEnded);

    struct StartOutcome
    {
        long long pid = -1;
        bool endedInTime = false;  // the program ended within the watch
        int exitCode = -1;         // its exit status when it did (128 + signal when killed)
        // Whether it counts as a start that failed: it ended within the watch with a status
        // other than 0.
        bool failed() const { return endedInTime && exitCode != 0; }
    };
    // Starts a program as our child in a session of its own and watches it for inWatchMs: a
    // program that cannot be executed is a bad status; one that runs longer is left running
    // (it outlives us).
    static Status startWatched(const ProcessStart& inStart, int inWatchMs, StartOutcome& outOutcome);
};
}
