#pragma once
#include "Resource.h"

namespace KsDeploy
{
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
};
}
