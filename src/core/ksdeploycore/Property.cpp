#include "Property.h"

namespace KsDeploy
{
QString propertyToText(const QString& inValue) { return inValue; }
QString propertyToText(bool inValue) { return inValue ? QStringLiteral("true") : QStringLiteral("false"); }
QString propertyToText(const QUuid& inValue) { return inValue.toString(QUuid::WithBraces); }
QString propertyToText(const BufferID& inValue) { return inValue.toString(); }

bool propertyFromText(QStringView inText, QString& outValue)
{
    outValue = inText.toString();
    return true;
}

bool propertyFromText(QStringView inText, bool& outValue)
{
    if (inText == QLatin1String("true"))
        outValue = true;
    else if (inText == QLatin1String("false"))
        outValue = false;
    else
        return false;
    return true;
}

bool propertyFromText(QStringView inText, QUuid& outValue)
{
    // Exactly the braced lower-case form that toText writes. Read in place, digit by digit: a
    // load reads one for every resource, and QUuid's own reader would want a copy of the text
    // and a second formatting to compare with.
    QUuid parsed;
    if (!uuidFromBracedText(inText, parsed))
        return false;
    outValue = parsed;
    return true;
}

bool propertyFromText(QStringView inText, BufferID& outValue)
{
    MC_DBC_TEXT(DbCPrecondition, inText.length() == 32 || inText.isEmpty(),
                "inEncodedBuffer.length() == 32 || inEncodedBuffer.isEmptyString()");
    bool ok = false;
    outValue = BufferID::fromString(inText, &ok);
    MC_DBC_TEXT(DbCPrecondition, ok || inText.length() != 32, "inEncodedBuffer is hexadecimal");
    // Anything else was reported above and yields the null id.
    return true;
}

bool propertyFromExactText(QStringView inText, BufferID& outValue)
{
    bool ok = false;
    const BufferID parsed = BufferID::fromString(inText, &ok);
    if (!ok)
        return false;
    outValue = parsed;
    return true;
}

namespace
{
// Value of each lower-case hexadecimal digit, 16 for every other character below 128.
struct HexDigits
{
    uint8_t value[128];
    constexpr HexDigits() : value()
    {
        for (int c = 0; c < 128; ++c)
            value[c] = c >= '0' && c <= '9' ? uint8_t(c - '0') : c >= 'a' && c <= 'f' ? uint8_t(c - 'a' + 10) : 16;
    }
};
constexpr HexDigits sHexDigits;
}

bool uuidFromBracedText(QStringView inText, QUuid& outValue)
{
    // {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}, digits lower-case only: each byte from its two
    // digits at fixed places.
    static const int sPairAt[16] = {1, 3, 5, 7, 10, 12, 15, 17, 20, 22, 25, 27, 29, 31, 33, 35};
    if (inText.size() != 38 || inText[0] != u'{' || inText[9] != u'-' || inText[14] != u'-' || inText[19] != u'-' ||
        inText[24] != u'-' || inText[37] != u'}')
        return false;
    const char16_t* text = inText.utf16();
    uint8_t bytes[16];
    unsigned bad = 0;
    for (int i = 0; i < 16; ++i)
    {
        const char16_t hiChar = text[sPairAt[i]];
        const char16_t loChar = text[sPairAt[i] + 1];
        // A character past the table counts as no digit, like one in it that is none.
        bad |= (hiChar | loChar) & ~0x7fu;
        const unsigned hi = sHexDigits.value[hiChar & 0x7f];
        const unsigned lo = sHexDigits.value[loChar & 0x7f];
        bad |= (hi | lo) & 16u;
        bytes[i] = static_cast<uint8_t>((hi << 4) | lo);
    }
    if (bad)
        return false;
    outValue = QUuid::fromRfc4122(QByteArrayView(bytes, 16));
    return true;
}
}
