#pragma once
// Outcome of a platform call: a system error number and a text a user can act on. Qt-free.
#include <string>

namespace KsPlatform
{
struct Status
{
    long code = 0;     // 0: success; otherwise the error number of the layer that failed
    std::string text;  // Latin-1; names the file, key or program concerned

    bool isOk() const { return code == 0; }
    bool isBad() const { return code != 0; }

    static Status ok() { return Status(); }
    static Status bad(long inCode, const std::string& inText)
    {
        Status s;
        s.code = inCode;
        s.text = inText;
        return s;
    }
};

// Latin-1 bytes to UTF-8 and back (for files and databases that must hold UTF-8).
std::string latin1ToUtf8(const std::string& inLatin1);
// False when the text is not valid UTF-8 or holds a character beyond Latin-1.
bool utf8ToLatin1(const std::string& inUtf8, std::string& outLatin1);
}
