#include "PluginKestraClientBuildSystem.h"

#include "Cache.h"
#include "Common.h"
#include "Engine.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"
#include "ResourceRegistryKey.h"
#include "ResourceRegistryValue.h"
#include "XmlSerializer.h"

#include "QxSignatureCheck.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QSaveFile>
#include <QSet>
#include <QTemporaryFile>
#include <QXmlStreamReader>

#include <cerrno>
#include <unistd.h>

using namespace KsDeploy;

const char* const PluginKestraClientBuildSystem::sApplicationFolder = "${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}";
const char* const PluginKestraClientBuildSystem::sClientExe = "ksclient.exe";
const char* const PluginKestraClientBuildSystem::sLauncherExe = "ksweblaunch.exe";

PluginKestraClientBuildSystem::PluginKestraClientBuildSystem() : Plugin(QStringLiteral("KestraClientBuildSystem")) {}

PluginKestraClientBuildSystem::~PluginKestraClientBuildSystem() = default;

PluginKestraClientBuildSystem& PluginKestraClientBuildSystem::instance()
{
    // Held for the life of the process; the engine's plugin list holds it too.
    static const McHandle<PluginKestraClientBuildSystem> sInstance(new PluginKestraClientBuildSystem);
    return *sInstance;
}

McResult PluginKestraClientBuildSystem::onRegister()
{
    Command_generateProductXML::registerMe();
    return McResult();
}

using Command_generateProductXML = PluginKestraClientBuildSystem::Command_generateProductXML;

KS_COMMAND_CLASS_DEFINE(Command_generateProductXML, "generateProductXML")

const char* const Command_generateProductXML::sHelpMessageBrief =
    "Generate the Resource Graph that describes the installation of the KestraCS\n"
    ".desktop client product.The command expects a Resource Graph to be loaded that reflects the content of\n"
    "a directory containing the folder structure with all files of the product as\n"
    "if being already installed.\n"
    "One way to get this is to invoke the command '--generate \"type=directory\" ...'\n"
    "at a directory that got accordingly filled by a build-system.\n"
    "After this command was issued, the Resource Graph can be stored by the command\n"
    "'--save'.\n";

const char* const Command_generateProductXML::sHelpMessageAttributes =
    "       attribute   : name\n"
    "       occurrence  : once (required)\n"
    "       values      : String\n"
    "       default     : \n"
    "           The name of the product: its key in the description, the name of\n"
    "           its uninstall entry and of its start-menu entry (NAME.desktop).\n"
    "           One file name; no '/' and no '\\'.\n"
    "\n"
    "       attribute   : version\n"
    "       occurrence  : once (required)\n"
    "       values      : four numbers from 0 to 65535 joined by '.', e.g. 2.1.0.17\n"
    "       default     : \n"
    "           The version of the client being published. It goes into the\n"
    "           uninstall entry and into update.ini.\n"
    "\n"
    "       attribute   : displayname\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : the name\n"
    "           The name shown to users: the uninstall entry's display name, the\n"
    "           start-menu entry's description and the product in update.ini.\n"
    "\n"
    "       attribute   : previous\n"
    "       occurrence  : once (optional)\n"
    "       values      : file path or URL\n"
    "       default     : \n"
    "           The product description published for the previous version.\n"
    "           Every file it had (or had already dropped) that this version\n"
    "           lacks is described as absent, so that an update removes it and\n"
    "           a verification notices it. A description that cannot be read,\n"
    "           or holds no product of this name, fails the command.\n"
    "\n"
    "       attribute   : file\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : \n"
    "           If given, the product description is written to this file (as\n"
    "           '--save target=FILE' would). Nothing is written when the\n"
    "           command fails.\n"
    "\n"
    "       attribute   : compress\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : false\n"
    "           If TRUE, a compressed copy FILE.lzma is written beside 'file'.\n"
    "\n"
    "       attribute   : updateini\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : false\n"
    "           If TRUE, update.ini is written beside 'file' with the lines\n"
    "           VersionOfClientRecommended=VERSION, Product=DISPLAYNAME,\n"
    "           UpdateIsOptional=0|1 and, with 'message', UpdateMessage=TEXT.\n"
    "           Clients compare the recommended version with their own.\n"
    "\n"
    "       attribute   : optional\n"
    "       occurrence  : once (optional)\n"
    "       values      : true | false\n"
    "       default     : true\n"
    "           If FALSE, update.ini says UpdateIsOptional=0: clients of\n"
    "           another version must update before they start.\n"
    "\n"
    "       attribute   : message\n"
    "       occurrence  : once (optional)\n"
    "       values      : String (one line; \\n stands for a line break)\n"
    "       default     : \n"
    "           A text clients show with the question whether to update.\n"
    "\n"
    "       attribute   : updatekey\n"
    "       occurrence  : once (optional)\n"
    "       values      : file path\n"
    "       default     : \n"
    "           An Ed25519 public key in PEM form, shipped with the client as\n"
    "           share/ksdeploy/update-key.pem: clients that have it accept only\n"
    "           descriptions signed with its private key (product.xml.sig).\n"
    "           Publish its content too (--cache action=precache file=KEY).\n"
    "\n"
    "       attribute   : deployer\n"
    "       occurrence  : once (optional)\n"
    "       values      : String\n"
    "       default     : ksdeploy\n"
    "           The program the uninstall entry runs, by path or by a name\n"
    "           found on the PATH. The entry's command uninstalls the product\n"
    "           with the description saved on installation as\n"
    "           ${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}.xml.\n";

