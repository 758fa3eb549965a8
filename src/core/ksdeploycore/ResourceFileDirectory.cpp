#include "ResourceFileDirectory.h"

#include "Engine.h"
#include "QxFile.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QStringList>

#include <cerrno>
#include <cstring>

using namespace KsDeploy;

ResourceFileDirectory::~ResourceFileDirectory() = default;

Resource::NameRule ResourceFileDirectory::nameRule() const { return container().isNull() ? NameFolderRoot : NameFile; }

QString ResourceFileDirectory::path() const
{
    // Every file asks its folder, so a product of many files would walk and resolve the same
    // chain again and again.
    const uint64_t generation = pathGeneration();
    if (mPathMemo.generation == generation)
        return mPathMemo.path;
    // Walked without recursion: a damaged file may chain containers in a circle.
    QStringList parts;
    QSet<const ResourceFileDirectory*> seen;
    McHandle<ResourceFileDirectory> dir(const_cast<ResourceFileDirectory*>(this));
    while (dir.isNotNull())
    {
        McResult cycle;
        if (MC_CHECK_TEXT(cycle, !seen.contains(dir.ptr()), "!seen.contains(dir)",
                          QStringLiteral("directory '%1' contains itself").arg(name())))
            return QString();
        seen.insert(dir.ptr());
        parts.prepend(dir->name());
        dir = dir->container();
    }
    QString ret = parts.join(QLatin1Char('/'));
    const McResult res = Engine::instance().configuration().resolve(ret);
    MC_ASSERT(res.isOk());
    // Only a clean result is kept: a failing one must report again when asked again.
    if (res.isOk() && pathGeneration() == generation)
    {
        mPathMemo.generation = generation;
        mPathMemo.path = ret;
    }
    return ret;
}

namespace
{
// A link or junction in the place of a directory is never followed. The refusal's result has no
// message; what the user reads is reported beside it.
bool refused(const QString& inPath) { return inPath.isEmpty() || Resource::folderIsSymbolicLink(inPath); }

McResult bad()
{
    McResult r;
    r.makeBad(1);
    return r;
}

// Folders are made by the file helpers, which remember the ones they made empty; errno and the
// path concerned say why one could not be made.
struct FolderMaker
{
    mutable QString failed;
    bool mkpath(const QString& inPath) const { return QxBase::File::makePath(inPath, &failed); }
};

// What keeps a folder that cannot be removed: up to five of the names in it.
std::string keptBy(const QString& inPath, int inErrno)
{
    if (inErrno != ENOTEMPTY && inErrno != EEXIST)
        return McLib::osDetail(mcMessageText(inPath), inErrno);
    QDir dir(inPath);
    const QStringList names =
        dir.entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDir::Name);
    QStringList shown = names.mid(0, 5);
    if (names.size() > 5)
        shown.append(QStringLiteral("and %1 more").arg(names.size() - 5));
    return mcMessageText(
        QStringLiteral("%1: %2, still holds %3")
            .arg(inPath, QString::fromLocal8Bit(std::strerror(inErrno)), shown.join(QLatin1String(", "))));
}
}

McResult ResourceFileDirectory::install()
{
    McResult retVal;
    const QString fullPath = path();
    if (refused(fullPath))
        return bad();
    const FolderMaker qDir;
    MC_CHECK_DETAIL(retVal, qDir.mkpath(fullPath), "Internal Error", McLib::osDetail(mcMessageText(qDir.failed), errno));
    return retVal;
}

McResult ResourceFileDirectory::uninstall()
{
    McResult retVal;
    const QString fullPath = path();
    if (refused(fullPath))
        return bad();
    QDir qDir;
    if (!qDir.exists(fullPath))
        return retVal;
    // Never recursive: a directory that still holds files stays, and says which.
    MC_CHECK_DETAIL(retVal, qDir.rmdir(fullPath), QStringLiteral("failed to remove dir '%1'").arg(fullPath),
                    keptBy(fullPath, errno));
    return retVal;
}

McResult ResourceFileDirectory::verify()
{
    McResult retVal;
    const QString fullPath = path();
    if (refused(fullPath))
        return bad();
    QDir qDir(fullPath);
    MC_CHECK_DETAIL(retVal, qDir.exists(), "Internal Error",
                    McLib::osDetail(mcMessageText(fullPath), QFileInfo::exists(fullPath) ? ENOTDIR : ENOENT));
    return retVal;
}
