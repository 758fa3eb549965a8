#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_load : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_load)
public:
    McResult execute() override;
};
}