namespace
{
const char* const sUninstallKey = "HKEY_CURRENT_USER\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
const char* const sStartMenu = "${WIN_PROGRAMS}";

// Four decimal numbers of 0 to 65535 without leading zeros, so that a version has one spelling
// and clients can compare versions as texts.
bool versionIsValid(const QString& inVersion)
{
    static const QRegularExpression sForm(QStringLiteral("^(0|[1-9][0-9]{0,4})(\\.(0|[1-9][0-9]{0,4})){3}$"));
    if (!sForm.match(inVersion).hasMatch())
        return false;
    for (const QString& part : inVersion.split(QLatin1Char('.')))
        if (part.toInt() > 65535)
            return false;
    return true;
}

bool hasControlCharacter(const QString& inText)
{
    for (const QChar c : inText)
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            return true;
    return false;
}

// A text inside double quotes of the uninstall command line (shell rules, nothing expanded).
QString doubleQuoted(const QString& inText)
{
    QString out = QStringLiteral("\"");
    for (const QChar c : inText)
    {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\') || c == QLatin1Char('$') || c == QLatin1Char('`'))
            out += QLatin1Char('\\');
        out += c;
    }
    return out + QLatin1Char('"');
}

// The path below inRoot of a resource named inName in inDir ("bin/app"); empty when inDir does
// not lie below inRoot.
QString relativePath(const QString& inName, McHandle<ResourceFileDirectory> inDir, const ResourceFileDirectory* inRoot)
{
    QStringList parts(inName);
    // A loaded description may link folders in a circle: the walk is bounded.
    for (int64_t guard = 0; inDir.isNotNull() && guard < 100000; ++guard)
    {
        if (inDir.ptr() == inRoot)
            return parts.join(QLatin1Char('/'));
        parts.prepend(inDir->name());
        inDir = inDir->container();
    }
    return QString();
}

QString relativePath(const ResourceFileEntry& inEntry, const ResourceFileDirectory* inRoot)
{
    return relativePath(inEntry.name(), inEntry.container(), inRoot);
}

// The folder tree the command works on: one root folder, its folders and file entries.
struct Tree
{
    McHandle<ResourceFileDirectory> root;
    McDArray<McHandle<ResourceFileDirectory>> dirs;
    McDArray<McHandle<ResourceFileEntry>> files;
};

McResult treeFromPool(Tree& outTree)
{
    McResult retVal;
    McDArray<McHandle<Resource>> all;
    Engine::instance().resources(all);
    QStringList roots;
    for (const McHandle<Resource>& r : all)
    {
        if (ResourceFileDirectory* dir = dynamic_cast<ResourceFileDirectory*>(r.ptr()))
        {
            outTree.dirs.append(McHandle<ResourceFileDirectory>(dir));
            if (dir->container().isNull())
            {
                outTree.root = dir;
                roots.append(dir->name());
            }
        }
        else if (ResourceFileEntry* entry = dynamic_cast<ResourceFileEntry*>(r.ptr()))
            outTree.files.append(McHandle<ResourceFileEntry>(entry));
        else if (ResourceProduct* product = dynamic_cast<ResourceProduct*>(r.ptr()))
        {
            MC_CHECK_TEXT(retVal, false, "dynamic_cast<ResourceProduct*>(r.ptr()) == 0",
                          QStringLiteral("the resource pool already holds the product '%1'; generate the folder "
                                         "tree without 'product='")
                              .arg(product->name()));
            return retVal;
        }
        else
        {
            MC_CHECK_TEXT(retVal, false, "resource is a folder or a file entry",
                          QStringLiteral("the resource pool holds '%1', which is neither a folder nor a file; "
                                         "expected a tree made by --generate type=directory")
                              .arg(r->name()));
            return retVal;
        }
    }
    if (MC_CHECK(retVal, roots.size() == 1,
                 roots.isEmpty() ? QStringLiteral("the resource pool holds no folder tree; run --generate "
                                                  "type=directory path=BUILD_OUTPUT first")
                                 : QStringLiteral("the resource pool holds %1 folder trees (%2); expected one")
                                       .arg(roots.size())
                                       .arg(roots.join(QStringLiteral(", ")))))
        return retVal;
    return retVal;
}

// The one file entry of that name anywhere in the tree.
McResult findOne(const Tree& inTree, const QString& inName, McHandle<ResourceFileEntry>& outEntry)
{
    McResult retVal;
    QStringList places;
    for (const McHandle<ResourceFileEntry>& f : inTree.files)
        if (f->name() == inName)
        {
            outEntry = f;
            places.append(relativePath(*f, inTree.root.ptr()));
        }
    if (MC_CHECK(retVal, places.size() == 1,
                 places.isEmpty()
                     ? QStringLiteral("the folder tree holds no file '%1'").arg(inName)
                     : QStringLiteral("the folder tree holds '%1' %2 times (%3); expected once")
                           .arg(inName)
                           .arg(places.size())
                           .arg(places.join(QStringLiteral(", ")))))
        return retVal;
    return retVal;
}

// The reader keeps what it read before an error, so a cut-off description would look like one
// with fewer files: the whole document is checked first.
McResult wellFormed(const QString& inPath, const QString& inShownName)
{
    McResult retVal;
    QFile file(inPath);
    if (MC_CHECK_DETAIL(retVal, file.open(QIODevice::ReadOnly),
                        QStringLiteral("previous description '%1' cannot be read").arg(inShownName),
                        mcMessageText(QStringLiteral("%1: %2").arg(inShownName, file.errorString()))))
        return retVal;
    QXmlStreamReader reader(&file);
    while (!reader.atEnd() && !reader.hasError())
        if (reader.readNext() == QXmlStreamReader::DTD)
            reader.raiseError(QStringLiteral("document type declarations are not read"));
    MC_CHECK_DETAIL(retVal, !reader.hasError(),
                    QStringLiteral("previous description '%1' is not a whole XML document").arg(inShownName),
                    mcMessageText(QStringLiteral("%1: line %2: %3")
                                      .arg(inShownName)
                                      .arg(reader.lineNumber())
                                      .arg(reader.errorString())));
    return retVal;
}

// Every file the previous description had below its application folder, absent ones included,
// so that a client that skipped a version still loses what that version dropped. The loaded
// resources leave the pool again on every path.
McResult previousFiles(const QString& inSource, const QString& inProductName, QSet<QString>& outFiles)
{
    McResult retVal;
    QString path = inSource;
    QTemporaryFile download;
    if (inSource.contains(QStringLiteral("://")))
    {
        if (MC_CHECK(retVal, download.open(),
                     QStringLiteral("unable to create a temporary file for %1").arg(inSource)))
            return retVal;
        download.close();
        path = QFileInfo(download.fileName()).absoluteFilePath();
        retVal << Cache::loadFileHTTP(path, inSource, McLib::MD5());
        if (retVal.isBad())
            return retVal;
    }
    else
    {
        const QFileInfo info(path);
        if (MC_CHECK_DETAIL(retVal, info.isFile(), QStringLiteral("previous description '%1' cannot be read").arg(path),
                            McLib::osDetail(mcMessageText(path), info.exists() ? EISDIR : ENOENT)))
            return retVal;
    }

    retVal << wellFormed(path, inSource);
    if (retVal.isBad())
        return retVal;

    McDArray<McHandle<Resource>> loaded;
    XmlSerializer serializer;
    retVal << serializer.deserialize(path, loaded);
    struct Unload
    {
        McDArray<McHandle<Resource>>& list;
        ~Unload()
        {
            for (const McHandle<Resource>& r : list)
                Engine::instance().resourceUnregister(r);
        }
    } unload{loaded};
    if (retVal.isBad())
    {
        MC_CHECK(retVal, false, QStringLiteral("previous description '%1' is not a product description").arg(inSource));
        return retVal;
    }

    ResourceFileDirectory* appDir = nullptr;
    for (const McHandle<Resource>& r : loaded)
        if (ResourceProduct* product = dynamic_cast<ResourceProduct*>(r.ptr()))
            if (product->name() == inProductName)
                appDir = product->applicationDirectory().ptr();
    if (MC_CHECK(retVal, appDir != nullptr,
                 QStringLiteral("previous description '%1' holds no product '%2' with an application folder")
                     .arg(inSource, inProductName)))
        return retVal;
    for (const McHandle<Resource>& r : loaded)
        if (const ResourceFileEntry* entry = dynamic_cast<const ResourceFileEntry*>(r.ptr()))
        {
            const QString rel = relativePath(*entry, appDir);
            if (!rel.isEmpty())
                outFiles.insert(rel);
        }
    return retVal;
}

McHandle<ResourceRegistryValue> registryValue(const McHandle<ResourceRegistryKey>& inKey, const char* inName,
                                              ResourceRegistryValue::Type inType, const QString& inValue)
{
    McHandle<ResourceRegistryValue> value(new ResourceRegistryValue);
    value->nameSet(QString::fromLatin1(inName));
    value->typeSet(inType);
    value->valueSet(inValue);
    value->containerSet(inKey);
    return value;
}

// The lines of update.ini: what a client compares its version with.
QByteArray updateIni(const QString& inVersion, const QString& inProduct, bool inOptional, const QString& inMessage)
{
    QString text = QStringLiteral("VersionOfClientRecommended=%1\nProduct=%2\nUpdateIsOptional=%3\n")
                       .arg(inVersion, inProduct, inOptional ? QStringLiteral("1") : QStringLiteral("0"));
    if (!inMessage.isEmpty())
        text += QStringLiteral("UpdateMessage=%1\n").arg(inMessage);
    return text.toUtf8();
}

McResult writeWhole(const QString& inPath, const QByteArray& inData)
{
    McResult retVal;
    QSaveFile file(inPath);
    if (MC_CHECK_DETAIL(retVal, file.open(QIODevice::WriteOnly), inPath,
                        mcMessageText(QStringLiteral("%1: %2").arg(inPath, file.errorString()))))
        return retVal;
    if (MC_CHECK_DETAIL(retVal, file.write(inData) == inData.size(), inPath,
                        mcMessageText(QStringLiteral("%1: %2").arg(inPath, file.errorString()))))
        return retVal;
    MC_CHECK_DETAIL(retVal, file.commit(), inPath, mcMessageText(QStringLiteral("%1: %2").arg(inPath, file.errorString())));
    return retVal;
}
}

McResult Command_generateProductXML::execute()
{
    McResult retVal;
    McHandle<Attribute> name, version, displayName, previous, file, compress, updateIniFlag, optional, message,
        deployer, updateKey;
    retVal << attribute1(name, QStringLiteral("name"), true);
    retVal << attribute1(version, QStringLiteral("version"), true);
    retVal << attribute1(displayName, QStringLiteral("displayname"), false);
    retVal << attribute1(previous, QStringLiteral("previous"), false);
    retVal << attribute1(file, QStringLiteral("file"), false);
    retVal << attribute1(compress, QStringLiteral("compress"), false);
    retVal << attribute1(updateIniFlag, QStringLiteral("updateini"), false);
    retVal << attribute1(optional, QStringLiteral("optional"), false);
    retVal << attribute1(message, QStringLiteral("message"), false);
    retVal << attribute1(deployer, QStringLiteral("deployer"), false);
    retVal << attribute1(updateKey, QStringLiteral("updatekey"), false);
    if (retVal.isBad())
        return retVal;

    // Everything is checked before the pool changes or a file is written.
    const QString productName = name->value();
    const QString nameProblem = Resource::nameComponentProblem(productName);
    if (MC_CHECK(retVal, nameProblem.isEmpty() && !productName.contains(QLatin1Char('\\')),
                 QStringLiteral("invalid product name '%1': %2")
                     .arg(productName, nameProblem.isEmpty() ? QStringLiteral("it holds '\\'") : nameProblem)))
        return retVal;
    if (MC_CHECK(retVal, versionIsValid(version->value()),
                 QStringLiteral("invalid version '%1': expected four numbers from 0 to 65535 joined by '.', "
                                "such as 2.1.0.17")
                     .arg(version->value())))
        return retVal;
    const QString shownName = displayName.isNotNull() ? displayName->value() : productName;
    if (MC_CHECK(retVal, !shownName.trimmed().isEmpty() && !hasControlCharacter(shownName),
                 QStringLiteral("invalid display name '%1': it must be one line of text").arg(shownName)))
        return retVal;
    const QString messageText = message.isNotNull() ? message->value() : QString();
    if (MC_CHECK(retVal, !hasControlCharacter(messageText),
                 QStringLiteral("invalid message: it must be one line of text (\\n stands for a line break)")))
        return retVal;
    const QString deployerPath = deployer.isNotNull() ? deployer->value() : QStringLiteral("ksdeploy");
    if (MC_CHECK(retVal, !deployerPath.trimmed().isEmpty() && !hasControlCharacter(deployerPath),
                 QStringLiteral("invalid deployer '%1'").arg(deployerPath)))
        return retVal;
    for (const McHandle<Attribute>& flag : {compress, updateIniFlag, optional})
        if (MC_CHECK(retVal,
                     flag.isNull() || flag->value() == QLatin1String("true") || flag->value() == QLatin1String("false"),
                     QStringLiteral("invalid value '%1' of attribute '%2': expected true or false")
                         .arg(flag.isNull() ? QString() : flag->value(), flag.isNull() ? QString() : flag->name())))
            return retVal;
    const bool writeIni = commandFlag(updateIniFlag);
    if (MC_CHECK(retVal, !(writeIni || commandFlag(compress)) || file.isNotNull(),
                 QStringLiteral("attributes 'updateini' and 'compress' need the attribute 'file'")))
        return retVal;
    if (file.isNotNull())
        if (MC_CHECK(retVal, !file->value().isEmpty() && !QFileInfo(file->value()).isDir(),
                     QStringLiteral("invalid file '%1': expected the path of the description to write")
                         .arg(file->value())))
            return retVal;

    // The public key clients check descriptions with: never anything that holds a private key.
    QByteArray keyBytes;
    if (updateKey.isNotNull())
    {
        QFile keyFile(updateKey->value());
        if (MC_CHECK_DETAIL(retVal, keyFile.open(QIODevice::ReadOnly) && keyFile.size() <= 64 * 1024,
                            QStringLiteral("cannot read the update key '%1'").arg(updateKey->value()),
                            McLib::osDetail(QFile::encodeName(updateKey->value()).toStdString(),
                                            keyFile.isOpen() ? EFBIG : errno)))
            return retVal;
        keyBytes = keyFile.readAll();
        if (MC_CHECK(retVal, !keyBytes.contains("PRIVATE KEY"),
                     QStringLiteral("the update key '%1' holds a private key; ship the public key "
                                    "(openssl pkey -in KEY -pubout)")
                         .arg(updateKey->value())))
            return retVal;
        retVal << QxBase::SignatureCheck::keyCheck(keyBytes, updateKey->value());
        if (retVal.isBad())
            return retVal;
    }

    Tree tree;
    retVal << treeFromPool(tree);
    if (retVal.isBad())
        return retVal;
    McHandle<ResourceFileEntry> client;
    McHandle<ResourceFileEntry> launcher;
    retVal << findOne(tree, QString::fromLatin1(PluginKestraClientBuildSystem::sClientExe), client);
    retVal << findOne(tree, QString::fromLatin1(PluginKestraClientBuildSystem::sLauncherExe), launcher);
    if (retVal.isBad())
        return retVal;

    QSet<QString> dropped;
    if (previous.isNotNull())
    {
        retVal << previousFiles(previous->value(), productName, dropped);
        if (retVal.isBad())
            return retVal;
    }

    // The tree becomes the application folder; all of it goes on uninstall.
    tree.root->nameSet(QString::fromLatin1(PluginKestraClientBuildSystem::sApplicationFolder));
    QHash<QString, McHandle<ResourceFileDirectory>> dirByPath;
    dirByPath.insert(QString(), tree.root);
    for (const McHandle<ResourceFileDirectory>& d : tree.dirs)
    {
        d->deleteOnUninstallSet(true);
        if (d != tree.root)
            dirByPath.insert(relativePath(d->name(), d->container(), tree.root.ptr()), d);
    }
    QSet<QString> present;
    for (const McHandle<ResourceFileEntry>& f : tree.files)
    {
        f->deleteOnUninstallSet(true);
        f->absenceSet(false);
        present.insert(relativePath(*f, tree.root.ptr()));
    }
    // The folder at a relative path, made (and removed on uninstall) when the build has none there.
    auto folderEnsure = [&dirByPath](const QString& inAt, const QString& inName,
                                     const McHandle<ResourceFileDirectory>& inContainer) {
        McHandle<ResourceFileDirectory> dir = dirByPath.value(inAt);
        if (dir.isNull())
        {
            dir = new ResourceFileDirectory;
            dir->nameSet(inName);
            dir->containerSet(inContainer);
            dir->deleteOnUninstallSet(true);
            dirByPath.insert(inAt, dir);
        }
        return dir;
    };

    // The key goes to share/ksdeploy/update-key.pem, in place of one the build may hold.
    if (updateKey.isNotNull())
    {
        McHandle<ResourceFileDirectory> container = tree.root;
        QString at;
        for (const QString& part : {QStringLiteral("share"), QStringLiteral("ksdeploy")})
        {
            at = at.isEmpty() ? part : at + QLatin1Char('/') + part;
            if (MC_CHECK(retVal, !present.contains(at),
                         QStringLiteral("the build holds a file '%1' where the update key's folder goes").arg(at)))
                return retVal;
            container = folderEnsure(at, part, container);
        }
        const QString keyPath = at + QStringLiteral("/update-key.pem");
        McHandle<ResourceFileEntry> keyEntry;
        for (const McHandle<ResourceFileEntry>& f : tree.files)
            if (relativePath(*f, tree.root.ptr()) == keyPath)
                keyEntry = f;
        if (keyEntry.isNull())
        {
            keyEntry = new ResourceFileEntry;
            keyEntry->nameSet(QStringLiteral("update-key.pem"));
            keyEntry->containerSet(container);
            keyEntry->deleteOnUninstallSet(true);
            present.insert(keyPath);
        }
        keyEntry->bufferIdSet(BufferID(scanFile(updateKey->value())));
        keyEntry->isExecutableSet(false);
    }

    // What the previous version had and this one lacks is described as absent, in the folders
    // it was in. A path where this version has a folder is left alone: the folder replaces it.
    QStringList droppedSorted(dropped.begin(), dropped.end());
    droppedSorted.sort();
    int absent = 0;
    for (const QString& rel : droppedSorted)
    {
        if (present.contains(rel) || dirByPath.contains(rel))
            continue;
        QStringList parts = rel.split(QLatin1Char('/'));
        const QString fileName = parts.takeLast();
        McHandle<ResourceFileDirectory> container = tree.root;
        QString at;
        bool blocked = false;
        for (const QString& part : parts)
        {
            at = at.isEmpty() ? part : at + QLatin1Char('/') + part;
            if (present.contains(at))
            {
                blocked = true;  // this version has a file where the old one had a folder
                break;
            }
            container = folderEnsure(at, part, container);
        }
        if (blocked)
            continue;
        McHandle<ResourceFileEntry> gone(new ResourceFileEntry);
        gone->nameSet(fileName);
        gone->containerSet(container);
        gone->absenceSet(true);
        gone->deleteOnUninstallSet(true);
        ++absent;
    }

    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet(productName);
    product->applicationDirectorySet(tree.root);

    // The start-menu entry starts the launcher in its own folder. The menu folder is shared.
    McHandle<ResourceFileDirectory> menu(new ResourceFileDirectory);
    menu->nameSet(QString::fromLatin1(sStartMenu));
    menu->deleteOnUninstallSet(false);
    McHandle<ResourceFileShortcut> shortcut(new ResourceFileShortcut);
    shortcut->nameSet(productName + QStringLiteral(".desktop"));
    shortcut->containerSet(menu);
    shortcut->targetSet(launcher);
    shortcut->workingDirSet(launcher->container());
    shortcut->descriptionSet(shownName);
    product->linkAdd(*menu, QStringLiteral("Menu"));

    // The uninstall entry; the shared key above it stays. Its texts name the client's folders by
    // reference: the installing side resolves them (--product action=resolve) before it installs.
    const QString appFolder = QString::fromLatin1(PluginKestraClientBuildSystem::sApplicationFolder);
    McHandle<ResourceRegistryKey> uninstall(new ResourceRegistryKey);
    uninstall->nameSet(QString::fromLatin1(sUninstallKey));
    uninstall->deleteOnUninstallSet(false);
    McHandle<ResourceRegistryKey> entry(new ResourceRegistryKey);
    entry->nameSet(productName);
    entry->containerSet(uninstall);
    const QString uninstallCommand =
        QStringLiteral("%1 --flags quiet=true --load %2 --product action=uninstall %3")
            .arg(doubleQuoted(deployerPath), QStringLiteral("\"file=%1.xml\"").arg(appFolder),
                 doubleQuoted(QStringLiteral("name=") + productName));
    registryValue(entry, "DisplayName", ResourceRegistryValue::TYPE_SZ, shownName);
    registryValue(entry, "DisplayVersion", ResourceRegistryValue::TYPE_SZ, version->value());
    registryValue(entry, "InstallLocation", ResourceRegistryValue::TYPE_SZ, appFolder);
    registryValue(entry, "UninstallString", ResourceRegistryValue::TYPE_SZ, uninstallCommand);
    product->linkAdd(*uninstall, QStringLiteral("Registry"));

    Engine& engine = Engine::instance();
    engine.trace(McLogLevelInfo, QStringLiteral("generateProductXML: product '%1' version %2, %3 files, %4 absent")
                                     .arg(productName, version->value())
                                     .arg(tree.files.size())
                                     .arg(absent));
    if (file.isNull())
        return retVal;

    // The description first: a client that reads update.ini finds the version it names.
    const QString target = file->value();
    McDArray<McHandle<Resource>> resources;
    engine.resources(resources);
    XmlSerializer serializer;
    retVal << serializer.serialize(target, resources);
    if (retVal.isBad())
        return retVal;
    const QString packedPath = target + QStringLiteral(".lzma");
    if (commandFlag(compress))
        retVal << fileCompress(packedPath, target);
    else
    {
        // Clients take a ".lzma" copy first: an old one would hand them the previous version.
        const QByteArray packedName = QFile::encodeName(packedPath);
        const bool noStaleCopy = ::unlink(packedName.constData()) == 0 || errno == ENOENT;
        MC_CHECK_DETAIL(retVal, noStaleCopy, packedPath, McLib::osDetail(packedName.toStdString(), errno));
    }
    if (retVal.isOk() && writeIni)
    {
        const QString iniPath = QFileInfo(target).absoluteDir().filePath(QStringLiteral("update.ini"));
        const bool isOptional = optional.isNull() || commandFlag(optional);
        retVal << writeWhole(iniPath, updateIni(version->value(), shownName, isOptional, messageText));
    }
    return retVal;
}
