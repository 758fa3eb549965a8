#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_flags : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_flags)
public:
    McResult executeEarly() const override;
    McResult execute() override;
};
}
