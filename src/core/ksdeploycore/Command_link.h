#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_link : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_link)
public:
    McResult execute() override;
};
}
