#include "SpecialFolders.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

// Linux equivalents of the shell folders: XDG base and user directories.
namespace
{
std::string envOr(const char* inName, const std::string& inFallback)
{
    const char* v = std::getenv(inName);
    return (v && *v == '/') ? std::string(v) : inFallback;
}

std::string home()
{
    const char* h = std::getenv("HOME");
    if (h && *h)
        return h;
    const passwd* pw = getpwuid(getuid());
    return pw && pw->pw_dir ? std::string(pw->pw_dir) : std::string("/");
}

std::string configHome() { return envOr("XDG_CONFIG_HOME", home() + "/.config"); }
std::string dataHome() { return envOr("XDG_DATA_HOME", home() + "/.local/share"); }
std::string cacheHome() { return envOr("XDG_CACHE_HOME", home() + "/.cache"); }

// Reads XDG_<NAME>_DIR from the environment or from user-dirs.dirs ("$HOME/..." form).
std::string userDir(const char* inName, const std::string& inDefault)
{
    const std::string key = std::string("XDG_") + inName + "_DIR";
    if (const char* v = std::getenv(key.c_str()))
        if (*v == '/')
            return v;
    std::ifstream in(configHome() + "/user-dirs.dirs");
    std::string line;
    while (std::getline(in, line))
    {
        if (line.compare(0, key.size() + 1, key + "=") != 0)
            continue;
        std::string value = line.substr(key.size() + 1);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (value.compare(0, 5, "$HOME") == 0)
            value = home() + value.substr(5);
        if (!value.empty() && value[0] == '/')
            return value;
    }
    return home() + "/" + inDefault;
}
}

bool KsPlatform::specialFolderPath(int inCsidl, std::string& outPath)
{
    switch (inCsidl)
    {
    case 0x00:  // desktop
    case 0x10:  // desktop directory
        outPath = userDir("DESKTOP", "Desktop");
        return true;
    case 0x05:  // personal
    case 0x0C:  // my documents
        outPath = userDir("DOCUMENTS", "Documents");
        return true;
    case 0x0D:
        outPath = userDir("MUSIC", "Music");
        return true;
    case 0x27:
        outPath = userDir("PICTURES", "Pictures");
        return true;
    case 0x0E:
        outPath = userDir("VIDEOS", "Videos");
        return true;
    case 0x15:
        outPath = userDir("TEMPLATES", "Templates");
        return true;
    case 0x28:
        outPath = home();
        return true;
    case 0x14:
        outPath = dataHome() + "/fonts";
        return true;
    case 0x1A:
        outPath = configHome();
        return true;  // application data (roams with the user)
    case 0x1C:
        outPath = dataHome();
        return true;  // local application data
    case 0x20:
        outPath = cacheHome();
        return true;  // internet cache
    case 0x02:        // programs
    case 0x0B:
        outPath = dataHome() + "/applications";
        return true;  // start menu
    case 0x07:
        outPath = configHome() + "/autostart";
        return true;  // startup
    case 0x26:        // program files: a folder the user may write
    case 0x2A:
        outPath = home() + "/.local/opt";
        return true;
    case 0x2B:
    case 0x2C:
        outPath = home() + "/.local/opt/Common Files";
        return true;
    case 0x23:
        outPath = "/etc/xdg";
        return true;  // common application data
    case 0x17:        // common programs
    case 0x16:
        outPath = "/usr/local/share/applications";
        return true;  // common start menu
    case 0x18:
        outPath = "/etc/xdg/autostart";
        return true;  // common startup
    default:
        return false;
    }
}

bool KsPlatform::userTempDir(std::string& outPath, std::string& outProblem)
{
    outProblem.clear();
    const char* tmpdir = std::getenv("TMPDIR");
    struct stat info;
    if (tmpdir && *tmpdir == '/' && ::stat(tmpdir, &info) == 0 && S_ISDIR(info.st_mode))
    {
        outPath = tmpdir;
        while (outPath.size() > 1 && outPath.back() == '/')
            outPath.pop_back();
        return true;
    }
    // A shared /tmp: a folder of our own, which nobody else may have prepared for us.
    const uid_t uid = ::geteuid();
    outPath = "/tmp/ksdeploy-" + std::to_string(uid);
    if (::mkdir(outPath.c_str(), 0700) != 0 && errno != EEXIST)
    {
        outProblem = std::strerror(errno);
        return false;
    }
    if (::lstat(outPath.c_str(), &info) != 0)
    {
        outProblem = std::strerror(errno);
        return false;
    }
    if (S_ISLNK(info.st_mode))
        outProblem = "a symbolic link, not a directory (refused)";
    else if (!S_ISDIR(info.st_mode))
        outProblem = "not a directory (refused)";
    else if (info.st_uid != uid)
        outProblem =
            "owned by uid " + std::to_string(info.st_uid) + ", not by uid " + std::to_string(uid) + " (refused)";
    else if ((info.st_mode & 077) != 0)
    {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
        outProblem = std::string("mode ") + mode + ", others may enter it; expected 0700 (refused)";
    }
    return outProblem.empty();
}
