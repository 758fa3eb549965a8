#pragma once
#include "ResourceFileDirectory.h"

namespace KsDeploy
{
// The root node of one product; its name is the product's key.
class ResourceProduct : public Resource
{
public:
    ResourceProduct() = default;
    ResourceProduct(const ResourceProduct& inOther) = default;
    ~ResourceProduct() override;

    McHandle<ResourceFileDirectory> applicationDirectory() const { return link<ResourceFileDirectory>("Application"); }
    void applicationDirectorySet(const McHandle<ResourceFileDirectory>& inDir) { linkSet("Application", inDir.ptr()); }

    // The product only anchors its graph: nothing to carry out.
    McResult install() override { return McResult(); }
    McResult uninstall() override { return McResult(); }
    McResult verify() override { return McResult(); }
};
}
