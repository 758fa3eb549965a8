#include "Generator.h"

#include "Common.h"
#include "Engine.h"
#include "Progress.h"
#include "ResourceFileEntry.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

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

McResult generate(McHandle<ResourceFileDirectory>& outDirectory, McDArray<McHandle<Resource>>& outResources,
                  const QString& inDirPath, bool inRecursive, const QStringList& inFilters, const QStringList& inExcludes)
{
    McResult retVal;
    Engine& engine = Engine::instance();
    engine.trace(McLogLevelInfo, QStringLiteral("scan: %1").arg(inDirPath));
    QDir dir(inDirPath);
    if (MC_CHECK(retVal, dir.exists(), QStringLiteral("directory '%1' does not exist").arg(inDirPath)))
        return retVal;
    outDirectory = new ResourceFileDirectory;
    outResources.append(McHandle<Resource>(outDirectory.ptr()));

    dir.setNameFilters(inFilters);
    dir.setSorting(QDir::Name);
    const QFileInfoList files = dir.entryInfoList(QDir::Files | QDir::NoSymLinks);
    for (const QFileInfo& fi : files)
    {
        MC_ASSERT(fi.isFile());
        if (excluded(fi.fileName(), inExcludes))
            continue;
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
    const QFileInfoList dirs = dir.entryInfoList(QDir::AllDirs | QDir::NoDotAndDotDot | QDir::NoSymLinks);
    for (const QFileInfo& fi : dirs)
    {
        MC_ASSERT(fi.isDir());
        if (excluded(fi.fileName(), inExcludes))
            continue;
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
