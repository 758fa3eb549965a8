#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_save : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_save)
public:
    McResult execute() override;
};
}
