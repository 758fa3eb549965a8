#include "ResourceFileShortcut.h"

#include "Engine.h"

using namespace KsDeploy;

ResourceFileShortcut::~ResourceFileShortcut() = default;

const Resource::PropertyTable& ResourceFileShortcut::properties() const
{
    static const PropertyTable sTable = [this] {
        PropertyTable t = Resource::properties();
        t.insert("Args", new Property<Resource, ResourceFileShortcut, QString>(
                             "Args", 0, &ResourceFileShortcut::arguments, &ResourceFileShortcut::argumentsSet));
        t.insert("Desc", new Property<Resource, ResourceFileShortcut, QString>(
                             "Desc", 0, &ResourceFileShortcut::description, &ResourceFileShortcut::descriptionSet));
        return t;
    }();
    return sTable;
}

QString ResourceFileShortcut::path() const
{
    McResult retVal;
    const McHandle<ResourceFileDirectory> myDir = container();
    if (MC_CHECK(retVal, myDir.isNotNull(), "Internal Error"))
        return QString();
    QString ret = QStringLiteral("%1/%2").arg(myDir->path(), name());
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_DBC_TEXT(DbCCheck, res.isOk(), "ret.isOk()");
    return ret;
}

McResult ResourceFileShortcut::install() { return notAvailableYet("install"); }
McResult ResourceFileShortcut::uninstall() { return notAvailableYet("uninstall"); }
McResult ResourceFileShortcut::verify() { return notAvailableYet("verify"); }
