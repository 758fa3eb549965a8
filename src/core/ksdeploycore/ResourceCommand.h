#pragma once
#include "Resource.h"

namespace KsDeploy
{
// Declared in the model without behaviour: carrying it out always fails.
class ResourceCommand : public Resource
{
public:
    ResourceCommand() = default;
    ResourceCommand(const ResourceCommand& inOther) = default;
    ResourceCommand& operator=(const ResourceCommand& inOther) = default;
    ~ResourceCommand() override;
    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;

private:
    QString mText1;
    QString mText2;
};
}
