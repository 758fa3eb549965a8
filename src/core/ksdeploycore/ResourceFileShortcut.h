#pragma once
#include "ResourceFileEntry.h"

namespace KsDeploy
{
// A shortcut file (".lnk" shell link or ".desktop" entry) pointing at a file entry.
class ResourceFileShortcut : public Resource
{
public:
    ResourceFileShortcut() = default;
    ResourceFileShortcut(const ResourceFileShortcut& inOther) = default;
    ~ResourceFileShortcut() override;

    McHandle<ResourceFileDirectory> container() const { return link<ResourceFileDirectory>("Container"); }
    void containerSet(const McHandle<ResourceFileDirectory>& inDir) { linkSet("Container", inDir.ptr()); }
    McHandle<ResourceFileEntry> target() const { return link<ResourceFileEntry>("Target"); }
    void targetSet(const McHandle<ResourceFileEntry>& inEntry) { linkSet("Target", inEntry.ptr()); }
    McHandle<ResourceFileDirectory> workingDir() const { return link<ResourceFileDirectory>("Directory"); }
    void workingDirSet(const McHandle<ResourceFileDirectory>& inDir) { linkSet("Directory", inDir.ptr()); }

    QString arguments() const { return mArguments; }
    void argumentsSet(const QString& inText) { mArguments = inText; }
    QString description() const { return mDescription; }
    void descriptionSet(const QString& inText) { mDescription = inText; }

    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;
    QString path() const override;
    NameRule nameRule() const override;
    const PropertyTable& properties() const override;

private:
    QString mArguments;
    QString mDescription;
};
}
