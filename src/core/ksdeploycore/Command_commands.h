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
    // The same, with the 1-based line number of each argument in outLines.
    McResult getArguments(QList<QString>& outArguments, QList<int>& outLines);
    // Splits a stream's bytes into its arguments and their line numbers.
    static void argumentsFromBytes(const QByteArray& inBytes, QList<QString>& outArguments, QList<int>& outLines);
    // The file the stream is read from ("" when the attribute is absent).
    QString streamPath() const;
};
}
