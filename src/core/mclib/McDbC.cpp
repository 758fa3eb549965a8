#include "McDbC.h"
#include "McResult.h"

#include <cstdio>
#include <string>

namespace
{
void defaultHandler(DbCEventType inType, const char* inCondition, const char* inSourceFile, unsigned int inLine,
                    const char* inFunction, const char* inMessage)
{
    static const char* const sKind[] = {"precondition", "postcondition", "check"};
    const char* kind = (inType >= 0 && inType <= 2) ? sKind[inType] : "contract";
    std::fprintf(stderr, "contract %s failed: %s [%s:%u %s]%s%s\n", kind, inCondition ? inCondition : "",
                 inSourceFile ? inSourceFile : "", inLine, inFunction ? inFunction : "", inMessage ? " " : "",
                 inMessage ? inMessage : "");
    std::fflush(stderr);
}

McDbCHandler sHandler = nullptr;
}

void dbc_event(DbCEventType inType, const char* inCondition, const char* inSourceFile, unsigned int inLine,
               const char* inFunction, const char* inMessage)
{
    McDbCHandler h = sHandler ? sHandler : &defaultHandler;
    h(inType, inCondition, inSourceFile, inLine, inFunction, inMessage);
}

McDbCHandler mc_DbC_callbackSet(McDbCHandler inHandler)
{
    McDbCHandler old = sHandler;
    sHandler = inHandler;
    return old;
}

void McLib::dbcReport(DbCEventType inType, bool inOk, const char* inCondition, const char* inFile, unsigned int inLine,
                      const char* inPrettyFunction)
{
    if (inOk)
        return;
    const std::string file = fileBaseName(inFile);
    const std::string function = functionName(inPrettyFunction);
    dbc_event(inType, inCondition, file.c_str(), inLine, function.c_str(), nullptr);
}
