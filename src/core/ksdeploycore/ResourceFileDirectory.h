#pragma once
#include "Resource.h"

namespace KsDeploy
{
// A directory; its name is one path component, or a whole path for a root directory.
class ResourceFileDirectory : public Resource
{
public:
    ResourceFileDirectory() = default;
    ResourceFileDirectory(const ResourceFileDirectory& inOther) = default;
    ~ResourceFileDirectory() override;

    McHandle<ResourceFileDirectory> container() const { return link<ResourceFileDirectory>("Container"); }
    void containerSet(const McHandle<ResourceFileDirectory>& inDir) { linkSet("Container", inDir.ptr()); }

    McResult install() override;
    McResult uninstall() override;
    McResult verify() override;
    QString path() const override;
    NameRule nameRule() const override;

private:
    // The resolved path, kept while nothing it depends on has changed; a copy starts empty.
    struct PathMemo
    {
        uint64_t generation = 0;
        QString path;
        PathMemo() = default;
        PathMemo(const PathMemo&) {}
        PathMemo& operator=(const PathMemo&)
        {
            generation = 0;
            return *this;
        }
    };
    mutable PathMemo mPathMemo;
};
}
