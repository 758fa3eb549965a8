#pragma once
// Which running programs hold on to a folder, so that an update can tell the user which ones to
// close before the folder is replaced. Qt-free.
#include "PlatformStatus.h"

#include <string>
#include <vector>

namespace KsPlatform
{
struct FolderUser
{
    long long pid = 0;
    std::string name;    // the program's name as the system knows it
    std::string reason;  // "executable", "working directory" or "mapped file", with the path
};

class FolderInUse
{
public:
    // Every process of ours (the caller itself excepted) whose executable, working directory or
    // one of whose mapped files lies inside inFolder; sorted by process id. Processes the system
    // does not let us look into (other users') are passed over. Bad only when the process list
    // cannot be read at all.
    static Status list(const std::string& inFolder, std::vector<FolderUser>& outUsers);
    // True when inPath is inFolder or lies below it (both absolute, inFolder without a trailing
    // slash). A path the system marks as deleted still counts where it was.
    static bool pathIsInside(const std::string& inPath, const std::string& inFolder);
};
}
