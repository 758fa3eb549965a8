#include "Command_save.h"

#include "Common.h"
#include "Engine.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QFile>

#include <cerrno>
#include <unistd.h>

using namespace KsDeploy;

KS_COMMAND_CLASS_DEFINE(Command_save, "save")

const char* const Command_save::sHelpMessageBrief = "Store the resource-pool into a file.";

const char* const Command_save::sHelpMessageAttributes =
    "       attribute   : target\n"
    "       occurrence  : once (required)\n"
    "       values      : String\n"
    "       default     : \n"
    "           With this attribute one can specify the file the resources get\n"
    "           serialized into.\n"
    "\n"
    "       attribute   : gv\n"
    "       occurrence  : once (optional)\n"
    "       values      : String ('true' or something else)\n"
    "       default     : 'false'\n"
    "           If this attribute is set to 'true', an additional graphviz file\n"
    "           is generated.\n"
    "\n"
    "       attribute   : compress\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : false\n"
    "           If TRUE, a second compressed version of the file is stored under\n"
    "           the same filename but with an '_' appended.\n";

McResult Command_save::execute()
{
    McResult retVal;
    McHandle<Attribute> target;
    retVal << attribute1(target, QStringLiteral("target"), true);
    if (retVal.isBad())
        return retVal;
    McHandle<Attribute> gvAttribute;
    McHandle<Attribute> compressAttribute;
    retVal << attribute1(gvAttribute, QStringLiteral("gv"), false);
    retVal << attribute1(compressAttribute, QStringLiteral("compress"), false);
    const bool gv = commandFlag(gvAttribute);
    const bool compress = commandFlag(compressAttribute);

    Engine& engine = Engine::instance();
    McDArray<McHandle<Resource>> resources;
    engine.resources(resources);
    const QString path = target->value();
    XmlSerializer serializer;
    retVal << serializer.serialize(path, resources);
    // The compressed copy is named with ".lzma" appended (the help text's "_" is historical).
    const QString packedPath = path + QStringLiteral(".lzma");
    if (compress)
        retVal << fileCompress(packedPath, path);
    // Clients take the ".lzma" copy first: one left from an earlier save (or a copy that failed
    // half-way) would hand them an old or broken description.
    if (!compress || retVal.isBad())
    {
        const QByteArray packedName = QFile::encodeName(packedPath);
        const bool noStaleCopy = ::unlink(packedName.constData()) == 0 || errno == ENOENT;
        MC_CHECK_DETAIL(retVal, noStaleCopy, packedPath, McLib::osDetail(packedName.toStdString(), errno));
    }
    if (gv)
        engine.resourcesDumpGraphviz(resources, path + QStringLiteral(".gv"));

    quint64 links = 0;
    for (const McHandle<Resource>& resource : resources)
        links += resource->linkCount();
    engine.trace(McLogLevelInfo,
                 QStringLiteral("save\n  [%1]\n  [res: %2, lnk: %3]\n").arg(path).arg(resources.size()).arg(links));
    return retVal;
}
