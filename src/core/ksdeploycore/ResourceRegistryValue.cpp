#include "ResourceRegistryValue.h"

#include "Engine.h"

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
bool propertyFromText(const QString& inText, ResourceRegistryValue::Type& outValue)
{
    outValue = ResourceRegistryValue::String2Type(inText);
    return true;
}
}

const Resource::PropertyTable& ResourceRegistryValue::properties() const
{
    static const PropertyTable sTable = [this] {
        PropertyTable t = Resource::properties();
        t.insert("Type", new Property<Resource, ResourceRegistryValue, Type>("Type", -510, &ResourceRegistryValue::type,
                                                                            &ResourceRegistryValue::typeSet));
        t.insert("Value", new Property<Resource, ResourceRegistryValue, QString>(
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

McResult ResourceRegistryValue::install() { return notAvailableYet("install"); }
McResult ResourceRegistryValue::uninstall() { return notAvailableYet("uninstall"); }
McResult ResourceRegistryValue::verify() { return notAvailableYet("verify"); }
