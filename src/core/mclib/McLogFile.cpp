#include "McLogFile.h"

#include <cstdarg>
#include <ctime>
#include <vector>

namespace
{
std::string vformat(const char* inFormat, va_list inArgs)
{
    va_list copy;
    va_copy(copy, inArgs);
    const int n = std::vsnprintf(nullptr, 0, inFormat, copy);
    va_end(copy);
    if (n <= 0)
        return std::string();
    std::vector<char> buf(static_cast<size_t>(n) + 1);
    std::vsnprintf(buf.data(), buf.size(), inFormat, inArgs);
    return std::string(buf.data(), static_cast<size_t>(n));
}
}

McLogFile::~McLogFile() { close(); }

std::string McLogFile::path() const
{
    std::string base = mBaseFolder.empty() ? std::string(".") : mBaseFolder;
    return base + "/ksdeploy.log";
}

bool McLogFile::open(bool inTruncate)
{
    close();
    mFile = std::fopen(path().c_str(), inTruncate ? "w" : "a");
    return mFile != nullptr;
}

void McLogFile::close()
{
    if (mFile)
    {
        std::fclose(mFile);
        mFile = nullptr;
    }
}

void McLogFile::setWriteCallback(WriteCallback inCallback, McLogLevel inMinLevel)
{
    mCallback = inCallback;
    mCallbackLevel = inMinLevel;
}

void McLogFile::write(McLogLevel inLevel, const char* inCategory, const std::string& inText)
{
    if (mFile)
    {
        char stamp[32];
        const std::time_t now = std::time(nullptr);
        std::tm tmNow{};
        localtime_r(&now, &tmNow);
        std::strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tmNow);
        std::fprintf(mFile, "%s [%d] %s: %s\n", stamp, static_cast<int>(inLevel), inCategory ? inCategory : "",
                     inText.c_str());
        std::fflush(mFile);
    }
    if (mCallback && inLevel >= mCallbackLevel)
        mCallback(inLevel, McString(inText));
}

void McLogFile::tracef(McLogLevel inLevel, const char* inCategory, const char* inFormat, ...)
{
    va_list args;
    va_start(args, inFormat);
    const std::string text = vformat(inFormat, args);
    va_end(args);
    write(inLevel, inCategory, text);
}

void McLogFile::errorf(const char* inFormat, ...)
{
    va_list args;
    va_start(args, inFormat);
    const std::string text = vformat(inFormat, args);
    va_end(args);
    write(McLogLevelError, "", text);
}

McLogFile& getTheLogInstance()
{
    static McLogFile sLog;
    return sLog;
}
