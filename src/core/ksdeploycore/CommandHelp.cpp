#include "CommandHelp.h"

using namespace KsDeploy;

namespace
{
const char* const sBrief = "Display documentation text for a specific command.";
const char* const sAttributes = "       attribute   : command\n"
                                "       occurrence  : once (required)\n"
                                "       values      : String\n"
                                "       default     : \n"
                                "           With this attribute one can select the command for which the\n"
                                "           documentation gets displayed.\n";
}

McHandle<QxBase::Command> CommandHelp::factory() { return McHandle<QxBase::Command>(new CommandHelp); }
void CommandHelp::registerMe() { QxBase::Command::registerFactory(QStringLiteral("help"), &CommandHelp::factory); }
QString CommandHelp::name() const { return QStringLiteral("help"); }
const char* CommandHelp::helpMessageBrief() { return sBrief; }
const char* CommandHelp::helpMessageAttributes() { return sAttributes; }

McResult CommandHelp::execute()
{
    McResult retVal;
    McHandle<Attribute> attribute;
    // Asked for as optional although the help calls it required: no name lists every command.
    retVal << attribute1(attribute, QStringLiteral("command"), false);
    const QString commandName = attribute.isNotNull() ? attribute->value() : QString();
    QxBase::Command::usage(commandName, true);
    return retVal;
}
