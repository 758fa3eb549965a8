#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_product : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_product)
public:
    McResult execute() override;
};
}
