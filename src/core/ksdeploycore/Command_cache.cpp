#include "Command_cache.h"

#include "Cache.h"
#include "Engine.h"

#include <QDir>

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_cache, "cache")

const char* const Command_cache::sHelpMessageBrief =
    " Scan the byte-data of the targeted items, and place them into the buffer cache.";

const char* const Command_cache::sHelpMessageAttributes =
    "       attribute   : action\n"
    "       occurrence  : once (required)\n"
    "       values      : precache, clear\n"
    "       default     : \n"
    "           With this attribute one can select the operation:\n"
    "           precache: scan the files named by 'file' and 'dir' and place\n"
    "                     their byte-data into the cache.\n"
    "           clear:    remove every item from the cache.\n"
    "\n"
    "       attribute   : file\n"
    "       occurrence  : multiple (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The path of a single file to be cached.\n"
    "\n"
    "       attribute   : dir\n"
    "       occurrence  : multiple (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The path of a directory whose files are to be cached.\n"
    "\n"
    "       attribute   : recursive\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : true\n"
    "           If TRUE, the sub-directories of each 'dir' are cached as well.\n"
    "\n"
    "       attribute   : filter\n"
    "       occurrence  : multiple (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           A file name pattern such as *.dll; with filters given, only the\n"
    "           files of a 'dir' that match one of them are cached.\n"
    "\n"
    "       attribute   : compress\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : false\n"
    "           If TRUE, a compressed '.lzma' copy of every item is stored\n"
    "           beside it, ready to be published on a server.\n"
    "\n"
    "       attribute   : targetdir\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The cache directory to use instead of the default one.\n";

namespace
{
QStringList values(const McDArray<McHandle<QxBase::Command::Attribute>>& inAttributes)
{
    QStringList list;
    for (const McHandle<QxBase::Command::Attribute>& attribute : inAttributes)
        list.append(attribute->value());
    return list;
}
}

McResult Command_cache::execute()
{
    McResult retVal;
    McHandle<Attribute> action;
    McHandle<Attribute> targetDir;
    McHandle<Attribute> recursiveAttribute;
    McHandle<Attribute> compressAttribute;
    retVal << attribute1(action, QStringLiteral("action"), true);
    retVal << attribute1(targetDir, QStringLiteral("targetdir"), false);
    retVal << attribute1(recursiveAttribute, QStringLiteral("recursive"), false);
    retVal << attribute1(compressAttribute, QStringLiteral("compress"), false);
    if (retVal.isBad())
        return retVal;

    Engine& engine = Engine::instance();
    if (targetDir.isNotNull())
        engine.pathToCacheSet(QDir(targetDir->value()).absolutePath());
    QString cacheDir;
    retVal << engine.pathToCache(cacheDir);
    if (retVal.isBad())
        return retVal;

    McDArray<McHandle<Attribute>> list;
    if (action->value() == QLatin1String("precache"))
    {
        const bool recursive = recursiveAttribute.isNull() || commandFlag(recursiveAttribute);
        const bool compress = commandFlag(compressAttribute);
        attributes(list, QStringLiteral("filter"));
        const QStringList filters = values(list);
        attributes(list, QStringLiteral("file"));
        for (const QString& file : values(list))
        {
            retVal << engine.cache().retrieveFromFile(file, compress);
            if (retVal.isBad())
                return retVal;
        }
        attributes(list, QStringLiteral("dir"));
        for (const QString& dir : values(list))
        {
            retVal << engine.cache().retrieveFromDirectory(dir, recursive, filters, compress);
            if (retVal.isBad())
                return retVal;
        }
    }
    else if (action->value() == QLatin1String("clear"))
        engine.cache().itemRemoveAll();
    else
        MC_CHECK_TEXT(retVal, false, "false", QStringLiteral("invalid action '%1'").arg(action->value()));
    return retVal;
}
