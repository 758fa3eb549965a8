// Reads arbitrary bytes as a command stream and checks it as the host does, without running
// anything. Findings are kept in fuzz/regressions/command_line, which the unit tests replay.
#include "FuzzCommandLineCheck.h"
#include "KsCommand.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{
bool ignoreFailure(const McResult&) { return true; }
void ignoreContract(DbCEventType, const char*, const char*, unsigned int, const char*, const char*) {}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize)
{
    static bool initialised = false;
    if (!initialised)
    {
        mc_DbC_callbackSet(&ignoreContract);
        McResult::notificationCallbackAdd(&ignoreFailure);
        KsDeploy::commandsRegisterAll();
        initialised = true;
    }
    const std::string problem =
        KsFuzz::checkCommandStream(QByteArray(reinterpret_cast<const char*>(inData), static_cast<qsizetype>(inSize)));
    if (!problem.empty())
    {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
