#include "Generator.h"

#include "Common.h"
#include "Engine.h"
#include "Progress.h"
#include "RegistryStore.h"
#include "ResourceFileEntry.h"
#include "ResourceRegistryValue.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <cerrno>
#include <sys/stat.h>

using namespace KsDeploy;

namespace
{
bool excluded(const QString& inName, const QStringList& inExcludes)
{
    for (const QString& p : inExcludes)
        if (QRegularExpression(QRegularExpression::wildcardToRegularExpression(p)).match(inName).hasMatch())
            return true;
    return false;
}

// Why an entry cannot go into a description, or the empty text when it can. A description holds
// directories and regular files only: a link would be installed as a copy of whatever it points
// to (or escape the tree), a hidden entry is usually a tool's leftover, a special file has no
// content to keep.
QString skipReason(const QFileInfo& inInfo, bool inDirectory)
{
    if (inInfo.isSymLink())
        return QStringLiteral("symbolic link");
    if (inInfo.fileName().startsWith(QLatin1Char('.')))
        return QStringLiteral("hidden");
    if (inDirectory ? !inInfo.isDir() : !inInfo.isFile())
        return QStringLiteral("special file");
    return QString();
}

// "path: reason" for a directory that cannot be listed.
std::string dirDetail(const QString& inDirPath)
{
    const QByteArray name = QFile::encodeName(inDirPath);
    struct stat info;
    if (::stat(name.constData(), &info) != 0)
        return McLib::osDetail(name.toStdString(), errno);
    return McLib::osDetail(name.toStdString(), S_ISDIR(info.st_mode) ? EACCES : ENOTDIR);
}

McResult generate(McHandle<ResourceFileDirectory>& outDirectory, McDArray<McHandle<Resource>>& outResources,
                  const QString& inDirPath, bool inRecursive, const QStringList& inFilters,
                  const QStringList& inExcludes)
{
    McResult retVal;
    Engine& engine = Engine::instance();
    engine.trace(McLogLevelInfo, QStringLiteral("scan: %1").arg(inDirPath));
    QDir dir(inDirPath);
    if (MC_CHECK_DETAIL(retVal, dir.exists(), "Internal Error", dirDetail(inDirPath)))
        return retVal;
    // A folder we may not list would silently give an empty description.
    if (MC_CHECK_DETAIL(retVal, dir.isReadable(), "Internal Error", dirDetail(inDirPath)))
        return retVal;
    outDirectory = new ResourceFileDirectory;
    outResources.append(McHandle<Resource>(outDirectory.ptr()));

    dir.setNameFilters(inFilters);
    dir.setSorting(QDir::Name);
    // Hidden, system and linked entries are listed too, so that each one left out is named.
    const QFileInfoList files = dir.entryInfoList(QDir::Files | QDir::Hidden | QDir::System);
    for (const QFileInfo& fi : files)
    {
        if (excluded(fi.fileName(), inExcludes))
            continue;
        const QString skipped = skipReason(fi, false);
        if (!skipped.isEmpty())
        {
            engine.trace(McLogLevelInfo, QStringLiteral("  skipped %1 (%2)").arg(fi.fileName(), skipped));
            continue;
        }
        MC_ASSERT(fi.isFile());
        engine.trace(McLogLevelInfo, QStringLiteral("  found %1").arg(fi.fileName()));
        McHandle<ResourceFileEntry> entry(new ResourceFileEntry);
        entry->nameSet(fi.fileName());
        entry->containerSet(outDirectory);
        const McLib::MD5 md5 = scanFile(fi.absoluteFilePath());
        if (MC_CHECK(retVal, !md5.isNull(), QStringLiteral("cannot read '%1'").arg(fi.absoluteFilePath())))
            return retVal;
        entry->bufferIdSet(BufferID(md5));
        // Any execute bit makes the file executable.
        const QFile::Permissions p = fi.permissions();
        entry->isExecutableSet(p & (QFile::ExeOwner | QFile::ExeUser | QFile::ExeGroup | QFile::ExeOther));
        outResources.append(McHandle<Resource>(entry.ptr()));
    }
    if (!inRecursive)
        return retVal;
    dir.setNameFilters(QStringList());
    const QFileInfoList dirs = dir.entryInfoList(QDir::AllDirs | QDir::NoDotAndDotDot | QDir::Hidden);
    for (const QFileInfo& fi : dirs)
    {
        if (excluded(fi.fileName(), inExcludes))
            continue;
        const QString skipped = skipReason(fi, true);
        if (!skipped.isEmpty())
        {
            engine.trace(McLogLevelInfo, QStringLiteral("  skipped %1 (%2)").arg(fi.fileName(), skipped));
            continue;
        }
        MC_ASSERT(fi.isDir());
        McHandle<ResourceFileDirectory> sub;
        const McResult ret = generate(sub, outResources, fi.absoluteFilePath(), true, inFilters, inExcludes);
        if (MC_CHECK(retVal, ret.isOk(), "Internal Error"))
            return retVal;
        sub->nameSet(fi.fileName());
        sub->containerSet(outDirectory);
    }
    return retVal;
}
}

