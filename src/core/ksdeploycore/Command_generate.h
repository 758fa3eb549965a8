#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_generate : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_generate)
public:
    McResult execute() override;
};
}
