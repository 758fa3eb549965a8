#include "TemporaryOwner.h"

#include "Process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/types.h>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
// The boot time in seconds since 1970, from /proc/stat.
bool bootTime(std::time_t& outTime)
{
    std::ifstream in("/proc/stat");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 6, "btime ") == 0)
        {
            outTime = static_cast<std::time_t>(std::strtoll(line.c_str() + 6, nullptr, 10));
            return outTime > 0;
        }
    return false;
}

}

long TemporaryOwner::self() { return static_cast<long>(::getpid()); }

bool TemporaryOwner::isGone(long inPid, std::time_t inModified)
{
    if (inPid <= 0)
        return false;
    if (::kill(static_cast<pid_t>(inPid), 0) != 0)
        return errno == ESRCH;  // EPERM: it runs, as another user
    char state = 0;
    unsigned long long ticks = 0;
    std::time_t boot = 0;
    const long perSecond = ::sysconf(_SC_CLK_TCK);
    if (!Process::stateOf(inPid, state, ticks) || !bootTime(boot) || perSecond <= 0)
        return false;
    if (state == 'Z' || state == 'X')
        return true;
    // The boot time is whole seconds and the start time in ticks: a margin keeps the writer
    // itself, which started no later than its file was written, from ever looking younger.
    const std::time_t started = boot + static_cast<std::time_t>(ticks / static_cast<unsigned long long>(perSecond));
    return started > inModified + 2;
}
}
