#pragma once
#include "Resource.h"

namespace KsDeploy
{
// Declared in the model without behaviour: carrying it out always fails.
class ResourceCOMObject : public Resource
{
public:
    ResourceCOMObject() = default;
    ResourceCOMObject(const ResourceCOMObject& inOther) = default;
    ResourceCOMObject& operator=(const ResourceCOMObject& inOther) = default;
    ~ResourceCOMObject() override;
    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;

private:
    QString mText;
};
}
