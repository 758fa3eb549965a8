// Folder exchange on Linux: renameat2 with RENAME_EXCHANGE (asked for through syscall, as older C
// libraries lack the wrapper), and where a file system refuses it, an aside name and a journal.
#include "Durability.h"
#include "FolderSwap.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef RENAME_EXCHANGE
#define RENAME_EXCHANGE (1 << 1)
#endif

namespace KsPlatform
{
namespace
{
bool sAtomicDisabled = false;
FolderSwap::StepHook sStepHook = nullptr;
const char* const sJournalHeader = "ksdeploy folder exchange 1";

Status failure(const std::string& inPath, int inErrno)
{
    return Status::bad(inErrno, inPath + ": " + std::strerror(inErrno));
}

std::string parentOf(const std::string& inPath)
{
    const size_t slash = inPath.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : inPath.substr(0, slash);
}

bool exists(const std::string& inPath)
{
    struct stat st;
    return lstat(inPath.c_str(), &st) == 0;
}

bool isFolder(const std::string& inPath)
{
    struct stat st;
    return lstat(inPath.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void step(int inStep)
{
    if (sStepHook)
        sStepHook(inStep);
}

std::string asideOf(const std::string& inFolder) { return inFolder + ".exchange-aside"; }

Status renameStep(const std::string& inFrom, const std::string& inTo)
{
    if (::rename(inFrom.c_str(), inTo.c_str()) != 0)
        return Status::bad(errno, inFrom + " -> " + inTo + ": " + std::strerror(errno));
    return Status::ok();
}

// Written beside the folders under a temporary name and renamed into place, flushed: a journal
// that exists is always whole.
Status journalWrite(const std::string& inJournal, const std::string& inFolder, const std::string& inOther)
{
    const std::string temporary = inJournal + ".tmp";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << sJournalHeader << '\n' << inFolder << '\n' << inOther << '\n' << asideOf(inFolder) << '\n';
        out.flush();
        if (!out)
            return failure(temporary, errno ? errno : EIO);
    }
    Status s = fileFlush(temporary);
    if (s.isOk())
        s = renameStep(temporary, inJournal);
    if (s.isOk())
        s = fileFlush(parentOf(inJournal));
    if (s.isBad())
        ::unlink(temporary.c_str());
    return s;
}

Status journalRemove(const std::string& inJournal)
{
    if (::unlink(inJournal.c_str()) != 0 && errno != ENOENT)
        return failure(inJournal, errno);
    return fileFlush(parentOf(inJournal));
}
}

void FolderSwap::atomicDisabledSet(bool inDisabled) { sAtomicDisabled = inDisabled; }

void FolderSwap::stepHookSet(StepHook inHook) { sStepHook = inHook; }

Status FolderSwap::exchange(const std::string& inFolder, const std::string& inOther, const std::string& inJournal,
                            bool& outAtomic)
{
    outAtomic = false;
    for (const std::string* path : {&inFolder, &inOther, &inJournal})
        if (path->empty() || path->find('\n') != std::string::npos)
            return Status::bad(EINVAL, "'" + *path + "': not a name a folder exchange can journal");
    for (const std::string* path : {&inFolder, &inOther})
        if (!isFolder(*path))
            return failure(*path, exists(*path) ? ENOTDIR : ENOENT);
    if (exists(inJournal))
        return Status::bad(EEXIST, inJournal + ": an earlier exchange was not finished");

    if (!sAtomicDisabled)
    {
        if (::syscall(SYS_renameat2, AT_FDCWD, inFolder.c_str(), AT_FDCWD, inOther.c_str(), RENAME_EXCHANGE) == 0)
        {
            outAtomic = true;
            return fileFlush(parentOf(inFolder));
        }
        // Only a file system (or kernel) without the call is a reason to go the long way.
        if (errno != EINVAL && errno != ENOSYS)
            return Status::bad(errno, inFolder + " <-> " + inOther + ": " + std::strerror(errno));
    }

    const std::string aside = asideOf(inFolder);
    if (exists(aside))
        return failure(aside, EEXIST);
    Status s = journalWrite(inJournal, inFolder, inOther);
    if (s.isBad())
        return s;
    s = renameStep(inFolder, aside);
    if (s.isBad())
    {
        journalRemove(inJournal);
        return s;
    }
    step(1);
    s = renameStep(inOther, inFolder);
    if (s.isBad())
    {
        // Put the first one back: nothing has changed then.
        if (renameStep(aside, inFolder).isOk())
            journalRemove(inJournal);
        return s;
    }
    step(2);
    s = renameStep(aside, inOther);
    if (s.isBad())
        return s;  // the journal stays: recover() finishes it
    step(3);
    s = fileFlush(parentOf(inFolder));
    if (s.isOk())
        s = journalRemove(inJournal);
    return s;
}

Status FolderSwap::recover(const std::string& inJournal, Recovery& outRecovery)
{
    outRecovery = Recovery::Nothing;
    // A journal still under its temporary name was never in force (a kill while it was written):
    // nothing was renamed yet, and nothing else would ever remove it.
    const std::string temporary = inJournal + ".tmp";
    if (::unlink(temporary.c_str()) != 0 && errno != ENOENT)
        return failure(temporary, errno);
    std::ifstream in(inJournal);
    if (!in)
        return errno == ENOENT || !exists(inJournal) ? Status::ok() : failure(inJournal, errno);
    std::string header, folder, other, aside;
    std::getline(in, header);
    std::getline(in, folder);
    std::getline(in, other);
    std::getline(in, aside);
    if (header != sJournalHeader || folder.empty() || other.empty() || aside != asideOf(folder))
        return Status::bad(EINVAL, inJournal + ": not a folder exchange journal");
    in.close();

    Status s;
    if (exists(aside))
    {
        if (exists(folder))
        {
            // The new content already has the name: the exchange is finished.
            if (exists(other))
                return Status::bad(EEXIST, inJournal + ": " + folder + ", " + other + " and " + aside +
                                               " all exist; left as they are");
            s = renameStep(aside, other);
            outRecovery = Recovery::Completed;
        }
        else
        {
            s = renameStep(aside, folder);
            outRecovery = Recovery::Undone;
        }
        if (s.isOk())
            s = fileFlush(parentOf(folder));
    }
    if (s.isBad())
    {
        outRecovery = Recovery::Nothing;
        return s;
    }
    return journalRemove(inJournal);
}
}
