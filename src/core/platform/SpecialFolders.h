#pragma once
// Special-folder look-up by Windows shell folder number (CSIDL). Qt-free.
#include <string>

namespace KsPlatform
{
// True and a plain absolute path when this system has an equivalent of the folder.
bool specialFolderPath(int inCsidl, std::string& outPath);

// The user's temporary directory: $TMPDIR when it is an absolute path to a directory, else the
// per-user folder "/tmp/ksdeploy-<uid>", created with mode 0700 when missing. A per-user folder
// that is not a real directory owned by the user, or that others may enter, is refused: another
// user could read or replace what we keep there. On refusal outPath still names the folder and
// outProblem says why ("owned by uid 1001", ...).
bool userTempDir(std::string& outPath, std::string& outProblem);
}
