#pragma once
#include "Resource.h"
#include "XmlSerializer.h"

#include <QFile>
#include <QSaveFile>
#include <QStringEncoder>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <memory>
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
    QSaveFile mSaveFile;
    // The writer writes into mText, which goes to mSaveFile encoded, in chunks: the writer's
    // many small pieces would cost a conversion and a device call each.
    QString mText;
    std::unique_ptr<QXmlStreamWriter> mWriter;
    QStringEncoder mEncoder{QStringEncoder::Utf8};
    bool mWriteFailed = false;
    std::vector<ClassForm> mForms;
    QXmlStreamReader mReader;
    // Names read before (of elements and links), handed out as shared copies: nearly every
    // element of a file repeats one of a few names.
    std::vector<QString> mNames;
    bool mWriting = false;

    QString nameOf(QStringView inName);
    const ClassForm& formOf(const Resource* inResource);
    // Makes the resource of the current element, with the identity the element gives it.
    McHandle<Resource> resourceMake(const QString& inClassName);
    // The declaration, then a writer on mText; after writeEnd, mWriteFailed tells whether
    // everything reached the file.
    void writeBegin();
    void writeEnd();
    // Hands the text gathered so far to the file once there is enough of it (all when inAll).
    void textFlush(bool inAll);
};
}
