#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_tool : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_tool)
public:
    McResult execute() override;
};
}
