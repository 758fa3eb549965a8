#include "ResourceFileDirectory.h"

#include "Engine.h"
#include "QxFile.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>
#include <QStringList>

using namespace KsDeploy;

ResourceFileDirectory::~ResourceFileDirectory() = default;

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
// A link or junction in the place of a directory is never followed.
bool refused(const QString& inPath) { return inPath.isEmpty() || QFileInfo(inPath).isSymLink(); }

McResult bad()
{
    McResult r;
    r.makeBad(1);
    return r;
}
}

McResult ResourceFileDirectory::install()
{
    McResult retVal;
    const QString fullPath = path();
    if (refused(fullPath))
        return bad();
    MC_CHECK(retVal, QxBase::File::makePath(fullPath), "Internal Error");
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
    // Never recursive: a directory that still holds files stays, and says so.
    MC_CHECK(retVal, qDir.rmdir(fullPath), QStringLiteral("failed to remove dir '%1'").arg(fullPath));
    return retVal;
}

McResult ResourceFileDirectory::verify()
{
    McResult retVal;
    const QString fullPath = path();
    if (refused(fullPath))
        return bad();
    QDir qDir(fullPath);
    MC_CHECK(retVal, qDir.exists(), "Internal Error");
    return retVal;
}
