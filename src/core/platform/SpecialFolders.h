#pragma once
// Special-folder look-up by Windows shell folder number (CSIDL). Qt-free.
#include <string>

namespace KsPlatform
{
// True and a plain absolute path when this system has an equivalent of the folder.
bool specialFolderPath(int inCsidl, std::string& outPath);
}
