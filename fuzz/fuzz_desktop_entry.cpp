// Decodes arbitrary text as a ".desktop" entry (and splits it as a command line); a decoded
// entry must survive being written again. Findings are kept in fuzz/regressions/desktop_entry,
// which the unit tests replay.
#include "FuzzPlatformChecks.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize)
{
    const std::string problem = KsFuzz::checkDesktopEntry(std::string(reinterpret_cast<const char*>(inData), inSize));
    if (!problem.empty())
    {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
