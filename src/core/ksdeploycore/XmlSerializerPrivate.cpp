#include "XmlSerializerPrivate.h"

#include "ResourceFactory.h"

using namespace KsDeploy;

namespace
{
const qsizetype sWriteChunk = 1 << 16;
// A hostile file may use any number of names; only the first few are kept.
const size_t sNamesKept = 32;
}

QString XmlSerializer::Private::nameOf(QStringView inName)
{
    for (const QString& known : mNames)
        if (known == inName)
            return known;
    if (mNames.size() >= sNamesKept)
        return inName.toString();
    mNames.push_back(inName.toString());
    return mNames.back();
}

const XmlSerializer::Private::ClassForm& XmlSerializer::Private::formOf(const Resource* inResource)
{
    const std::type_info& type = typeid(*inResource);
    for (const ClassForm& known : mForms)
        if (*known.type == type)
            return known;
    ClassForm& form = mForms.emplace_back();
    form.type = &type;
    form.name = ResourceFactory::className(inResource);
    inResource->properties(form.properties);
    return form;
}

McHandle<Resource> XmlSerializer::Private::resourceMake(const QString& inClassName)
{
    // Made with the identity the element gives it, when that is well-formed (its property then
    // finds it set already): drawing a random one first costs more than the rest of making it.
    const QXmlStreamAttributes attributes = mReader.attributes();
    for (const QXmlStreamAttribute& a : attributes)
        if (a.name() == QLatin1String("UUID"))
        {
            QUuid given;
            if (uuidFromBracedText(a.value(), given))
                Resource::identityNextSet(given);
            break;
        }
    McHandle<Resource> made = ResourceFactory::create(inClassName);
    Resource::identityNextSet(QUuid());
    return made;
}

void XmlSerializer::Private::writeBegin()
{
    mWriteFailed = false;
    // The declaration as the writer writes it for a file: on a string it leaves out the
    // encoding. The string writer's first element begins a new line after it.
    QByteArray declaration;
    QXmlStreamWriter(&declaration).writeStartDocument();
    mWriteFailed = mSaveFile.write(declaration) != declaration.size();
    mText.clear();
    mText.reserve(sWriteChunk + sWriteChunk / 4);
    mWriter.reset(new QXmlStreamWriter(&mText));
    mWriter->setAutoFormatting(true);
}

void XmlSerializer::Private::writeEnd()
{
    mWriter->writeEndDocument();
    mWriter.reset();
    textFlush(true);
    mText.clear();
    // A write that failed on the way leaves the target as it was.
    if (mWriteFailed)
        mSaveFile.cancelWriting();
}

void XmlSerializer::Private::textFlush(bool inAll)
{
    if (mText.size() < (inAll ? 1 : sWriteChunk))
        return;
    const QByteArray bytes = mEncoder(mText);
    mText.resize(0);
    if (!mWriteFailed && mSaveFile.write(bytes) != bytes.size())
        mWriteFailed = true;
}
