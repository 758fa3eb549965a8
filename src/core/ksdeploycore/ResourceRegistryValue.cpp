#include "ResourceRegistryValue.h"

#include "Engine.h"
#include "RegistryStore.h"

#include <QtEndian>

using namespace KsDeploy;

namespace
{
const char* const sTypeNames[] = {"TYPE_NONE",
                                  "TYPE_SZ",
                                  "TYPE_EXPAND_SZ",
                                  "TYPE_BINARY",
                                  "TYPE_DWORD",
                                  "TYPE_DWORD_BIG_ENDIAN",
                                  "TYPE_LINK",
                                  "TYPE_MULTI_SZ",
                                  "TYPE_RESOURCE_LIST",
                                  "TYPE_FULL_RESOURCE_DESCRIPTOR",
                                  "TYPE_RESOURCE_REQUIREMENTS_LIST",
                                  "TYPE_QWORD"};
}

ResourceRegistryValue::~ResourceRegistryValue() = default;

// A value name is no path: a backslash in it (a file path, as Windows programs store them) stays
// inside its key.
Resource::NameRule ResourceRegistryValue::nameRule() const { return NameValue; }

QString ResourceRegistryValue::Type2String(Type inType)
{
    if (inType >= TYPE_NONE && inType <= TYPE_QWORD)
        return QString::fromLatin1(sTypeNames[inType]);
    MC_DBC_TEXT(DbCCheck, false, "0");
    return QStringLiteral("TYPE_NONE");
}

ResourceRegistryValue::Type ResourceRegistryValue::String2Type(const QString& inText)
{
    for (int i = TYPE_NONE; i <= TYPE_QWORD; ++i)
        if (inText == QLatin1String(sTypeNames[i]))
            return static_cast<Type>(i);
    MC_DBC_TEXT(DbCCheck, false, "0");
    return TYPE_NONE;
}

namespace KsDeploy
{
QString propertyToText(ResourceRegistryValue::Type inValue) { return ResourceRegistryValue::Type2String(inValue); }
bool propertyFromText(QStringView inText, ResourceRegistryValue::Type& outValue)
{
    outValue = ResourceRegistryValue::String2Type(inText.toString());
    return true;
}
bool propertyFromExactText(QStringView inText, ResourceRegistryValue::Type& outValue)
{
    for (int i = ResourceRegistryValue::TYPE_NONE; i <= ResourceRegistryValue::TYPE_QWORD; ++i)
        if (inText == QLatin1String(sTypeNames[i]))
        {
            outValue = static_cast<ResourceRegistryValue::Type>(i);
            return true;
        }
    return false;
}
}

const Resource::PropertyTable& ResourceRegistryValue::properties() const
{
    static const PropertyTable sTable = [this] {
        PropertyTable t = Resource::properties();
        propertyTableInsert(t, "Type",
                            new Property<Resource, ResourceRegistryValue, Type>(
                                "Type", -510, &ResourceRegistryValue::type, &ResourceRegistryValue::typeSet));
        propertyTableInsert(t, "Value",
                            new Property<Resource, ResourceRegistryValue, QString>(
                                "Value", 10, &ResourceRegistryValue::value, &ResourceRegistryValue::valueSet));
        return t;
    }();
    return sTable;
}

QString ResourceRegistryValue::path() const
{
    McResult retVal;
    const McHandle<ResourceRegistryKey> key = container();
    if (MC_CHECK(retVal, key.isNotNull(), "Internal Error"))
        return QString();
    QString ret = QStringLiteral("%1\\%2").arg(key->path(), name());
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_DBC_TEXT(DbCCheck, res.isOk(), "ret.isOk()");
    return ret;
}

namespace
{
bool isStringType(ResourceRegistryValue::Type inType)
{
    return inType == ResourceRegistryValue::TYPE_SZ || inType == ResourceRegistryValue::TYPE_EXPAND_SZ ||
           inType == ResourceRegistryValue::TYPE_LINK || inType == ResourceRegistryValue::TYPE_MULTI_SZ;
}

bool isHexText(const QString& inText)
{
    for (const QChar c : inText)
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f')) ||
              (c >= QLatin1Char('A') && c <= QLatin1Char('F'))))
            return false;
    return true;
}

