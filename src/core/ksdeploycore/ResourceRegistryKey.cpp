#include "ResourceRegistryKey.h"

#include "Engine.h"
#include "RegistryStore.h"
#include "ResourceRegistryValue.h"

#include <QSet>
#include <QStringList>

using namespace KsDeploy;

ResourceRegistryKey::~ResourceRegistryKey() = default;

Resource::NameRule ResourceRegistryKey::nameRule() const { return container().isNull() ? NameKeyRoot : NameKey; }

QString ResourceRegistryKey::path() const
{
    // Walked without recursion: a damaged file may chain containers in a circle.
    QStringList parts;
    QSet<const ResourceRegistryKey*> seen;
    McHandle<ResourceRegistryKey> key(const_cast<ResourceRegistryKey*>(this));
    while (key.isNotNull())
    {
        McResult cycle;
        if (MC_CHECK_TEXT(cycle, !seen.contains(key.ptr()), "!seen.contains(key)",
                          QStringLiteral("registry key '%1' contains itself").arg(name())))
            return QString();
        seen.insert(key.ptr());
        parts.prepend(key->name());
        key = key->container();
    }
    QString ret = parts.join(QLatin1Char('\\'));
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_DBC_TEXT(DbCCheck, res.isOk(), "ret.isOk()");
    return ret;
}

McResult ResourceRegistryKey::locate(Place& outPlace) const
{
    McResult retVal;
    const QString keyPath = path();
    // The root is the first name of the path: one of the five predefined root keys.
    const bool isRoot = RegistryStore::splitPath(keyPath, outPlace.root, outPlace.path);
    if (MC_CHECK_TEXT(retVal, isRoot, "hkeyCurr!=((HKEY)(LONG_PTR)-1)", "Internal Error"))
    {
        Engine::instance().trace(McLogLevelError, QStringLiteral("registry key '%1' does not start with one of "
                                                                 "HKEY_CLASSES_ROOT, HKEY_CURRENT_CONFIG, "
                                                                 "HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS")
                                                      .arg(keyPath));
        return retVal;
    }
    retVal << RegistryStore::instance(outPlace.registry);
    return retVal;
}

McResult ResourceRegistryKey::install()
{
    Place at;
    McResult retVal = locate(at);
    if (retVal.isBad())
        return retVal;
    KS_CHECK_REGISTRY(retVal, at.registry->keyCreate(at.root, at.path));
    return retVal;
}

McResult ResourceRegistryKey::verify()
{
    Place at;
    McResult retVal = locate(at);
    if (retVal.isBad())
        return retVal;
    KS_CHECK_REGISTRY(retVal, at.registry->keyOpen(at.root, at.path));
    return retVal;
}

McResult ResourceRegistryKey::uninstall()
{
    Place at;
    McResult retVal = locate(at);
    // A root key stays: it belongs to the system, not to a product.
    if (retVal.isBad() || at.path.empty())
        return retVal;
    const KsPlatform::Status status = at.registry->keyDelete(at.root, at.path);
    // Already gone is what uninstall wants; a key with subkeys stays and is reported.
    if (status.code != KsPlatform::RegistryNotFound)
        KS_CHECK_REGISTRY(retVal, status);
    return retVal;
}

McResult ResourceRegistryKey::querySubKeys(McDArray<McHandle<ResourceRegistryKey>>& outKeys) const
{
    Place at;
    McResult retVal = locate(at);
    if (retVal.isBad())
        return retVal;
    std::vector<std::string> names;
    if (KS_CHECK_REGISTRY(retVal, at.registry->subKeys(at.root, at.path, names)))
        return retVal;
    const McHandle<ResourceRegistryKey> self(const_cast<ResourceRegistryKey*>(this));
    for (const std::string& name : names)
    {
        McHandle<ResourceRegistryKey> key(new ResourceRegistryKey);
        key->nameSet(QString::fromLatin1(name.data(), static_cast<int>(name.size())));
        key->containerSet(self);
        outKeys.append(key);
    }
    return retVal;
}

McResult ResourceRegistryKey::queryValues(McDArray<McHandle<ResourceRegistryValue>>& outValues) const
{
    MC_DBC_TEXT(DbCPrecondition, outValues.isEmpty(), "outValues.isEmptyArray()");
    Place at;
    McResult retVal = locate(at);
    if (retVal.isBad())
        return retVal;
    std::vector<KsPlatform::RegistryValue> values;
    const KsPlatform::Status status = at.registry->values(at.root, at.path, values);
    if (MC_CHECK_TEXT(retVal, status.isOk(), "res==0L", status.text))
        return retVal;
    const McHandle<ResourceRegistryKey> self(const_cast<ResourceRegistryKey*>(this));
    for (const KsPlatform::RegistryValue& v : values)
    {
        McHandle<ResourceRegistryValue> value(new ResourceRegistryValue);
        const auto type = static_cast<ResourceRegistryValue::Type>(v.type);
        value->nameSet(QString::fromLatin1(v.name.data(), static_cast<int>(v.name.size())));
        value->typeSet(type);
        value->valueSet(
            ResourceRegistryValue::binaryToString(QByteArray(v.data.data(), static_cast<int>(v.data.size())), type));
        value->containerSet(self);
        outValues.append(value);
    }
    return retVal;
}

void ResourceRegistryKey::valuesArrayToHash(QHash<QString, McHandle<ResourceRegistryValue>>& outValuesHash,
                                            const McDArray<McHandle<ResourceRegistryValue>>& inValuesArray)
{
    for (int64_t i = 0; i < inValuesArray.size(); ++i)
    {
        MC_REQUIRE(!outValuesHash.contains(inValuesArray[i]->name()));
        outValuesHash.insert(inValuesArray[i]->name(), inValuesArray[i]);
    }
}
