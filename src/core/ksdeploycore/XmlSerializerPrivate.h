#pragma once
#include "Resource.h"
#include "XmlSerializer.h"

#include <QFile>
#include <QSaveFile>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <typeinfo>
#include <vector>

namespace KsDeploy
{
// The state of one document being read or written, and the helpers that keep a large graph's
// reading and writing from copying text or asking the same question once per resource.
struct XmlSerializer::Private
{
    // What the writer needs of one class, found once instead of for every resource.
    struct ClassForm
    {
        const std::type_info* type = nullptr;
        QString name;
        McDArray<PropertyBase<Resource>*> properties;
    };

    QFile mFile;
    // Buffered by the file itself: the writer's pieces are small, and each is one device call.
    QSaveFile mSaveFile;
    QXmlStreamWriter mWriter;
    std::vector<ClassForm> mForms;
    QXmlStreamReader mReader;
    // Names read before (of elements and links), handed out as shared copies: nearly every
    // element of a file repeats one of a few names.
    std::vector<QString> mNames;
    // Where the reader holds the text of the identity the current resource was made with.
    const QChar* mIdentityText = nullptr;
    bool mWriting = false;
    // A reader of one part of a file, beside the engine's thread, reports nothing: whatever the
    // whole reading would report sets mDoubt instead, and the file is read again as a whole.
    bool mQuiet = false;
    bool mDoubt = false;

    QString nameOf(QStringView inName);
    const ClassForm& formOf(const Resource* inResource);
    // Makes the resource of the current element, with the identity the element gives it.
    McHandle<Resource> resourceMake(const QString& inClassName);
    // Writes an attribute into its property, unless it is the identity the resource was made
    // with (which it would only read again).
    void propertyWrite(const PropertyBase<Resource>* inProperty, Resource* inResource,
                       const QXmlStreamAttribute& inAttribute);
    // Attaches the writer to mSaveFile and writes the declaration; detaches it at the end.
    void writeBegin();
    void writeEnd();
};
}
