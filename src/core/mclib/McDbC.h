#pragma once
// Design-by-contract reporting: a failed check is reported, never thrown, and the caller goes on.

enum DbCEventType
{
    DbCPrecondition = 0,
    DbCPostcondition = 1,
    DbCCheck = 2,
};

typedef void (*McDbCHandler)(DbCEventType inType, const char* inCondition, const char* inSourceFile,
                             unsigned int inLine, const char* inFunction, const char* inMessage);

void dbc_event(DbCEventType inType, const char* inCondition, const char* inSourceFile, unsigned int inLine,
               const char* inFunction, const char* inMessage);

// Installs the handler (null restores the default, which writes one line to standard error).
// Returns the previous handler.
McDbCHandler mc_DbC_callbackSet(McDbCHandler inHandler);

namespace McLib
{
void dbcReport(DbCEventType inType, bool inOk, const char* inCondition, const char* inFile, unsigned int inLine,
               const char* inPrettyFunction);
}

#define MC_DBC_(TYPE, COND)                                                                                            \
    ::McLib::dbcReport((TYPE), static_cast<bool>(COND), #COND, __FILE__, __LINE__, __PRETTY_FUNCTION__)
#define MC_REQUIRE(COND) MC_DBC_(DbCPrecondition, COND)
#define MC_ENSURE(COND)  MC_DBC_(DbCPostcondition, COND)
#define MC_ASSERT(COND)  MC_DBC_(DbCCheck, COND)
// Contract event whose text differs from the expression evaluated (e.g. a fixed "0").
#define MC_DBC_TEXT(TYPE, OK, TEXT)                                                                                    \
    ::McLib::dbcReport((TYPE), static_cast<bool>(OK), (TEXT), __FILE__, __LINE__, __PRETTY_FUNCTION__)
