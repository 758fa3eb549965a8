#include "ResourceRegistryKey.h"

#include "Engine.h"

using namespace KsDeploy;

ResourceRegistryKey::~ResourceRegistryKey() = default;

QString ResourceRegistryKey::path() const
{
    const McHandle<ResourceRegistryKey> parent = container();
    QString ret = parent.isNotNull() ? QStringLiteral("%1\\%2").arg(parent->path(), name()) : name();
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_DBC_TEXT(DbCCheck, res.isOk(), "ret.isOk()");
    return ret;
}

McResult ResourceRegistryKey::install() { return notAvailableYet("install"); }
McResult ResourceRegistryKey::uninstall() { return notAvailableYet("uninstall"); }
McResult ResourceRegistryKey::verify() { return notAvailableYet("verify"); }
