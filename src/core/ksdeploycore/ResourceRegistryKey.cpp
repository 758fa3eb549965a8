#include "ResourceRegistryKey.h"

#include "Engine.h"

#include <QSet>
#include <QStringList>

using namespace KsDeploy;

ResourceRegistryKey::~ResourceRegistryKey() = default;

QString ResourceRegistryKey::path() const
{
    // Walked without recursion: a damaged file may chain containers in a circle.
    QStringList parts;
    QSet<const ResourceRegistryKey*> seen;
    McHandle<ResourceRegistryKey> key(const_cast<ResourceRegistryKey*>(this));
    while (key.isNotNull())
    {
        McResult cycle;
        if (MC_CHECK_TEXT(cycle, !seen.contains(key.ptr()), "!seen.contains(key)",
                          QStringLiteral("registry key '%1' contains itself").arg(name())))
            return QString();
        seen.insert(key.ptr());
        parts.prepend(key->name());
        key = key->container();
    }
    QString ret = parts.join(QLatin1Char('\\'));
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_DBC_TEXT(DbCCheck, res.isOk(), "ret.isOk()");
    return ret;
}

McResult ResourceRegistryKey::install() { return notAvailableYet("install"); }
McResult ResourceRegistryKey::uninstall() { return notAvailableYet("uninstall"); }
McResult ResourceRegistryKey::verify() { return notAvailableYet("verify"); }
