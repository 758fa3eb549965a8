#include "Command_link.h"

#include "QxFile.h"

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_link, "link")

const char* const Command_link::sHelpMessageBrief = "Link a file system object to another one.\n";

const char* const Command_link::sHelpMessageAttributes =
    "       attribute   : source\n"
    "       occurrence  : once (required)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The path of the link to be created. Nothing may exist there yet;\n"
    "           an existing file, folder or link is never overwritten.\n"
    "\n"
    "       attribute   : target\n"
    "       occurrence  : once (required)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The existing directory the link points to.\n";

McResult Command_link::execute()
{
    McResult retVal;
    McHandle<Attribute> source;
    McHandle<Attribute> target;
    retVal << attribute1(source, QStringLiteral("source"), true);
    if (retVal.isOk())
        retVal << attribute1(target, QStringLiteral("target"), true);
    if (retVal.isOk())
        retVal << QxBase::File::junctionCreate(source->value(), target->value());
    return retVal;
}
