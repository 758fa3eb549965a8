#pragma once
// Who may still be writing a temporary file: its name carries the id of the process that writes
// it, so that a sweep of left-overs removes only those whose writer is gone and never the file of
// a process that is still at work (a download waiting for its next byte). Qt-free.
#include <ctime>

namespace KsPlatform
{
class TemporaryOwner
{
public:
    // The id that this process puts into the names of its temporary files.
    static long self();
    // True when the process inPid cannot be writing a file last modified at inModified: no
    // process with that id runs (or only its remains), or the one that does started after that
    // time, so it took over the id of the writer. In doubt, false.
    static bool isGone(long inPid, std::time_t inModified);
};
}
