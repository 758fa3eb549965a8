#pragma once
#include "KsGlobal.h"

#include <QString>
#include <QUuid>

#include <vector>

namespace KsDeploy
{
class Resource;

// Format-independent walk over a resource graph file: what is written in which order,
// and how links are resolved after loading.
class Serializer
{
public:
    Serializer() = default;
    virtual ~Serializer();

    virtual McResult serialize(const QString& inPath, const McDArray<McHandle<Resource>>& inResources);
    // Appends the resources read to inoutResources (which is not cleared).
    virtual McResult deserialize(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources);

    virtual McResult openDocument(const QString& inPath, bool inForReading) = 0;
    virtual McResult closeDocument() = 0;
    virtual bool seekToNextElement() = 0;
    virtual QString elementName() = 0;
    virtual McResult readResource(McHandle<Resource>& outResource) = 0;
    virtual McResult readLink(QUuid& outSource, QUuid& outTarget, QString& outName) = 0;
    virtual McResult writeStartSection(const QString& inName) = 0;
    virtual McResult writeEndSection() = 0;
    virtual McResult writeResource(const McHandle<Resource>& inResource) = 0;
    virtual McResult writeLink(const QUuid& inSource, const QUuid& inTarget, const QString& inName) = 0;

protected:
    // A link as read, resolved once the whole file is in the pool.
    struct PendingLink
    {
        QUuid source;
        QUuid target;
        QString name;
    };
    // Links every pending link whose ends are in the pool, reporting each end that is not.
    static void linksResolve(const std::vector<PendingLink>& inLinks);
    // The closing trace of a load: what the file gave.
    static void loadTrace(const QString& inPath, const McDArray<McHandle<Resource>>& inResources);
    McResult writeLinks(const Resource& inResource);
};
}
