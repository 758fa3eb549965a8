#include "XmlSerializer.h"

#include "Engine.h"
#include "Resource.h"
#include "ResourceFactory.h"

#include <QFile>
#include <QSaveFile>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <cstdio>

using namespace KsDeploy;

struct XmlSerializer::Private
{
    QFile mFile;
    QSaveFile mSaveFile;
    QXmlStreamWriter mWriter;
    QXmlStreamReader mReader;
    bool mWriting = false;
};

XmlSerializer::XmlSerializer() : d(new Private) {}
XmlSerializer::~XmlSerializer() = default;

// The file and stream state belong to one document at a time and are not copied.
XmlSerializer& XmlSerializer::operator=(const XmlSerializer&) { return *this; }

McResult XmlSerializer::deserialize(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources)
{
    const int64_t first = inoutResources.size();
    McResult retVal = Serializer::deserialize(inPath, inoutResources);
    // Judged once the links are resolved: only then is it known which folder or key is a root.
    bool refused = false;
    for (int64_t i = first; i < inoutResources.size(); ++i)
    {
        const McResult name = inoutResources[i]->nameCheck();
        refused = refused || name.isBad();
        retVal << name;
    }
    if (!refused)
        return retVal;
    // A description that names a place outside its own is not half-trusted: all of it goes.
    Engine& engine = Engine::instance();
    for (int64_t i = first; i < inoutResources.size(); ++i)
    {
        inoutResources[i]->linkRemoveTo(nullptr);
        engine.resourceUnregister(inoutResources[i]);
    }
    inoutResources.resize(first);
    engine.trace(McLogLevelError, QStringLiteral("load: %1 refused, nothing of it is kept").arg(inPath));
    return retVal;
}

McResult XmlSerializer::openDocument(const QString& inPath, bool inForReading)
{
    McResult retVal;
    bool opened;
    if (inForReading)
    {
        d->mFile.setFileName(inPath);
        opened = d->mFile.open(QIODevice::ReadOnly);
    }
    else
    {
        // Written next to the target and renamed into place on close: never half a file.
        d->mSaveFile.setFileName(inPath);
        opened = d->mSaveFile.open(QIODevice::WriteOnly);
    }
    if (MC_CHECK_TEXT(retVal, opened, "d->mFile.open()", QStringLiteral("failed to open file [%1]").arg(inPath)))
        return retVal;
    if (inForReading)
    {
        d->mReader.setDevice(&d->mFile);
    }
    else
    {
        d->mWriting = true;
        d->mWriter.setDevice(&d->mSaveFile);
        d->mWriter.setAutoFormatting(true);
        d->mWriter.writeStartDocument();
        writeStartSection(QStringLiteral("Deploy"));
    }
    return retVal;
}

McResult XmlSerializer::closeDocument()
{
    McResult retVal;
    if (d->mWriting)
    {
        writeEndSection();
        d->mWriter.writeEndDocument();
        d->mWriter.setDevice(nullptr);
        d->mWriting = false;
        MC_CHECK_TEXT(retVal, d->mSaveFile.commit(), "d->mSaveFile.commit()",
                      QStringLiteral("failed to write file [%1]").arg(d->mSaveFile.fileName()));
    }
    else
    {
        d->mReader.setDevice(nullptr);
        d->mReader.clear();
        d->mFile.close();
    }
    return retVal;
}

bool XmlSerializer::seekToNextElement()
{
    QXmlStreamReader& r = d->mReader;
    if (r.atEnd())
        return false;
    while (!r.atEnd())
    {
        const QXmlStreamReader::TokenType t = r.readNext();
        // Declarations could make a small file expand to any size; our files never hold one,
        // so one ends the reading like any other error, before an entity is ever used.
        if (t == QXmlStreamReader::DTD)
            r.raiseError(QStringLiteral("document type declarations are not read (entities are never expanded)"));
        if (r.hasError())
        {
            std::printf("\nXML error\n desc: %s\n  line: %d\n  near: %s\n", r.errorString().toLatin1().constData(),
                        static_cast<int>(r.lineNumber()), r.name().toString().toLatin1().constData());
            std::fflush(stdout);
            return false;
        }
        if (t == QXmlStreamReader::StartElement)
            return true;
    }
    return false;
}

QString XmlSerializer::elementName() { return d->mReader.name().toString(); }

McResult XmlSerializer::readResource(McHandle<Resource>& outResource)
{
    McResult retVal;
    MC_DBC_TEXT(DbCCheck, !d->mReader.atEnd(), "!d->mReader.atEnd()");
    outResource = ResourceFactory::create(elementName());
    if (outResource.isNull())
    {
        MC_DBC_TEXT(DbCCheck, false, "outResource.isNotNull()");
        MC_CHECK(retVal, outResource.isNotNull(), "Internal Error");
        return retVal;
    }
    const Resource::PropertyTable& props = outResource->properties();
    const QXmlStreamAttributes attributes = d->mReader.attributes();
    for (const QXmlStreamAttribute& a : attributes)
    {
        const QString name = a.name().toString();
        PropertyBase<Resource>* prop = props.value(name, nullptr);
        McResult unknown;
        if (MC_CHECK(unknown, prop!=0, QStringLiteral("unknown attribute [%1]").arg(name)))
            continue;
        prop->write(outResource.ptr(), a.value().toString());
    }
    return retVal;
}

McResult XmlSerializer::readLink(QUuid& outSource, QUuid& outTarget, QString& outName)
{
    MC_DBC_TEXT(DbCCheck, !d->mReader.atEnd(), "!d->mReader.atEnd()");
    MC_DBC_TEXT(DbCCheck, elementName() == QStringLiteral("Link"), "elementName() == QStringLiteral(\"Link\")");
    const QXmlStreamAttributes a = d->mReader.attributes();
    outSource = QUuid(a.value(QLatin1String("Source")).toString());
    outTarget = QUuid(a.value(QLatin1String("Target")).toString());
    outName = a.value(QLatin1String("Name")).toString();
    return McResult();
}

McResult XmlSerializer::writeStartSection(const QString& inName)
{
    d->mWriter.writeStartElement(inName);
    return McResult();
}

McResult XmlSerializer::writeEndSection()
{
    d->mWriter.writeEndElement();
    return McResult();
}

McResult XmlSerializer::writeResource(const McHandle<Resource>& inResource)
{
    d->mWriter.writeEmptyElement(ResourceFactory::className(inResource.ptr()));
    McDArray<PropertyBase<Resource>*> props;
    inResource->properties(props);
    for (int64_t i = 0; i < props.size(); ++i)
        d->mWriter.writeAttribute(props[i]->name(), props[i]->read(inResource.ptr()));
    return McResult();
}

McResult XmlSerializer::writeLink(const QUuid& inSource, const QUuid& inTarget, const QString& inName)
{
    d->mWriter.writeEmptyElement(QStringLiteral("Link"));
    d->mWriter.writeAttribute(QStringLiteral("Source"), inSource.toString(QUuid::WithBraces));
    d->mWriter.writeAttribute(QStringLiteral("Target"), inTarget.toString(QUuid::WithBraces));
    d->mWriter.writeAttribute(QStringLiteral("Name"), inName);
    return McResult();
}
