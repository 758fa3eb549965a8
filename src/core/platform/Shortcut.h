#pragma once
// Shortcut files, Qt-free. The kind follows the file name: ".lnk" is a shell link in the
// published binary format of Windows shortcuts, ".desktop" a freedesktop desktop entry.
// Texts are Latin-1 byte strings.
#include "PlatformStatus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace KsPlatform
{
struct ShortcutData
{
    std::string target;            // absolute path of the file the shortcut starts
    std::string arguments;         // the command-line arguments as one text
    std::string description;       // the comment shown to the user
    std::string workingDirectory;  // empty: none
};

enum class ShortcutKind
{
    Unknown,
    ShellLink,     // ".lnk"
    DesktopEntry,  // ".desktop"
};

// By the file name's extension, without regard to letter case.
ShortcutKind shortcutKind(const std::string& inPath);

// Writes the shortcut file whole or not at all (an existing file is replaced only by a
// complete new one). The target must exist.
Status shortcutWrite(const std::string& inPath, const ShortcutData& inData);
// Reads a shortcut file back.
Status shortcutRead(const std::string& inPath, ShortcutData& outData);

// ---- the two file formats, for builds that write the files themselves --------------------

// What the shell-link header records about the target.
struct ShortcutTargetFacts
{
    bool isDirectory = false;
    std::uint64_t size = 0;
    std::int64_t creationTime = 0;  // seconds since 1970
    std::int64_t accessTime = 0;
    std::int64_t writeTime = 0;
};

// The bytes of a shell link with the single-byte string form (header, link info with the
// local target path, string data).
std::string shellLinkEncode(const ShortcutData& inData, const ShortcutTargetFacts& inTarget);
// Reads both string forms; texts beyond Latin-1 become '?'.
Status shellLinkDecode(const std::string& inBytes, ShortcutData& outData);

// A desktop entry (UTF-8) that starts the target: Type=Application, Name, Comment, Exec, Path.
std::string desktopEntryEncode(const ShortcutData& inData, const std::string& inName);
Status desktopEntryDecode(const std::string& inText, ShortcutData& outData);

// Splits a command line by shell rules (quotes, backslashes), without expansion.
bool commandLineSplit(const std::string& inCommandLine, std::vector<std::string>& outWords);
}