McResult Generator::generateFromDirectory(McHandle<ResourceFileDirectory>& outDirectory,
                                          McDArray<McHandle<Resource>>& outResources, const QString& inDirPath,
                                          bool inRecursive, const QStringList& inFilters, const QStringList& inExcludes)
{
    Engine::instance().progress().taskStartNext(
        QCoreApplication::translate("KsDeploy::Generator", "Generate from Directory"));
    return generate(outDirectory, outResources, inDirPath, inRecursive, inFilters, inExcludes);
}

namespace
{
McResult generateRegistry(const McHandle<ResourceRegistryKey>& inKey, McDArray<McHandle<Resource>>& outResources,
                          bool inRecursive)
{
    McResult retVal;
    Engine& engine = Engine::instance();
    engine.trace(McLogLevelInfo, QStringLiteral("scan: %1").arg(inKey->path()));
    McDArray<McHandle<ResourceRegistryValue>> values;
    retVal << inKey->queryValues(values);
    if (retVal.isBad())
        return retVal;
    for (int64_t i = 0; i < values.size(); ++i)
    {
        engine.trace(McLogLevelInfo, QStringLiteral("  found value [%1]").arg(values[i]->name()));
        values[i]->containerSet(inKey);
        outResources.append(McHandle<Resource>(values[i].ptr()));
    }
    if (!inRecursive)
        return retVal;
    McDArray<McHandle<ResourceRegistryKey>> keys;
    retVal << inKey->querySubKeys(keys);
    if (retVal.isBad())
        return retVal;
    for (int64_t i = 0; i < keys.size(); ++i)
    {
        engine.trace(McLogLevelInfo, QStringLiteral("  found key [%1]").arg(keys[i]->name()));
        keys[i]->containerSet(inKey);
        outResources.append(McHandle<Resource>(keys[i].ptr()));
        retVal << generateRegistry(keys[i], outResources, true);
        if (retVal.isBad())
            return retVal;
    }
    return retVal;
}
}

McResult Generator::generateFromRegistry(const McHandle<ResourceRegistryKey>& inKey,
                                         McDArray<McHandle<Resource>>& outResources, bool inRecursive)
{
    McResult retVal;
    Engine::instance().progress().taskStartNext(
        QCoreApplication::translate("KsDeploy::Generator", "Generate from Registry Key"));
    if (MC_CHECK(retVal, inKey.isNotNull(), "Internal Error"))
        return retVal;
    const int64_t sizeBefore = outResources.size();
    retVal << generateRegistry(inKey, outResources, inRecursive);
    if (retVal.isBad())
    {
        // The caller's array as it was, and none of the half-read resources left in the pool.
        while (outResources.size() > sizeBefore)
        {
            Engine::instance().resourceUnregister(outResources[outResources.size() - 1]);
            outResources.removeLast();
        }
    }
    return retVal;
}

McResult Generator::registryKeyChain(const QString& inKeyPath, McDArray<McHandle<Resource>>& outResources,
                                     McHandle<ResourceRegistryKey>& outKey)
{
    McResult retVal;
    KsPlatform::RegistryRoot root;
    std::string subPath;
    if (MC_CHECK_TEXT(retVal, RegistryStore::splitPath(inKeyPath, root, subPath), "hkeyCurr!=((HKEY)(LONG_PTR)-1)",
                      QStringLiteral("registry key '%1' does not start with one of HKEY_CLASSES_ROOT, "
                                     "HKEY_CURRENT_CONFIG, HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, HKEY_USERS")
                          .arg(inKeyPath)))
        return retVal;
    const QStringList names = inKeyPath.split(QLatin1Char('\\'));
    for (const QString& name : names)
        if (MC_CHECK(retVal, !name.isEmpty(), QStringLiteral("registry key '%1' has an empty key name").arg(inKeyPath)))
            return retVal;
    McHandle<ResourceRegistryKey> parent;
    for (const QString& name : names)
    {
        McHandle<ResourceRegistryKey> key(new ResourceRegistryKey);
        key->nameSet(name);
        if (parent.isNotNull())
            key->containerSet(parent);
        outResources.append(McHandle<Resource>(key.ptr()));
        parent = key;
    }
    outKey = parent;
    return retVal;
}
