#include "TemporaryOwner.h"

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

// State letter and start time (clock ticks since boot) from /proc/<pid>/stat.
bool processStat(long inPid, char& outState, unsigned long long& outStartTime)
{
    std::ifstream in("/proc/" + std::to_string(inPid) + "/stat");
    std::string text;
    if (!std::getline(in, text))
        return false;
    // The name in parentheses may hold anything, spaces and parentheses too: fields follow the last ')'.
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return false;
    std::istringstream fields(text.substr(close + 1));
    fields >> outState;
    std::string skip;
    // Fields 4 to 21; the start time is field 22.
    for (int i = 4; i <= 21 && fields; ++i)
        fields >> skip;
    return static_cast<bool>(fields >> outStartTime);
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
    if (!processStat(inPid, state, ticks) || !bootTime(boot) || perSecond <= 0)
        return false;
    if (state == 'Z' || state == 'X')
        return true;
    // The boot time is whole seconds and the start time in ticks: a margin keeps the writer
    // itself, which started no later than its file was written, from ever looking younger.
    const std::time_t started = boot + static_cast<std::time_t>(ticks / static_cast<unsigned long long>(perSecond));
    return started > inModified + 2;
}
}
