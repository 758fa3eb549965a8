#pragma once
#include "KsCommand.h"

namespace KsDeploy
{
// Keeps its two texts as file statics rather than exported members.
class CommandHelp : public QxBase::Command
{
public:
    CommandHelp(const CommandHelp&) = default;
    CommandHelp& operator=(const CommandHelp&) = default;
    static McHandle<QxBase::Command> factory();
    static void registerMe();
    QString name() const override;
    const char* helpMessageBrief() override;
    const char* helpMessageAttributes() override;
    McResult execute() override;

private:
    CommandHelp() = default;
    ~CommandHelp() override = default;
};
}
