#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_cache : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_cache)
public:
    McResult execute() override;
};
}
