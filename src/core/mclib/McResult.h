#pragma once
// Result object of every fallible operation, and the one idiom for a checked step.
#include <string>

class McResult
{
public:
    enum Code : unsigned int
    {
        CodeOk = 0,
        CodeFail = 1,         // failure without a message
        CodeFailMessage = 2,  // failure with message, location and condition
    };

    McResult() = default;
    McResult(Code inCode, int inLine, const char* inFileAndFunction, const char* inMessage, const char* inCondition);
    McResult(Code inCode, const char* inMessage, const char* inCondition);

    bool isOk() const { return mCode == CodeOk; }
    bool isBad() const { return mCode != CodeOk; }
    Code code() const { return mCode; }

    const char* text() const { return mMessage.c_str(); }
    const char* condition() const { return mCondition.c_str(); }
    const char* location() const { return mLocation.c_str(); }
    int line() const { return mLine; }
    // Our own line under the message: the path concerned and the system's reason
    // ("/opt/app/bin: Permission denied"); empty when there is nothing to add.
    const char* detail() const { return mDetail.c_str(); }
    McResult& detailSet(const std::string& inDetail);

    McResult& makeBad(unsigned int inCode);

    // Merges a sub-result: bad when either side is bad; the right side's report is kept too.
    McResult& operator<<(const McResult& inOther);

    typedef bool (*NotificationCallback)(const McResult&);
    static void notificationCallbackAdd(NotificationCallback inCallback);
    static void notificationCallbackRemove(NotificationCallback inCallback);
    static void notifyAll(const McResult& inResult);

private:
    Code mCode = CodeOk;
    int mLine = 0;
    std::string mLocation;
    std::string mMessage;
    std::string mCondition;
    std::string mDetail;
};

namespace Ks
{
// True when the result is bad, after telling every registered callback about it.
bool fail(const McResult& inResult);
// The same, after a failed operating-system call; adds the system's last error text.
bool failWin(const McResult& inResult);
}

namespace McLib
{
// "File:Namespace::Class::function" from __FILE__ and __PRETTY_FUNCTION__.
std::string location(const char* inFile, const char* inPrettyFunction);
// The fully qualified function name alone, from __PRETTY_FUNCTION__.
std::string functionName(const char* inPrettyFunction);
// The file's base name without folder and extension.
std::string fileBaseName(const char* inFile);

// Builds the code-2 failure for a condition and reports it; makes inoutResult bad.
// Returns true when the condition failed.
bool checkStep(McResult& inoutResult, bool inCondition, int inLine, const char* inFile, const char* inPrettyFunction,
               const std::string& inMessage, const char* inConditionText, bool inWin = false,
               const std::string& inDetail = std::string());
// "<path>: <reason of inErrno>", the detail line of a failed file-system call.
std::string osDetail(const std::string& inPath, int inErrno);
}

namespace McLib
{
// Helpers of MC_CHECK_DETAIL: the detail is computed first (it may read errno) and kept aside
// until the failure is built.
void detailKeep(const std::string& inDetail);
std::string detailTaken();
}

inline std::string mcMessageText(const char* inText) { return inText ? std::string(inText) : std::string(); }
inline std::string mcMessageText(const std::string& inText) { return inText; }

// One-line checked step: evaluates COND once; on failure reports a code-2 result with
// line, location, MESSAGE and "cond[COND]" through Ks::fail, makes RESULT bad and yields true.
#define MC_CHECK(RESULT, COND, MESSAGE)                                                                                \
    ::McLib::checkStep((RESULT), static_cast<bool>(COND), __LINE__, __FILE__, __PRETTY_FUNCTION__,                     \
                       mcMessageText(MESSAGE), "cond[" #COND "]")

// Same, with a condition text that differs from the expression evaluated.
#define MC_CHECK_TEXT(RESULT, OK, COND_TEXT, MESSAGE)                                                                  \
    ::McLib::checkStep((RESULT), static_cast<bool>(OK), __LINE__, __FILE__, __PRETTY_FUNCTION__,                       \
                       mcMessageText(MESSAGE), "cond[" COND_TEXT "]")

// Same, after an operating-system call (Ks::failWin).
#define MC_CHECK_WIN(RESULT, COND, MESSAGE)                                                                            \
    ::McLib::checkStep((RESULT), static_cast<bool>(COND), __LINE__, __FILE__, __PRETTY_FUNCTION__,                     \
                       mcMessageText(MESSAGE), "cond[" #COND "]", true)

// Same, with a detail line (see McResult::detail). DETAIL is evaluated only when COND failed, and
// before anything else runs, so it may read errno.
#define MC_CHECK_DETAIL(RESULT, COND, MESSAGE, DETAIL)                                                                 \
    (static_cast<bool>(COND)                                                                                           \
         ? false                                                                                                       \
         : (::McLib::detailKeep(DETAIL),                                                                               \
            ::McLib::checkStep((RESULT), false, __LINE__, __FILE__, __PRETTY_FUNCTION__, mcMessageText(MESSAGE),       \
                               "cond[" #COND "]", false, ::McLib::detailTaken())))

// A code-2 failure result for COND without reporting it (for callers that chain it).
#define MC_FAILURE(COND_TEXT, MESSAGE)                                                                                 \
    McResult(McResult::CodeFailMessage, __LINE__, ::McLib::location(__FILE__, __PRETTY_FUNCTION__).c_str(),            \
             mcMessageText(MESSAGE).c_str(), "cond[" COND_TEXT "]")
