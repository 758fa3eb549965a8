#pragma once
#include "McString.h"

#include <cstdio>
#include <string>

enum McLogLevel
{
    McLogLevelInfo = 1,
    McLogLevelWarning = 2,
    McLogLevelError = 3,
};

// The process-wide log. Lines go to the file once it is opened, and to the write callback.
class McLogFile
{
public:
    typedef void (*WriteCallback)(McLogLevel, const McString&);

    McLogFile() = default;
    ~McLogFile();
    McLogFile(const McLogFile&) = delete;
    McLogFile& operator=(const McLogFile&) = delete;

    void tracef(McLogLevel inLevel, const char* inCategory, const char* inFormat, ...)
        __attribute__((format(printf, 4, 5)));
    void errorf(const char* inFormat, ...) __attribute__((format(printf, 2, 3)));

    void setBaseFolder(const std::string& inFolder) { mBaseFolder = inFolder; }
    // Opens "<base folder>/ksdeploy.log"; appends unless inTruncate.
    bool open(bool inTruncate);
    void close();
    std::string path() const;

    void setWriteCallback(WriteCallback inCallback, McLogLevel inMinLevel);

private:
    void write(McLogLevel inLevel, const char* inCategory, const std::string& inText);

    std::string mBaseFolder;
    FILE* mFile = nullptr;
    WriteCallback mCallback = nullptr;
    McLogLevel mCallbackLevel = McLogLevelInfo;
};

McLogFile& getTheLogInstance();
