#pragma once
// What the shortcut decoders must hold for any bytes: no crash, and a decoded shortcut written
// again reads back the same. Shared by the fuzz targets and the unit tests that replay the
// inputs kept in fuzz/regressions. Qt-free, like the decoders.
#include "Shortcut.h"

#include <string>
#include <vector>

namespace KsFuzz
{
inline std::string sameShortcut(const KsPlatform::ShortcutData& inA, const KsPlatform::ShortcutData& inB)
{
    if (inA.target != inB.target)
        return "target changed: '" + inA.target + "' -> '" + inB.target + "'";
    if (inA.arguments != inB.arguments)
        return "arguments changed: '" + inA.arguments + "' -> '" + inB.arguments + "'";
    if (inA.description != inB.description)
        return "description changed: '" + inA.description + "' -> '" + inB.description + "'";
    if (inA.workingDirectory != inB.workingDirectory)
        return "working directory changed: '" + inA.workingDirectory + "' -> '" + inB.workingDirectory + "'";
    return std::string();
}

// The empty text when the input passes, else what went wrong.
inline std::string checkShellLink(const std::string& inBytes)
{
    KsPlatform::ShortcutData data;
    if (!KsPlatform::shellLinkDecode(inBytes, data).isOk())
        return std::string();
    KsPlatform::ShortcutData again;
    const KsPlatform::Status status = KsPlatform::shellLinkDecode(KsPlatform::shellLinkEncode(data, {}), again);
    if (!status.isOk())
        return "a decoded shell link does not decode once written again: " + status.text;
    return sameShortcut(data, again);
}

inline std::string checkDesktopEntry(const std::string& inBytes)
{
    std::vector<std::string> words;
    KsPlatform::commandLineSplit(inBytes, words);
    KsPlatform::ShortcutData data;
    if (!KsPlatform::desktopEntryDecode(inBytes, data).isOk())
        return std::string();
    KsPlatform::ShortcutData again;
    const KsPlatform::Status status =
        KsPlatform::desktopEntryDecode(KsPlatform::desktopEntryEncode(data, "fuzz"), again);
    if (!status.isOk())
        return "a decoded desktop entry does not decode once written again: " + status.text;
    return sameShortcut(data, again);
}
}
