#include "Property.h"

namespace KsDeploy
{
QString propertyToText(const QString& inValue) { return inValue; }
QString propertyToText(bool inValue) { return inValue ? QStringLiteral("true") : QStringLiteral("false"); }
QString propertyToText(const QUuid& inValue) { return inValue.toString(QUuid::WithBraces); }
QString propertyToText(const BufferID& inValue) { return inValue.toString(); }

bool propertyFromText(const QString& inText, QString& outValue)
{
    outValue = inText;
    return true;
}

bool propertyFromText(const QString& inText, bool& outValue)
{
    if (inText == QLatin1String("true"))
        outValue = true;
    else if (inText == QLatin1String("false"))
        outValue = false;
    else
        return false;
    return true;
}

bool propertyFromText(const QString& inText, QUuid& outValue)
{
    // Exactly the braced lower-case form that toText writes.
    const QUuid parsed = QUuid::fromString(inText);
    if (parsed.isNull() && inText != QUuid().toString(QUuid::WithBraces))
        return false;
    if (parsed.toString(QUuid::WithBraces) != inText)
        return false;
    outValue = parsed;
    return true;
}

bool propertyFromText(const QString& inText, BufferID& outValue)
{
    MC_DBC_TEXT(DbCPrecondition, inText.length() == 32 || inText.isEmpty(),
                "inEncodedBuffer.length() == 32 || inEncodedBuffer.isEmptyString()");
    bool ok = false;
    outValue = BufferID::fromString(inText, &ok);
    MC_DBC_TEXT(DbCPrecondition, ok || inText.length() != 32, "inEncodedBuffer is hexadecimal");
    // Anything else was reported above and yields the null id.
    return true;
}
}
