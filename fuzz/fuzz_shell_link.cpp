// Decodes arbitrary bytes as a ".lnk" shell link; a decoded link must survive being written
// again. Findings are kept in fuzz/regressions/shell_link, which the unit tests replay.
#include "FuzzPlatformChecks.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize)
{
    const std::string problem = KsFuzz::checkShellLink(std::string(reinterpret_cast<const char*>(inData), inSize));
    if (!problem.empty())
    {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
