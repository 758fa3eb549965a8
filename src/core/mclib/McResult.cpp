#include "McResult.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace
{
std::vector<McResult::NotificationCallback>& callbacks()
{
    static std::vector<McResult::NotificationCallback> sCallbacks;
    return sCallbacks;
}
}

McResult::McResult(Code inCode, int inLine, const char* inFileAndFunction, const char* inMessage,
                   const char* inCondition)
    : mCode(inCode), mLine(inLine), mLocation(inFileAndFunction ? inFileAndFunction : ""),
      mMessage(inMessage ? inMessage : ""), mCondition(inCondition ? inCondition : "")
{
}

McResult::McResult(Code inCode, const char* inMessage, const char* inCondition)
    : mCode(inCode), mMessage(inMessage ? inMessage : ""), mCondition(inCondition ? inCondition : "")
{
}

McResult& McResult::detailSet(const std::string& inDetail)
{
    mDetail = inDetail;
    return *this;
}

McResult& McResult::makeBad(unsigned int inCode)
{
    if (mCode == CodeOk)
        mCode = static_cast<Code>(inCode == CodeOk ? CodeFail : inCode);
    return *this;
}

McResult& McResult::operator<<(const McResult& inOther)
{
    if (inOther.isOk())
        return *this;
    if (isOk() || mMessage.empty())
    {
        // Take over the first report so that the outermost result names the root cause.
        mCode = inOther.mCode;
        mLine = inOther.mLine;
        mLocation = inOther.mLocation;
        mMessage = inOther.mMessage;
        mCondition = inOther.mCondition;
        mDetail = inOther.mDetail;
        if (mCode == CodeOk)
            mCode = CodeFail;
    }
    else if (!inOther.mMessage.empty())
    {
        mMessage += "\n";
        mMessage += inOther.mMessage;
    }
    return *this;
}

void McResult::notificationCallbackAdd(NotificationCallback inCallback)
{
    auto& list = callbacks();
    if (inCallback && std::find(list.begin(), list.end(), inCallback) == list.end())
        list.push_back(inCallback);
}

void McResult::notificationCallbackRemove(NotificationCallback inCallback)
{
    auto& list = callbacks();
    list.erase(std::remove(list.begin(), list.end(), inCallback), list.end());
}

void McResult::notifyAll(const McResult& inResult)
{
    // A copy, so that a callback may remove itself.
    const std::vector<NotificationCallback> list = callbacks();
    for (NotificationCallback cb : list)
        cb(inResult);
}

bool Ks::fail(const McResult& inResult)
{
    if (inResult.isOk())
        return false;
    McResult::notifyAll(inResult);
    return true;
}

bool Ks::failWin(const McResult& inResult)
{
    if (inResult.isOk())
        return false;
    const int err = errno;
    std::string message = inResult.text();
    if (err != 0)
    {
        message += " (";
        message += std::strerror(err);
        message += ")";
    }
    McResult withError(inResult.code(), inResult.line(), inResult.location(), message.c_str(), inResult.condition());
    withError.detailSet(inResult.detail());
    McResult::notifyAll(withError);
    return true;
}

std::string McLib::fileBaseName(const char* inFile)
{
    std::string f = inFile ? inFile : "";
    const size_t slash = f.find_last_of("/\\");
    if (slash != std::string::npos)
        f = f.substr(slash + 1);
    const size_t dot = f.find('.');
    if (dot != std::string::npos)
        f = f.substr(0, dot);
    return f;
}

std::string McLib::functionName(const char* inPrettyFunction)
{
    const std::string p = inPrettyFunction ? inPrettyFunction : "";
    // Find the parenthesis that opens the parameter list: the first '(' at template depth 0,
    // skipping over the symbol of an operator name ("operator->", "operator()", "operator<<").
    int depth = 0;
    size_t open = std::string::npos;
    size_t operatorAt = std::string::npos;
    for (size_t i = 0; i < p.size(); ++i)
    {
        if (p.compare(i, 8, "operator") == 0 && (i == 0 || p[i - 1] == ':' || p[i - 1] == ' '))
        {
            operatorAt = i;
            i += 8;
            while (i < p.size() && p[i] == ' ')
                ++i;
            if (p.compare(i, 2, "()") == 0)
                i += 2;
            else
                while (i < p.size() && p[i] != '(')
                    ++i;
            if (depth == 0 && i < p.size())
            {
                open = i;
                break;
            }
            continue;
        }
        const char c = p[i];
        if (c == '<')
            ++depth;
        else if (c == '>' && depth > 0)
            --depth;
        else if (c == '(' && depth == 0)
        {
            open = i;
            break;
        }
    }
    if (open == std::string::npos)
        return p;
    // Walk back to the space that ends the return type (at template depth 0).
    const size_t scanFrom = (operatorAt != std::string::npos && operatorAt < open) ? operatorAt : open;
    depth = 0;
    size_t start = 0;
    for (size_t i = scanFrom; i-- > 0;)
    {
        const char c = p[i];
        if (c == '>')
            ++depth;
        else if (c == '<' && depth > 0)
            --depth;
        else if (c == ' ' && depth == 0)
        {
            start = i + 1;
            break;
        }
    }
    return p.substr(start, open - start);
}

std::string McLib::location(const char* inFile, const char* inPrettyFunction)
{
    return fileBaseName(inFile) + ":" + functionName(inPrettyFunction);
}

bool McLib::checkStep(McResult& inoutResult, bool inCondition, int inLine, const char* inFile,
                      const char* inPrettyFunction, const std::string& inMessage, const char* inConditionText,
                      bool inWin, const std::string& inDetail)
{
    if (inCondition)
        return false;
    const std::string loc = location(inFile, inPrettyFunction);
    McResult failure(McResult::CodeFailMessage, inLine, loc.c_str(), inMessage.c_str(), inConditionText);
    failure.detailSet(inDetail);
    const bool failed = inWin ? Ks::failWin(failure) : Ks::fail(failure);
    if (failed)
    {
        // Keep the report in the function's own result too, so a caller can show why.
        inoutResult << failure;
        inoutResult.makeBad(1);
    }
    return failed;
}

std::string McLib::osDetail(const std::string& inPath, int inErrno) { return inPath + ": " + std::strerror(inErrno); }

namespace
{
// One slot per thread: MC_CHECK_DETAIL fills it and empties it within one expression.
thread_local std::string tDetail;
}

void McLib::detailKeep(const std::string& inDetail) { tDetail = inDetail; }

std::string McLib::detailTaken()
{
    std::string d;
    d.swap(tDetail);
    return d;
}
