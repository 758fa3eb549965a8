#pragma once
#include "Serializer.h"

#include <memory>

namespace KsDeploy
{
// Reads and writes resource graphs as XML: root "Deploy", one empty element per resource
// with its properties as attributes, each followed by its "Link" elements.
class XmlSerializer : public Serializer
{
public:
    XmlSerializer();
    ~XmlSerializer() override;
    XmlSerializer& operator=(const XmlSerializer& inOther);

    // Reads as the base does, then refuses the whole description when a name could reach
    // outside its place: none of its resources stays in the pool.
    McResult deserialize(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources) override;

    McResult openDocument(const QString& inPath, bool inForReading) override;
    McResult closeDocument() override;
    bool seekToNextElement() override;
    QString elementName() override;
    McResult readResource(McHandle<Resource>& outResource) override;
    McResult readLink(QUuid& outSource, QUuid& outTarget, QString& outName) override;
    McResult writeStartSection(const QString& inName) override;
    McResult writeEndSection() override;
    McResult writeResource(const McHandle<Resource>& inResource) override;
    McResult writeLink(const QUuid& inSource, const QUuid& inTarget, const QString& inName) override;

private:
    // A link's end as written in the file.
    static QUuid linkEnd(QStringView inText);

    struct Private;
    std::unique_ptr<Private> d;
};
}
