#include "Command_plugin.h"

#include "Engine.h"

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_plugin, "plugin")

const char* const Command_plugin::sHelpMessageBrief = "Activate a plugin.";

const char* const Command_plugin::sHelpMessageAttributes =
    "       attribute   : name\n"
    "       occurrence  : once (required)\n"
    "       values      : String\n"
    "       default     : \n"
    "       execution   : right after being parsed\n"
    "           This attribute specifies the name of the plugin to be activated.\n";

// Registered while the command line is parsed, activated in command-line order.
McResult Command_plugin::executeEarly() const
{
    McResult retVal;
    McHandle<Attribute> attribute;
    retVal << attribute1(attribute, QStringLiteral("name"), true);
    if (retVal.isOk())
        retVal << Engine::instance().pluginRegister(attribute->value());
    return retVal;
}

McResult Command_plugin::execute()
{
    McResult retVal;
    McHandle<Attribute> attribute;
    retVal << attribute1(attribute, QStringLiteral("name"), true);
    if (retVal.isOk())
        retVal << Engine::instance().pluginActivate(attribute->value());
    return retVal;
}
