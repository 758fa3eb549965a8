#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_plugin : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_plugin)
public:
    McResult executeEarly() const override;
    McResult execute() override;
    // A plugin may contribute commands that later arguments use.
    bool registersCommands() const override { return true; }
};
}
