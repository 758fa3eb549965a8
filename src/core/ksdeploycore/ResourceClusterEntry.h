#pragma once
#include "Resource.h"

namespace KsDeploy
{
// Declared in the model without behaviour: carrying it out always fails.
class ResourceClusterEntry : public Resource
{
public:
    ResourceClusterEntry() = default;
    ResourceClusterEntry(const ResourceClusterEntry& inOther) = default;
    ~ResourceClusterEntry() override;
    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;
};
}
