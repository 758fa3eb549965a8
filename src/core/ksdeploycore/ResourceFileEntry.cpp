#include "ResourceFileEntry.h"

#include "Cache.h"
#include "Common.h"
#include "Engine.h"
#include "QxFile.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <sys/stat.h>

using namespace KsDeploy;

namespace
{
std::string linkDetail(const QString& inPath)
{
    return mcMessageText(QStringLiteral("%1: a symbolic link; links are never followed").arg(inPath));
}
}

// An "Internal Error" step whose condition is spelt as written against a fresh file object,
// while the code asks the one it already holds; the line under it is built only on failure.
#define KS_CHECK_AS(RESULT, OK, COND_TEXT, DETAIL)                                                                     \
    (static_cast<bool>(OK) ? false                                                                                     \
                           : ::McLib::checkStep((RESULT), false, __LINE__, __FILE__, __PRETTY_FUNCTION__,              \
                                                "Internal Error", "cond[" COND_TEXT "]", false, (DETAIL)))

ResourceFileEntry::~ResourceFileEntry() = default;

Resource::NameRule ResourceFileEntry::nameRule() const { return NameFile; }

const Resource::PropertyTable& ResourceFileEntry::properties() const
{
    static const PropertyTable sTable = [this] {
        PropertyTable t = Resource::properties();
        propertyTableInsert(t, "MD5",
                            new Property<Resource, ResourceFileEntry, BufferID>(
                                "MD5", -720, &ResourceFileEntry::bufferId, &ResourceFileEntry::bufferIdSet));
        propertyTableInsert(t, "Executable",
                            new Property<Resource, ResourceFileEntry, bool>("Executable", 0,
                                                                            &ResourceFileEntry::isExecutable,
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

McResult ResourceFileEntry::install()
{
    McResult retVal;
    const QString fullPath = path();
    if (MC_CHECK(retVal, !fullPath.isEmpty(), "Internal Error"))
        return retVal;
    if (absence())
    {
        if (MC_CHECK_DETAIL(retVal, !QFileInfo(fullPath).isSymLink(), "Internal Error", linkDetail(fullPath)))
            return retVal;
        return QxBase::File::removeFile(fullPath);
    }
    if (MC_CHECK(retVal, bufferId().isValid(), "Internal Error"))
        return retVal;
    // A file this run has hashed already (an install over an installed product): one look at
    // the path says whether it is still that content.
    QxBase::FileStamp stamp;
    McLib::MD5 known;
    if (QxBase::File::stampOfEntry(fullPath, stamp) && scanFileKnown(fullPath, stamp, known) &&
        known == bufferId().md5())
    {
        executableMake(fullPath);
        return retVal;
    }
    // Where nothing is yet, the file is written at once; whatever is there is looked at first.
    Cache& cache = Engine::instance().cache();
    bool existed = false;
    retVal << cache.itemCreateFile(bufferId(), fullPath, existed);
    if (existed)
    {
        if (MC_CHECK_DETAIL(retVal, !QFileInfo(fullPath).isSymLink(), "Internal Error", linkDetail(fullPath)))
            return retVal;
        retVal << cache.itemWriteOverFile(bufferId(), fullPath, true);
    }
    if (retVal.isOk())
        executableMake(fullPath);
    return retVal;
}

bool ResourceFileEntry::installPlan(QString& outItem, QString& outTarget) const
{
    if (absence() || !bufferId().isValid())
        return false;
    outTarget = path();
    if (outTarget.isEmpty())
        return false;
    // A shared item's file is linked, not copied: that is no work for the writing threads.
    if (Engine::instance().cache().itemIsShared(bufferId()))
        return false;
    outItem = Engine::instance().cache().itemFilePath(bufferId());
    return true;
}

void ResourceFileEntry::installCreated(const QString& inTarget, const QxBase::FileStamp& inStamp)
{
    scanFileRemember(inTarget, bufferId().md5(), inStamp);
    installedFileTag(inTarget, bufferId().md5(), inStamp);
    executableMake(inTarget);
}

void ResourceFileEntry::executableMake(const QString& inPath) const
{
    if (!isExecutable())
        return;
    // Linux keeps executability in the file's mode; without it the program could not start.
    const QFile::Permissions p = QFile::permissions(inPath);
    const QFile::Permissions exec = QFile::ExeOwner | QFile::ExeUser | QFile::ExeGroup | QFile::ExeOther;
    if ((p & exec) != exec)
        QFile::setPermissions(inPath, p | exec);
}

McResult ResourceFileEntry::uninstall()
{
    if (!deleteOnUninstall())
        return McResult();
    return QxBase::File::removeFile(path());
}

void ResourceFileEntry::absenceFound()
{
    absenceSet(true);
    bufferIdSet(BufferID());
    isExecutableSet(false);
}

McResult ResourceFileEntry::scan()
{
    McResult retVal;
    const QString fullPath = path();
    // One look at the path serves the link check, existence and the mode: the mode's execute
    // bits say all there is (asking whether this user may run it would cost a call per file).
    struct stat st;
    const bool there = !fullPath.isEmpty() && ::lstat(QFile::encodeName(fullPath).constData(), &st) == 0;
    if (!MC_CHECK(retVal, !fullPath.isEmpty(), "Internal Error") &&
                                            !KS_CHECK_AS(retVal, !(there && S_ISLNK(st.st_mode)),
                                                         "!QFileInfo(fullPath).isSymLink()", linkDetail(fullPath)))
    {
        if (!there)
            absenceFound();
        else
        {
            absenceSet(false);
            const BufferID scanned(scanFile(fullPath));
            if (!MC_CHECK_TEXT(retVal, scanned.isValid(), "md5.isValid()", "Internal Error"))
                bufferIdSet(scanned);
            isExecutableSet((st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0);
        }
    }
    if (retVal.isBad())
        absenceFound();
    return retVal;
}

McResult ResourceFileEntry::verify()
{
    McResult retVal;
    const QString fullPath = path();
    if (MC_CHECK(retVal, !fullPath.isEmpty(), "Internal Error"))
        return retVal;
    // One look at the path answers both questions.
    const QFileInfo info(fullPath);
    if (KS_CHECK_AS(retVal, !info.isSymLink(), "!QFileInfo(fullPath).isSymLink()", linkDetail(fullPath)))
        return retVal;
    if (absence())
    {
        KS_CHECK_AS(retVal, !info.exists(), "!qFile.exists()",
                    mcMessageText(QStringLiteral("%1: present, where nothing may be").arg(fullPath)));
        return retVal;
    }
    if (KS_CHECK_AS(retVal, info.exists(), "qFile.exists()", McLib::osDetail(mcMessageText(fullPath), ENOENT)))
        return retVal;
    const McLib::MD5 md5Scanned = scanFile(fullPath);
    MC_CHECK_DETAIL(retVal, md5Scanned==bufferId().md5(), "Internal Error",
                    mcMessageText(QStringLiteral("%1: content differs (MD5 %2, expected %3)")
                                      .arg(fullPath, BufferID(md5Scanned).toString(), bufferId().toString())));
    return retVal;
}
