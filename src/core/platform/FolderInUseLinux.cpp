// Folder users on Linux, from /proc: the links exe and cwd, and the file column of maps.
#include "FolderInUse.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
bool readLink(const std::string& inPath, std::string& outTarget)
{
    char buf[PATH_MAX + 1];
    const ssize_t n = readlink(inPath.c_str(), buf, PATH_MAX);
    if (n <= 0)
        return false;
    outTarget.assign(buf, static_cast<size_t>(n));
    return true;
}

std::string withoutDeletedMark(const std::string& inPath)
{
    static const std::string sMark = " (deleted)";
    if (inPath.size() > sMark.size() && inPath.compare(inPath.size() - sMark.size(), sMark.size(), sMark) == 0)
        return inPath.substr(0, inPath.size() - sMark.size());
    return inPath;
}

// The path of the first mapped file inside inFolder, empty if none.
std::string mappedFileInside(const std::string& inMapsPath, const std::string& inFolder)
{
    std::ifstream in(inMapsPath);
    std::string line;
    while (std::getline(in, line))
    {
        // address perms offset dev inode path: the path starts at the first '/' after the inode.
        const size_t slash = line.find('/');
        if (slash == std::string::npos)
            continue;
        const std::string path = withoutDeletedMark(line.substr(slash));
        if (FolderInUse::pathIsInside(path, inFolder))
            return path;
    }
    return std::string();
}
}

bool FolderInUse::pathIsInside(const std::string& inPath, const std::string& inFolder)
{
    const std::string path = withoutDeletedMark(inPath);
    if (inFolder.empty() || path.compare(0, inFolder.size(), inFolder) != 0)
        return false;
    return path.size() == inFolder.size() || path[inFolder.size()] == '/' || inFolder == "/";
}

Status FolderInUse::list(const std::string& inFolder, std::vector<FolderUser>& outUsers)
{
    outUsers.clear();
    // Links in /proc name the real path, so the folder is compared in its real form too.
    char* real = realpath(inFolder.c_str(), nullptr);
    if (!real)
        return Status::bad(errno, inFolder + ": " + std::strerror(errno));
    const std::string folder(real);
    std::free(real);

    DIR* proc = opendir("/proc");
    if (!proc)
        return Status::bad(errno, std::string("/proc: ") + std::strerror(errno));
    const long long self = getpid();
    while (const dirent* entry = readdir(proc))
    {
        char* end = nullptr;
        const long long pid = std::strtoll(entry->d_name, &end, 10);
        if (pid <= 0 || *end != '\0' || pid == self)
            continue;
        const std::string base = "/proc/" + std::string(entry->d_name);
        FolderUser user;
        user.pid = pid;
        std::string target;
        if (readLink(base + "/exe", target) && pathIsInside(target, folder))
            user.reason = "executable " + withoutDeletedMark(target);
        else if (readLink(base + "/cwd", target) && pathIsInside(target, folder))
            user.reason = "working directory " + withoutDeletedMark(target);
        else
        {
            const std::string mapped = mappedFileInside(base + "/maps", folder);
            if (!mapped.empty())
                user.reason = "mapped file " + mapped;
        }
        if (user.reason.empty())
            continue;  // not a user of the folder, gone meanwhile, or not ours to look into
        std::ifstream comm(base + "/comm");
        std::getline(comm, user.name);
        if (user.name.empty())
            user.name = "?";
        outUsers.push_back(user);
    }
    closedir(proc);
    std::sort(outUsers.begin(), outUsers.end(), [](const FolderUser& a, const FolderUser& b) { return a.pid < b.pid; });
    return Status::ok();
}
}
