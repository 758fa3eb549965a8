#pragma once
#include "Serializer.h"

#include <QFile>
#include <QXmlStreamAttributes>

#include <memory>
#include <vector>

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
    // Writes as the base does; a large graph's two halves on two threads, giving the same bytes.
    McResult serialize(const QString& inPath, const McDArray<McHandle<Resource>>& inResources) override;

    // From which file size a load reads the two halves of the file on two threads, and from
    // which number of resources a save writes on two; below them one thread does it all.
    static void parallelLoadBytesSet(int64_t inBytes);
    static void parallelSaveCountSet(int64_t inCount);
    // How many loads and saves so far were done on two threads (the rest fell back to one).
    static int64_t parallelLoads();
    static int64_t parallelSaves();

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

    // What one part of a file read in memory gave, in file order.
    struct Part
    {
        std::vector<McHandle<Resource>> resources;
        std::vector<PendingLink> links;
        // The root's start tag as read, for comparing the two parts' views of it.
        QString rootName;
        QXmlStreamAttributes rootAttributes;
        QXmlStreamNamespaceDeclarations rootNamespaces;
    };
    // Reads a large file in two parts on two threads and enters the result into the pool as the
    // ordinary reading would; false, with nothing entered or reported, when the file is small
    // or anything in it might make the two readings differ.
    bool deserializeParallel(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources);
    // Reads inHead followed by the bytes of inFile from where it stands up to inEnd, without
    // touching the pool or reporting anything. The first part (inFirst) is the file's beginning
    // up to the split; the other is the file's beginning up to the end of the root's start tag
    // (inHead), followed by the rest from the split.
    bool partRead(const QByteArray& inHead, QFile& inFile, qint64 inEnd, bool inFirst, Part& outPart);
    // Takes the current element into the part as the ordinary reading takes it; sets the doubt
    // on anything it would report.
    void elementTake(Part& inoutPart);
    // Writes resources [inBegin, inEnd) as they stand in the whole document to inoutDevice; the
    // part's own text starts at outStart.
    bool partWrite(const McDArray<McHandle<Resource>>& inResources, int64_t inBegin, int64_t inEnd,
                   QIODevice& inoutDevice, qint64& outStart);

    struct Private;
    std::unique_ptr<Private> d;
};
}
