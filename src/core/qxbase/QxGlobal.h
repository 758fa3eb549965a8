#pragma once
// Base library plus the Qt text forms of its message helpers.
#include "mclib.h"

#include <QByteArray>
#include <QString>

// Lets MC_CHECK take a QString message; texts become Latin-1 throughout.
inline std::string mcMessageText(const QString& inText)
{
    const QByteArray bytes = inText.toLatin1();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}
inline std::string mcMessageText(const QByteArray& inText)
{
    return std::string(inText.constData(), static_cast<size_t>(inText.size()));
}
