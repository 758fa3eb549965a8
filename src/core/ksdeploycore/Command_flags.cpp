#include "Command_flags.h"

#include "Engine.h"

#include "QxMessageBox.h"

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_flags, "flags")

const char* const Command_flags::sHelpMessageBrief = "Provide boolean flags to control the programs behavior.\n";

const char* const Command_flags::sHelpMessageAttributes =
    "       attribute   : quiet\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : false\n"
    "       execution   : right after being parsed\n"
    "           If TRUE, the application runs as a pure console application,\n"
    "           where no user interface is shown and no user interaction is\n"
    "           required. Note that this is only ensured for core commands\n"
    "           but not for plugins e.g. PluginKestraClient.\n"
    "\n"
    "       attribute   : debug\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : false\n"
    "       execution   : right after being parsed\n"
    "           If TRUE, a blocking windows message box is displayed during\n"
    "           execution of this command.\n"
    "           This provides opportinity to attach a debugger while the\n"
    "           box is shown.\n";

McResult Command_flags::executeEarly() const
{
    McResult retVal;
    McHandle<Attribute> debug;
    retVal << attribute1(debug, QStringLiteral("debug"), false);
    // Without a display the box becomes a line on the console and a wait for Enter.
    if (commandFlag(debug))
        QxMessageBox::informationWait(nullptr, QStringLiteral("Debug"),
                                      QStringLiteral("Attach debugger, then press OK to continue."));
    McHandle<Attribute> quiet;
    retVal << attribute1(quiet, QStringLiteral("quiet"), false);
    if (quiet.isNotNull())
        Engine::instance().quietSet(commandFlag(quiet));
    return retVal;
}

McResult Command_flags::execute() { return McResult(); }
