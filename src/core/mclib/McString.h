#pragma once
#include <cstdint>
#include <string>

// 8-bit (Latin-1) text of the base library.
class McString
{
public:
    McString() = default;
    McString(const char* inText) : mText(inText ? inText : "") {}
    McString(const char* inText, size_t inStart, size_t inLength);
    McString(const std::string& inText) : mText(inText) {}

    static McString fromInt64(int64_t inValue);
    static McString printf(const char* inFormat, ...) __attribute__((format(printf, 1, 2)));

    void clear() { mText.clear(); }
    size_t length() const { return mText.size(); }
    bool isEmptyString() const { return mText.empty(); }
    const char* c_str() const { return mText.c_str(); }
    const std::string& str() const { return mText; }
    char operator[](size_t i) const { return mText[i]; }
    McString& operator+=(const McString& inOther)
    {
        mText += inOther.mText;
        return *this;
    }
    bool operator==(const McString& inOther) const { return mText == inOther.mText; }
    bool operator!=(const McString& inOther) const { return mText != inOther.mText; }

private:
    std::string mText;
};
