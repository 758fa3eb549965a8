#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
class Command_commands : public QxBase::Command
{
    KS_COMMAND_CLASS_BODY(Command_commands)
public:
    McResult execute() override;
    // The arguments of the stream file, one per non-empty line, trimmed.
    McResult getArguments(QList<QString>& outArguments);
};
}