QString hexText(const QByteArray& inData)
{
    McString text;
    McCoder::dataToHexString(reinterpret_cast<const unsigned char*>(inData.constData()),
                             static_cast<unsigned int>(inData.size()), text, true);
    return QString::fromLatin1(text.c_str());
}
}

QString ResourceRegistryValue::textProblem(const QString& inValue, Type inType)
{
    bool ok = false;
    switch (inType)
    {
    case TYPE_SZ:
    case TYPE_EXPAND_SZ:
    case TYPE_LINK:
    case TYPE_MULTI_SZ:
        for (const QChar c : inValue)
            if (c.unicode() > 0xFF)
                return QStringLiteral("the text holds characters beyond Latin-1");
        return QString();
    case TYPE_BINARY:
        if (inValue.size() % 2 != 0)
            return QStringLiteral("\"%1\" has an odd number of hexadecimal digits").arg(inValue);
        if (!isHexText(inValue))
            return QStringLiteral("\"%1\" is not hexadecimal digits").arg(inValue);
        return QString();
    case TYPE_DWORD:
        inValue.toInt(&ok, 10);
        return ok ? QString() : QStringLiteral("\"%1\" is not a decimal 32-bit number").arg(inValue);
    case TYPE_QWORD:
        inValue.toLongLong(&ok, 10);
        return ok ? QString() : QStringLiteral("\"%1\" is not a decimal 64-bit number").arg(inValue);
    default:
        return QStringLiteral("the value type %1 is not supported").arg(Type2String(inType));
    }
}

QByteArray ResourceRegistryValue::binaryFromString(const QString& inValue, Type inType)
{
    MC_REQUIRE(inType!=TYPE_NONE);
    MC_REQUIRE(inType!=TYPE_DWORD_BIG_ENDIAN);
    MC_REQUIRE(inType!=TYPE_RESOURCE_LIST);
    MC_REQUIRE(inType!=TYPE_FULL_RESOURCE_DESCRIPTOR);
    MC_REQUIRE(inType!=TYPE_RESOURCE_REQUIREMENTS_LIST);
    if (isStringType(inType))
    {
        // Deliberately the bare concatenation of the parts: no separator, no terminator.
        QByteArray out;
        for (const QString& part : inValue.split(QStringLiteral("\\0")))
            out += part.toLatin1();
        return out;
    }
    bool ok = false;
    switch (inType)
    {
    case TYPE_BINARY:
    {
        MC_ASSERT(inValue.size()%2==0);
        QByteArray out(inValue.size() / 2, '\0');
        if (!McCoder::hexStringToData(reinterpret_cast<unsigned char*>(out.data()),
                                      McString(inValue.toLatin1().toStdString())))
            return QByteArray();
        return out;
    }
    case TYPE_DWORD:
    {
        const qint32 v = inValue.toInt(&ok, 10);
        MC_ASSERT(ok);
        if (!ok)
            return QByteArray();
        QByteArray out(4, '\0');
        qToLittleEndian(v, out.data());
        return out;
    }
    case TYPE_QWORD:
    {
        const qint64 v = inValue.toLongLong(&ok, 10);
        MC_ASSERT(ok);
        if (!ok)
            return QByteArray();
        QByteArray out(8, '\0');
        qToLittleEndian(v, out.data());
        return out;
    }
    default:
        return QByteArray();
    }
}

QString ResourceRegistryValue::binaryToString(const QByteArray& inData, Type inType)
{
    if (isStringType(inType))
    {
        QByteArray data = inData;
        if (data.endsWith('\0'))
            data.chop(1);
        QString out;
        out.reserve(data.size());
        for (const char c : data)
        {
            if (c == '\0')
                out += QStringLiteral("\\0");
            else
                out += QChar(static_cast<uchar>(c));
        }
        return out;
    }
    switch (inType)
    {
    case TYPE_DWORD:
        // Data of another size is no DWORD: it must not compare equal to any number.
        return inData.size() == 4 ? QString::number(qFromLittleEndian<qint32>(inData.constData())) : hexText(inData);
    case TYPE_QWORD:
        return inData.size() == 8 ? QString::number(qFromLittleEndian<qint64>(inData.constData())) : hexText(inData);
    default:
        // BINARY, and the unsupported types as raw bytes so that nothing read is lost.
        return hexText(inData);
    }
}

