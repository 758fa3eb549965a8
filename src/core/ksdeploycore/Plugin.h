#pragma once
#include "KsGlobal.h"

#include <QString>

namespace KsDeploy
{
class ResourceProduct;

// A product-specific component called around every product installation.
class Plugin : public McHandable
{
public:
    explicit Plugin(const QString& inName) : mName(inName) {}
    Plugin(const Plugin& inOther) = default;
    Plugin& operator=(const Plugin& inOther) = default;
    ~Plugin() override;

    const QString& name() const { return mName; }

    virtual McResult onRegister();
    virtual McResult onActivate();
    virtual McResult onInstallPre(const McHandle<ResourceProduct>& inProduct);
    virtual McResult onInstall(const McHandle<ResourceProduct>& inProduct);
    virtual void onInstallPost(const McHandle<ResourceProduct>& inProduct, bool inFailed);

private:
    QString mName;
};
}
