#include "Durability.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
Status failed(const std::string& inPath, int inErrno)
{
    return Status::bad(inErrno, inPath + ": " + std::strerror(inErrno));
}

int openAny(const std::string& inPath)
{
    // O_RDONLY works for folders and files alike; fsync needs no write access.
    return ::open(inPath.c_str(), O_RDONLY | O_CLOEXEC);
}
}

Status fileFlush(const std::string& inPath)
{
    const int fd = openAny(inPath);
    if (fd < 0)
        return failed(inPath, errno);
    const bool ok = ::fsync(fd) == 0;
    const int why = errno;
    ::close(fd);
    return ok ? Status::ok() : failed(inPath, why);
}

Status fileSystemFlush(const std::string& inPath)
{
    const int fd = openAny(inPath);
    if (fd < 0)
        return failed(inPath, errno);
    const bool ok = ::syncfs(fd) == 0;
    const int why = errno;
    ::close(fd);
    return ok ? Status::ok() : failed(inPath, why);
}

bool fileSystemId(const std::string& inPath, unsigned long long& outId)
{
    struct stat st;
    if (::stat(inPath.c_str(), &st) != 0)
        return false;
    outId = static_cast<unsigned long long>(st.st_dev);
    return true;
}
}
