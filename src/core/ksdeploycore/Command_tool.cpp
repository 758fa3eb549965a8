#include "Command_tool.h"

#include "Common.h"
#include "Engine.h"

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_tool, "tool")

const char* const Command_tool::sHelpMessageBrief = "Unspecific actions.";

const char* const Command_tool::sHelpMessageAttributes =
    "       attribute   : action\n"
    "       occurrence  : once (required)\n"
    "       values      : uninstallbypath, sandboxremove\n"
    "       default     : \n"
    "           With this attribute one can select the specific tool to be used:\n"
    "           uninstallbypath : Scan the windows registry for a product installed at this path and un-install it "
    "using the method registered in the registry\n"
    "           sandboxremove   : Remove the sandbox of the given name.\n"
    "\n"
    "       attribute   : path\n"
    "       occurrence  : once (required for uninstallbypath)\n"
    "       values      : string\n"
    "       default     : \n"
    "           With this attribute one can specify the path used to find products installed in it.\n"
    "\n"
    "       attribute   : name\n"
    "       occurrence  : once (required for sandboxremove)\n"
    "       values      : string\n"
    "       default     : \n"
    "           Name of the sandbox.\n";

McResult Command_tool::execute()
{
    McResult retVal;
    McHandle<Attribute> action;
    retVal << attribute1(action, QStringLiteral("action"), true);
    if (retVal.isBad())
        return retVal;
    McHandle<Attribute> argument;
    if (action->value() == QLatin1String("uninstallbypath"))
    {
        retVal << attribute1(argument, QStringLiteral("path"), true);
        if (retVal.isOk())
            retVal << uninstallWhatsOnThisAppDir(argument->value());
    }
    else if (action->value() == QLatin1String("sandboxremove"))
    {
        retVal << attribute1(argument, QStringLiteral("name"), true);
        if (retVal.isOk())
            retVal << Engine::instance().sandboxRemove(argument->value(), false);
    }
    else
        MC_CHECK_TEXT(retVal, false, "false", QStringLiteral("invalid action '%1'").arg(action->value()));
    return retVal;
}
