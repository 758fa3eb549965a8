#include "XmlSerializerPrivate.h"

#include "ResourceFactory.h"

using namespace KsDeploy;

namespace
{
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
    mIdentityText = nullptr;
    const QXmlStreamAttributes attributes = mReader.attributes();
    for (const QXmlStreamAttribute& a : attributes)
        if (a.name() == QLatin1String("UUID"))
        {
            QUuid given;
            if (uuidFromBracedText(a.value(), given) && !given.isNull())
            {
                Resource::identityNextSet(given);
                mIdentityText = a.value().data();
            }
            break;
        }
    McHandle<Resource> made = ResourceFactory::create(inClassName);
    Resource::identityNextSet(QUuid());
    return made;
}

void XmlSerializer::Private::propertyWrite(const PropertyBase<Resource>* inProperty, Resource* inResource,
                                           const QXmlStreamAttribute& inAttribute)
{
    const QStringView value = inAttribute.value();
    if (mIdentityText && value.data() == mIdentityText)
        return;
    if (mQuiet)
        mDoubt = mDoubt || !inProperty->writeExact(inResource, value);
    else
        inProperty->write(inResource, value);
}

void XmlSerializer::Private::writeBegin()
{
    mWriter.setDevice(&mSaveFile);
    mWriter.setAutoFormatting(true);
    mWriter.writeStartDocument();
}

void XmlSerializer::Private::writeEnd()
{
    mWriter.writeEndDocument();
    mWriter.setDevice(nullptr);
}
