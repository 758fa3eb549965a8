#include "ResourceFileEntry.h"

#include "Engine.h"

#include <QFile>
#include <QFileInfo>

using namespace KsDeploy;

ResourceFileEntry::~ResourceFileEntry() = default;

const Resource::PropertyTable& ResourceFileEntry::properties() const
{
    static const PropertyTable sTable = [this] {
        PropertyTable t = Resource::properties();
        t.insert("MD5", new Property<Resource, ResourceFileEntry, BufferID>("MD5", -720, &ResourceFileEntry::bufferId,
                                                                           &ResourceFileEntry::bufferIdSet));
        t.insert("Executable",
                 new Property<Resource, ResourceFileEntry, bool>("Executable", 0, &ResourceFileEntry::isExecutable,
                                                                 &ResourceFileEntry::isExecutableSet));
        return t;
    }();
    return sTable;
}

QString ResourceFileEntry::path() const
{
    McResult retVal;
    const McHandle<ResourceFileDirectory> myDir = container();
    if (MC_CHECK(retVal, myDir.isNotNull(), "Internal Error"))
        return QString();
    QString dirPath = myDir->path();
    if (!dirPath.isEmpty())
        dirPath += QLatin1Char('/');
    QString ret = name().isEmpty() ? QString() : QStringLiteral("%1%2").arg(dirPath, name());
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_DBC_TEXT(DbCCheck, res.isOk(), "ret.isOk()");
    return ret;
}

// Carried out with the content cache, which is built separately.
McResult ResourceFileEntry::install() { return notAvailableYet("install"); }
McResult ResourceFileEntry::uninstall() { return notAvailableYet("uninstall"); }
McResult ResourceFileEntry::verify() { return notAvailableYet("verify"); }
McResult ResourceFileEntry::scan() { return notAvailableYet("scan"); }
