#include "CommandHelp.h"
#include "Command_cache.h"
#include "Command_commands.h"
#include "Command_config.h"
#include "Command_flags.h"
#include "Command_generate.h"
#include "Command_link.h"
#include "Command_load.h"
#include "Command_plugin.h"
#include "Command_product.h"
#include "Command_save.h"
#include "Command_tool.h"

void KsDeploy::commandsRegisterAll()
{
    CommandHelp::registerMe();
    Command_cache::registerMe();
    Command_commands::registerMe();
    Command_config::registerMe();
    Command_flags::registerMe();
    Command_generate::registerMe();
    Command_link::registerMe();
    Command_load::registerMe();
    Command_plugin::registerMe();
    Command_product::registerMe();
    Command_save::registerMe();
    Command_tool::registerMe();
}
