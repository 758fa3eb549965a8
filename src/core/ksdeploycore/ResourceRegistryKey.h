#pragma once
#include "Resource.h"

#include "Registry.h"

#include <QHash>

namespace KsDeploy
{
class ResourceRegistryValue;

// A registry key; its path is the container's path, a backslash and its name.
class ResourceRegistryKey : public Resource
{
public:
    ResourceRegistryKey() = default;
    ResourceRegistryKey(const ResourceRegistryKey& inOther) = default;
    ~ResourceRegistryKey() override;

    McHandle<ResourceRegistryKey> container() const { return link<ResourceRegistryKey>("Container"); }
    void containerSet(const McHandle<ResourceRegistryKey>& inKey) { linkSet("Container", inKey.ptr()); }

    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;
    QString path() const override;
    NameRule nameRule() const override;

    // New key resources for the live subkeys, each with this key as container.
    McResult querySubKeys(McDArray<McHandle<ResourceRegistryKey>>& outKeys) const;
    // New value resources for the live values (type and text form), this key as container.
    McResult queryValues(McDArray<McHandle<ResourceRegistryValue>>& outValues) const;
    static void valuesArrayToHash(QHash<QString, McHandle<ResourceRegistryValue>>& outValuesHash,
                                  const McDArray<McHandle<ResourceRegistryValue>>& inValuesArray);

    // Where a key is: the store, the root and the path below it.
    struct Place
    {
        KsPlatform::Registry* registry = nullptr;
        KsPlatform::RegistryRoot root{};
        std::string path;
    };
    // The place of this key, from path(); fails for an unknown root.
    McResult locate(Place& outPlace) const;
};
}
