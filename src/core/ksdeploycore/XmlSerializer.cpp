#include "XmlSerializer.h"

#include "Engine.h"
#include "Resource.h"
#include "ResourceFactory.h"
#include "XmlSerializerPrivate.h"

#include <cstdio>

using namespace KsDeploy;

// A product's description may hold a hundred thousand files, and each is read and written
// through here, so neither direction copies what it need not:
// - the reader's names and values are looked at where the reader holds them; a value is copied
//   only into a text property (names, values of registry entries), and element and link names
//   that repeat share one copy;
// - a resource is made with the identity its element gives it and enters the pool's index
//   under it once, instead of drawing a random identity that the element then replaces;
// - messages are made only for what is refused, and the file is read as it always was, so a
//   report names the same element and line;
// - the writer finds each class's name and sorted properties once per document, not once per
//   resource;
// - link ends in the form the writer writes are read digit by digit.

XmlSerializer::XmlSerializer() : d(new Private) {}
XmlSerializer::~XmlSerializer() = default;

// The file and stream state belong to one document at a time and are not copied.
XmlSerializer& XmlSerializer::operator=(const XmlSerializer&) { return *this; }

McResult XmlSerializer::deserialize(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources)
{
    const int64_t first = inoutResources.size();
    McResult retVal;
    if (!deserializeParallel(inPath, inoutResources))
        retVal = Serializer::deserialize(inPath, inoutResources);
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
        // A resource with its link takes a few hundred bytes: room for that many spares the
        // pool's index its regrowth while the file is read.
        Engine::instance().resourceReserve(d->mFile.size() / 256);
    }
    else
    {
        d->mWriting = true;
        d->writeBegin();
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
        d->writeEnd();
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

QString XmlSerializer::elementName() { return d->nameOf(d->mReader.name()); }

McResult XmlSerializer::readResource(McHandle<Resource>& outResource)
{
    McResult retVal;
    MC_DBC_TEXT(DbCCheck, !d->mReader.atEnd(), "!d->mReader.atEnd()");
    outResource = d->resourceMake(elementName());
    if (outResource.isNull() && d->mQuiet)
    {
        d->mDoubt = true;
        return retVal;
    }
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
        const QStringView name = a.name();
        PropertyBase<Resource>* prop = props.value(QString::fromRawData(name.data(), name.size()), nullptr);
        if (!prop && d->mQuiet)
        {
            d->mDoubt = true;
            return retVal;
        }
        McResult unknown;
        if (!prop && MC_CHECK(unknown, prop!=0, QStringLiteral("unknown attribute [%1]").arg(name)))
            continue;
        d->propertyWrite(prop, outResource.ptr(), a);
    }
    return retVal;
}

McResult XmlSerializer::readLink(QUuid& outSource, QUuid& outTarget, QString& outName)
{
    MC_DBC_TEXT(DbCCheck, !d->mReader.atEnd(), "!d->mReader.atEnd()");
    MC_DBC_TEXT(DbCCheck, d->mReader.name() == QLatin1String("Link"), "elementName() == QStringLiteral(\"Link\")");
    const QXmlStreamAttributes a = d->mReader.attributes();
    outSource = linkEnd(a.value(QLatin1String("Source")));
    outTarget = linkEnd(a.value(QLatin1String("Target")));
    outName = d->nameOf(a.value(QLatin1String("Name")));
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
    const Private::ClassForm& form = d->formOf(inResource.ptr());
    d->mWriter.writeEmptyElement(form.name);
    for (int64_t i = 0; i < form.properties.size(); ++i)
        d->mWriter.writeAttribute(form.properties[i]->name(), form.properties[i]->read(inResource.ptr()));
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

QUuid XmlSerializer::linkEnd(QStringView inText)
{
    // As QUuid's reader takes it (braces or none, either case; null when missing or malformed),
    // the form our writer writes read in place.
    QUuid uuid;
    if (uuidFromBracedText(inText, uuid))
        return uuid;
    return QUuid::fromString(inText);
}
