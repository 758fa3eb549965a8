#include "Command_config.h"

#include "Engine.h"

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_config, "config")

const char* const Command_config::sHelpMessageBrief =
    "Specification of configuration values.\n"
    "For this command no specific attributes are predetermined. Any attribute\n"
    "can be specified and gets directly incorporated into the configuration.\n";

const char* const Command_config::sHelpMessageAttributes = "";

McResult Command_config::execute()
{
    McDArray<McHandle<Attribute>> all;
    attributes(all, QString());
    // Last to first, so that of a name given twice the first occurrence wins.
    for (int64_t i = all.size() - 1; i >= 0; --i)
        Engine::instance().configuration().valueSet(all[i]->name(), all[i]->value(), false);
    return McResult();
}
