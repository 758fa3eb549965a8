#pragma once
// Exchanging two folders of one file system so that, whatever happens, each name holds one whole
// version: with one atomic call where the file system offers it, otherwise with three renames and
// a journal that recover() finishes or undoes after a crash. Qt-free.
#include "PlatformStatus.h"

#include <string>

namespace KsPlatform
{
class FolderSwap
{
public:
    enum class Recovery
    {
        Nothing,    // no journal, or the exchange had not begun or had ended
        Completed,  // the exchange had got past its middle and was finished
        Undone,     // the exchange was cut short early and was undone
    };

    // After success inFolder holds what inOther held and the other way round. Both must be
    // folders beside each other on one file system. inJournal (beside them) is written only when
    // the exchange cannot be atomic; outAtomic tells which way it went. Nothing is changed when
    // the result is bad, unless a crash cut the renames short (then recover() sorts it out).
    static Status exchange(const std::string& inFolder, const std::string& inOther, const std::string& inJournal,
                           bool& outAtomic);
    // Finishes or undoes an exchange that a dead process left half done, from its journal; does
    // nothing when there is no journal. Run before the folders are used again.
    static Status recover(const std::string& inJournal, Recovery& outRecovery);

    // Test seams: the fallback even where the atomic exchange works, and a call after each of the
    // fallback's renames (1, 2, 3) to stop a process between them.
    static void atomicDisabledSet(bool inDisabled);
    typedef void (*StepHook)(int inStep);
    static void stepHookSet(StepHook inHook);
};
}
