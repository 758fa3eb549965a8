#include "Serializer.h"

#include "Engine.h"
#include "Resource.h"
#include "ResourceFactory.h"

#include <vector>

using namespace KsDeploy;

Serializer::~Serializer() = default;

McResult Serializer::serialize(const QString& inPath, const McDArray<McHandle<Resource>>& inResources)
{
    McResult retVal = openDocument(inPath, false);
    if (retVal.isOk())
    {
        for (int64_t i = 0; i < inResources.size(); ++i)
        {
            const McHandle<Resource>& r = inResources[i];
            if (r.isNull())
            {
                MC_DBC_TEXT(DbCPrecondition, false, "isNotNull()");
                continue;
            }
            retVal << writeResource(r);
            retVal << writeLinks(*r);
            if (retVal.isBad())
                break;
        }
    }
    retVal << closeDocument();
    return retVal;
}

McResult Serializer::writeLinks(const Resource& inResource)
{
    McResult retVal;
    const McDArray<McHandle<Link>>& links = inResource.links();
    for (int64_t i = 0; i < links.size(); ++i)
        retVal << writeLink(inResource.uuid(), links[i]->target().uuid(), links[i]->name());
    return retVal;
}

McResult Serializer::deserialize(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources)
{
    struct PendingLink
    {
        QUuid source;
        QUuid target;
        QString name;
    };
    Engine& engine = Engine::instance();
    McResult retVal = openDocument(inPath, true);
    if (retVal.isOk())
    {
        std::vector<PendingLink> links;
        while (seekToNextElement())
        {
            const QString name = elementName();
            if (name == QLatin1String("Deploy"))
                continue;
            if (name == QLatin1String("Link"))
            {
                PendingLink l;
                readLink(l.source, l.target, l.name);
                links.push_back(l);
                continue;
            }
            McResult unknown;
            if (MC_CHECK(unknown, ResourceFactory::isRegistered( name ), QStringLiteral("unknown element [%1]").arg(name)))
                continue;
            McHandle<Resource> r;
            readResource(r);
            MC_ASSERT(r.isNotNull());
            if (r.isNotNull())
                inoutResources.append(r);
        }
        // Links are resolved against the whole pool once everything is read, so they may
        // point forward or at resources loaded from another file.
        for (const PendingLink& l : links)
        {
            Resource* source = engine.resource(l.source);
            McResult report;
            MC_CHECK_TEXT(
                report, source != nullptr, "false",
                QStringLiteral("Unable to resolve resource UUID '%1'").arg(l.source.toString(QUuid::WithBraces)));
            Resource* target = engine.resource(l.target);
            MC_CHECK_TEXT(
                report, target != nullptr, "false",
                QStringLiteral("Unable to resolve resource UUID '%1'").arg(l.target.toString(QUuid::WithBraces)));
            if (source && target)
                source->linkAdd(*target, l.name);
        }
    }
    closeDocument();
    int64_t linkCount = 0;
    for (int64_t i = 0; i < inoutResources.size(); ++i)
        if (inoutResources[i].isNotNull())
            linkCount += inoutResources[i]->linkCount();
    engine.trace(McLogLevelInfo,
                 QStringLiteral("load: %1 [res: %2, lnk: %3]").arg(inPath).arg(inoutResources.size()).arg(linkCount));
    return retVal;
}
