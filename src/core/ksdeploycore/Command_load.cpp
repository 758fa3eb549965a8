#include "Command_load.h"

#include "Cache.h"
#include "Engine.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QFileInfo>
#include <QTemporaryFile>

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_load, "load")

const char* const Command_load::sHelpMessageBrief = "Load resources from some source into the resource-pool.";

const char* const Command_load::sHelpMessageAttributes =
    "       attribute   : file\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : empty\n"
    "           With this attribute one can specify a file where resources get\n"
    "           de-serialized from.\n"
    "\n"
    "       attribute   : url\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : empty\n"
    "           With this attribute one can specify a http-url where resources get\n"
    "           de-serialized from.\n";

McResult Command_load::execute()
{
    Engine& engine = Engine::instance();
    // A load replaces the pool, even when it then fails.
    engine.resourceUnregisterAll();

    McResult retVal;
    McHandle<Attribute> file;
    McHandle<Attribute> url;
    retVal << attribute1(file, QStringLiteral("file"), false);
    retVal << attribute1(url, QStringLiteral("url"), false);
    if (retVal.isBad())
        return retVal;

    QString path;
    QTemporaryFile download;
    if (file.isNotNull())
        path = file->value();
    else if (url.isNotNull())
    {
        if (MC_CHECK(retVal, download.open(), QStringLiteral("unable to create a temporary file for %1").arg(url->value())))
            return retVal;
        download.close();
        path = QFileInfo(download.fileName()).absoluteFilePath();
        retVal << Cache::loadFileHTTP(path, url->value(), McLib::MD5());
        if (retVal.isBad())
            return retVal;
    }
    if (path.isEmpty())
        return retVal;

    XmlSerializer serializer;
    McDArray<McHandle<Resource>> resources;
    retVal << serializer.deserialize(path, resources);
    return retVal;
}
