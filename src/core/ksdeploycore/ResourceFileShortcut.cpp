#include "ResourceFileShortcut.h"

#include "Engine.h"
#include "QxFile.h"
#include "Shortcut.h"

#include <QFile>

using namespace KsDeploy;

ResourceFileShortcut::~ResourceFileShortcut() = default;

Resource::NameRule ResourceFileShortcut::nameRule() const { return NameFile; }

const Resource::PropertyTable& ResourceFileShortcut::properties() const
{
    static const PropertyTable sTable = [this] {
        PropertyTable t = Resource::properties();
        propertyTableInsert(t, "Args",
                            new Property<Resource, ResourceFileShortcut, QString>(
                                "Args", 0, &ResourceFileShortcut::arguments, &ResourceFileShortcut::argumentsSet));
        propertyTableInsert(t, "Desc",
                            new Property<Resource, ResourceFileShortcut, QString>(
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

namespace
{
std::string latin1(const QString& inText)
{
    const QByteArray bytes = inText.toLatin1();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}

QString fromLatin1(const std::string& inText)
{
    return QString::fromLatin1(inText.data(), static_cast<int>(inText.size()));
}
}

McResult ResourceFileShortcut::install()
{
    MC_REQUIRE(arguments().size() <= 1024);
    MC_REQUIRE(description().size() <= 1024);
    McResult retVal;
    const QString linkPath = path();
    if (MC_CHECK(retVal, !linkPath.isEmpty(), "Internal Error"))
        return retVal;
    // A longer text would be cut by the shell and never verify: refused instead of written.
    if (MC_CHECK_TEXT(
            retVal, arguments().size() <= 1024 && description().size() <= 1024,
            "arguments().size() <= 1024 && description().size() <= 1024",
            QStringLiteral("shortcut '%1': arguments and description are limited to 1024 characters").arg(linkPath)))
        return retVal;
    const McHandle<ResourceFileEntry> entry = target();
    if (MC_CHECK(retVal, entry.isNotNull(), "Internal Error"))
        return retVal;

    KsPlatform::ShortcutData link;
    link.target = latin1(entry->path());
    link.description = latin1(description());
    link.arguments = latin1(arguments());
    const McHandle<ResourceFileDirectory> dir = workingDir();
    if (dir.isNotNull())
        link.workingDirectory = latin1(dir->path());
    // The file is written whole or not at all; the message names the file and the reason.
    const KsPlatform::Status status = KsPlatform::shortcutWrite(latin1(linkPath), link);
    MC_CHECK_TEXT(retVal, status.isOk(), "shortcutWrite(linkPath, link).isOk()", status.text);
    return retVal;
}

McResult ResourceFileShortcut::uninstall()
{
    McResult retVal;
    const QString linkPath = path();
    if (MC_CHECK(retVal, !linkPath.isEmpty(), "Internal Error"))
        return retVal;
    QFile qFile(linkPath);
    if (qFile.exists())
        MC_CHECK_DETAIL(retVal, qFile.remove(), "Internal Error",
                        mcMessageText(QStringLiteral("%1: %2").arg(linkPath, qFile.errorString())));
    return retVal;
}

McResult ResourceFileShortcut::verify()
{
    McResult retVal;
    const QString linkPath = path();
    if (MC_CHECK(retVal, !linkPath.isEmpty(), "Internal Error"))
        return retVal;
    const McHandle<ResourceFileEntry> entry = target();
    if (MC_CHECK(retVal, entry.isNotNull(), "Internal Error"))
        return retVal;
    KsPlatform::ShortcutData link;
    const KsPlatform::Status status = KsPlatform::shortcutRead(latin1(linkPath), link);
    if (MC_CHECK_TEXT(retVal, status.isOk(), "shortcutRead(linkPath, link).isOk()", status.text))
        return retVal;

    MC_CHECK_TEXT(retVal, description() == fromLatin1(link.description), "description()==( QString::fromLatin1(buf) )",
                  "Internal Error");
    MC_CHECK_TEXT(retVal, arguments() == fromLatin1(link.arguments), "arguments()==( QString::fromLatin1(buf) )",
                  "Internal Error");
    // By file identity, not by text: another spelling of the same file is the same target.
    const QString expected = entry->path();
    MC_CHECK_TEXT(retVal, QxBase::File::pathsPointToTheSameFile(expected, fromLatin1(link.target)),
                  "pathsPointToTheSameFile(expected,( QString::fromLatin1(buf) ))", "Internal Error");
    return retVal;
}