McResult ResourceRegistryValue::locate(const ResourceRegistryKey& inKey, ResourceRegistryKey::Place& outKey,
                                       std::string& outValueName) const
{
    McResult retVal = inKey.locate(outKey);
    if (retVal.isBad())
        return retVal;
    QString valueName = name();
    retVal << Engine::instance().configuration().resolve(valueName);
    outValueName = valueName.toLatin1().toStdString();
    return retVal;
}

McResult ResourceRegistryValue::readRaw(const ResourceRegistryKey& inKey, Type& outType, QByteArray& outData) const
{
    ResourceRegistryKey::Place at;
    std::string valueName;
    McResult retVal = locate(inKey, at, valueName);
    if (retVal.isBad())
        return retVal;
    unsigned long type = 0;
    std::string data;
    if (KS_CHECK_REGISTRY(retVal, at.registry->valueQuery(at.root, at.path, valueName, type, data)))
        return retVal;
    outType = static_cast<Type>(type);
    outData = QByteArray(data.data(), static_cast<int>(data.size()));
    return retVal;
}

McResult ResourceRegistryValue::readFromRegistry(const ResourceRegistryKey& inKey, Type& outType,
                                                 QString& outValue) const
{
    QByteArray data;
    McResult retVal = readRaw(inKey, outType, data);
    if (retVal.isOk())
        outValue = binaryToString(data, outType);
    return retVal;
}

McResult ResourceRegistryValue::install()
{
    McResult retVal;
    const McHandle<ResourceRegistryKey> key = container();
    if (MC_CHECK(retVal, key.isNotNull(), "Internal Error"))
        return retVal;
    ResourceRegistryKey::Place at;
    std::string valueName;
    retVal << locate(*key, at, valueName);
    if (retVal.isBad())
        return retVal;
    // Bad text is refused before anything is written, so the store keeps the old value.
    const QString problem = textProblem(value(), type());
    if (MC_CHECK_TEXT(retVal, problem.isEmpty(), "textProblem(value(), type()).isEmpty()",
                      QStringLiteral("registry value '%1': %2").arg(path(), problem)))
        return retVal;
    const QByteArray data = binaryFromString(value(), type());
    KS_CHECK_REGISTRY(retVal, at.registry->valueSet(at.root, at.path, valueName, static_cast<unsigned long>(type()),
                                                    std::string(data.constData(), static_cast<size_t>(data.size()))));
    return retVal;
}

McResult ResourceRegistryValue::uninstall()
{
    McResult retVal;
    const McHandle<ResourceRegistryKey> key = container();
    if (MC_CHECK(retVal, key.isNotNull(), "Internal Error"))
        return retVal;
    ResourceRegistryKey::Place at;
    std::string valueName;
    retVal << locate(*key, at, valueName);
    if (retVal.isBad())
        return retVal;
    const KsPlatform::Status status = at.registry->valueDelete(at.root, at.path, valueName);
    // A value (or key) that is already gone is what uninstall wants.
    if (status.code != KsPlatform::RegistryNotFound)
        KS_CHECK_REGISTRY(retVal, status);
    return retVal;
}

McResult ResourceRegistryValue::verify()
{
    McResult retVal;
    const McHandle<ResourceRegistryKey> key = container();
    if (MC_CHECK(retVal, key.isNotNull(), "Internal Error"))
        return retVal;
    Type currType = TYPE_NONE;
    QByteArray currData;
    retVal << readRaw(*key, currType, currData);
    if (retVal.isBad())
        return retVal;
    // Both sides in the canonical text form of the described type, so "FF" and "ff" are the
    // same binary value and a value of another type is reported as that, not as other data.
    const QString currValue = binaryToString(currData, type());
    const QString expected =
        textProblem(value(), type()).isEmpty() ? binaryToString(binaryFromString(value(), type()), type()) : value();
    MC_CHECK_TEXT(retVal, currType == type(), "currType==type()", "Internal Error");
    MC_CHECK_TEXT(retVal, currValue == expected, "currValue==value()", "Internal Error");
    return retVal;
}
