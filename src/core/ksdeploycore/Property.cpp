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

bool uuidFromBracedText(QStringView inText, QUuid& outValue)
{
    // {xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}, digits lower-case only.
    if (inText.size() != 38 || inText[0] != u'{' || inText[37] != u'}')
        return false;
    const char16_t* p = inText.utf16() + 1;
    uint8_t bytes[16];
    int b = 0;
    for (int i = 0; i < 36;)
    {
        if (i == 8 || i == 13 || i == 18 || i == 23)
        {
            if (p[i] != u'-')
                return false;
            ++i;
            continue;
        }
        int pair = 0;
        for (int k = 0; k < 2; ++k, ++i)
        {
            const char16_t c = p[i];
            int v;
            if (c >= u'0' && c <= u'9')
                v = c - u'0';
            else if (c >= u'a' && c <= u'f')
                v = c - u'a' + 10;
            else
                return false;
            pair = pair * 16 + v;
        }
        bytes[b++] = static_cast<uint8_t>(pair);
    }
    outValue = QUuid::fromRfc4122(QByteArrayView(bytes, 16));
    return true;
}
}
