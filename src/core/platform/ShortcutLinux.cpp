// Shortcut files on Linux: both formats are written by us, through a temporary file that is
// renamed into place, so a reader never sees half a shortcut.
#include "Shortcut.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
bool endsWith(const std::string& inText, const char* inSuffix)
{
    const size_t n = std::strlen(inSuffix);
    return inText.size() >= n && strcasecmp(inText.c_str() + inText.size() - n, inSuffix) == 0;
}

Status systemError(int inErrno, const std::string& inWhat)
{
    return Status::bad(inErrno, inWhat + " (" + std::strerror(inErrno) + ")");
}

std::string baseName(const std::string& inPath)
{
    const size_t slash = inPath.find_last_of('/');
    std::string name = slash == std::string::npos ? inPath : inPath.substr(slash + 1);
    const size_t dot = name.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

Status writeWhole(const std::string& inPath, const std::string& inBytes)
{
    const size_t slash = inPath.find_last_of('/');
    const std::string dir = slash == std::string::npos ? std::string(".") : inPath.substr(0, slash + 1);
    std::string temp = dir + ".ksdeploy-shortcut-XXXXXX";
    const int fd = mkstemp(&temp[0]);
    if (fd < 0)
        return systemError(errno, "cannot write the shortcut '" + inPath + "'");
    size_t done = 0;
    while (done < inBytes.size())
    {
        const ssize_t n = write(fd, inBytes.data() + done, inBytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
        {
            const int e = errno;
            close(fd);
            unlink(temp.c_str());
            return systemError(e, "cannot write the shortcut '" + inPath + "'");
        }
        done += static_cast<size_t>(n);
    }
    // Shortcuts are read by everybody; mkstemp made the file private.
    fchmod(fd, 0644);
    if (fsync(fd) != 0 || close(fd) != 0)
    {
        const int e = errno;
        unlink(temp.c_str());
        return systemError(e, "cannot write the shortcut '" + inPath + "'");
    }
    if (rename(temp.c_str(), inPath.c_str()) != 0)
    {
        const int e = errno;
        unlink(temp.c_str());
        return systemError(e, "cannot write the shortcut '" + inPath + "'");
    }
    return Status::ok();
}

Status readWhole(const std::string& inPath, std::string& outBytes)
{
    const int fd = open(inPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return systemError(errno, "cannot read the shortcut '" + inPath + "'");
    std::string bytes;
    char buf[65536];
    for (;;)
    {
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
        {
            const int e = errno;
            close(fd);
            return systemError(e, "cannot read the shortcut '" + inPath + "'");
        }
        if (n == 0)
            break;
        bytes.append(buf, static_cast<size_t>(n));
        // Shortcuts are small; anything this large is not one.
        if (bytes.size() > (1u << 20))
        {
            close(fd);
            return Status::bad(EFBIG, "'" + inPath + "' is too large for a shortcut");
        }
    }
    close(fd);
    outBytes.swap(bytes);
    return Status::ok();
}
}

ShortcutKind shortcutKind(const std::string& inPath)
{
    if (endsWith(inPath, ".lnk"))
        return ShortcutKind::ShellLink;
    if (endsWith(inPath, ".desktop"))
        return ShortcutKind::DesktopEntry;
    return ShortcutKind::Unknown;
}

Status shortcutWrite(const std::string& inPath, const ShortcutData& inData)
{
    const ShortcutKind kind = shortcutKind(inPath);
    if (kind == ShortcutKind::Unknown)
        return Status::bad(EINVAL, "'" + inPath + "': a shortcut's name must end in \".lnk\" or \".desktop\"");
    if (inData.target.empty() || inData.target[0] != '/')
        return Status::bad(EINVAL,
                           "the shortcut '" + inPath + "' needs an absolute target path, not '" + inData.target + "'");
    struct stat st;
    if (stat(inData.target.c_str(), &st) != 0)
        return systemError(errno, "the target '" + inData.target + "' of the shortcut '" + inPath + "' is missing");
    if (!inData.workingDirectory.empty())
    {
        struct stat wd;
        if (stat(inData.workingDirectory.c_str(), &wd) != 0 || !S_ISDIR(wd.st_mode))
            return Status::bad(ENOTDIR, "the working directory '" + inData.workingDirectory + "' of the shortcut '" +
                                            inPath + "' is not a folder");
    }
    if (kind == ShortcutKind::DesktopEntry)
        return writeWhole(inPath, desktopEntryEncode(inData, baseName(inPath)));
    ShortcutTargetFacts facts;
    facts.isDirectory = S_ISDIR(st.st_mode);
    facts.size = static_cast<std::uint64_t>(st.st_size);
    facts.creationTime = st.st_ctime;
    facts.accessTime = st.st_atime;
    facts.writeTime = st.st_mtime;
    return writeWhole(inPath, shellLinkEncode(inData, facts));
}

Status shortcutRead(const std::string& inPath, ShortcutData& outData)
{
    const ShortcutKind kind = shortcutKind(inPath);
    if (kind == ShortcutKind::Unknown)
        return Status::bad(EINVAL, "'" + inPath + "': a shortcut's name must end in \".lnk\" or \".desktop\"");
    std::string bytes;
    Status s = readWhole(inPath, bytes);
    if (s.isBad())
        return s;
    s = kind == ShortcutKind::ShellLink ? shellLinkDecode(bytes, outData) : desktopEntryDecode(bytes, outData);
    if (s.isBad())
        s.text = "'" + inPath + "' is " + s.text;
    return s;
}
}
