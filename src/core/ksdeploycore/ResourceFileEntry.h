#pragma once
#include "BufferID.h"
#include "QxFile.h"
#include "ResourceFileDirectory.h"

namespace KsDeploy
{
// One file whose content is a cached buffer named by its MD5.
class ResourceFileEntry : public Resource
{
public:
    ResourceFileEntry() = default;
    ResourceFileEntry(const ResourceFileEntry& inOther) = default;
    ~ResourceFileEntry() override;

    McHandle<ResourceFileDirectory> container() const { return link<ResourceFileDirectory>("Container"); }
    void containerSet(const McHandle<ResourceFileDirectory>& inDir) { linkSet("Container", inDir.ptr()); }

    BufferID bufferId() const { return mBufferId; }
    void bufferIdSet(const BufferID& inId) { mBufferId = inId; }
    bool isExecutable() const { return mIsExecutable; }
    void isExecutableSet(bool inFlag) { mIsExecutable = inFlag; }

    McResult install() override;
    // install() split for writers on other threads: the item and target of a file that is to be
    // created from the cache (false: install() must run as it is), and what follows once a
    // writer created it. A writer that could not create it leaves install() to the caller.
    bool installPlan(QString& outItem, QString& outTarget) const;
    void installCreated(const QString& inTarget, const QxBase::FileStamp& inStamp);
    McResult uninstall() override;
    McResult verify() override;
    McResult scan() override;
    // What scan finds for a file that is not there, for a caller that already knows it is not.
    void absenceFound();
    QString path() const override;
    NameRule nameRule() const override;
    const PropertyTable& properties() const override;

private:
    void executableMake(const QString& inPath) const;

    BufferID mBufferId;
    bool mIsExecutable = false;
};
}
