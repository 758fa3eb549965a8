#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_config : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_config)
public:
    McResult execute() override;
    bool attributesAreFree() const override { return true; }
};
}
