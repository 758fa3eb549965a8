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

namespace
{
// The report for a link end; made only for one that is missing, since a load looks at every link.
QString unresolvedText(const Resource* inFound, const QUuid& inUuid)
{
    const QString uuid = inFound ? QString() : inUuid.toString(QUuid::WithBraces);
    return uuid.isEmpty() ? uuid : QStringLiteral("Unable to resolve resource UUID '%1'").arg(uuid);
}
}

McResult Serializer::deserialize(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources)
{
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
                PendingLink& l = links.emplace_back();
                readLink(l.source, l.target, l.name);
                continue;
            }
            McResult unknown;
            if (!ResourceFactory::isRegistered(name) &&
                MC_CHECK(unknown, ResourceFactory::isRegistered( name ), QStringLiteral("unknown element [%1]").arg(name)))
                continue;
            McHandle<Resource> r;
            readResource(r);
            MC_ASSERT(r.isNotNull());
            if (r.isNotNull())
                inoutResources.append(r);
        }
        linksResolve(links);
    }
    closeDocument();
    loadTrace(inPath, inoutResources);
    return retVal;
}

void Serializer::linksResolve(const std::vector<PendingLink>& inLinks)
{
    // Resolved against the whole pool once all is read: a link may point forward, or elsewhere.
    Engine& engine = Engine::instance();
    for (const PendingLink& l : inLinks)
    {
        Resource* source = engine.resource(l.source);
        McResult report;
        MC_CHECK_TEXT(report, source != nullptr, "false", unresolvedText(source, l.source));
        // Both ends are looked up and reported, even when the source is already missing: a
        // broken file is told whole.
        Resource* target = engine.resource(l.target);
        MC_CHECK_TEXT(report, target != nullptr, "false", unresolvedText(target, l.target));
        if (source && target)
            source->linkAdd(*target, l.name);
    }
}

void Serializer::loadTrace(const QString& inPath, const McDArray<McHandle<Resource>>& inResources)
{
    int64_t linkCount = 0;
    for (int64_t i = 0; i < inResources.size(); ++i)
        if (inResources[i].isNotNull())
            linkCount += inResources[i]->linkCount();
    Engine::instance().trace(
        McLogLevelInfo,
        QStringLiteral("load: %1 [res: %2, lnk: %3]").arg(inPath).arg(inResources.size()).arg(linkCount));
}

McResult Serializer::writeLinks(const Resource& inResource)
{
    McResult retVal;
    const McDArray<McHandle<Link>>& links = inResource.links();
    for (int64_t i = 0; i < links.size(); ++i)
        retVal << writeLink(inResource.uuid(), links[i]->target().uuid(), links[i]->name());
    return retVal;
}
