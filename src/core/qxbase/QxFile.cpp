#include "QxFile.h"

#include "FileCopy.h"
#include "TemporaryOwner.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSet>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QxBase
{
McResult File::removeFile(const QString& inPath)
{
    McResult retVal;
    const QFileInfo info(inPath);
    if (!info.exists() && !info.isSymLink())
        return retVal;
    MC_CHECK(retVal, !info.isDir() || info.isSymLink(), QStringLiteral("'%1' is a directory, not a file").arg(inPath));
    if (retVal.isBad())
        return retVal;
    // Removed by the system call itself, so that errno says why on the line under the message.
    const QByteArray name = QFile::encodeName(inPath);
    MC_CHECK_DETAIL(retVal, ::unlink(name.constData()) == 0, QStringLiteral("failed to remove file '%1'").arg(inPath),
                    McLib::osDetail(name.toStdString(), errno));
    return retVal;
}

namespace
{
bool matchesAny(const QString& inName, const QStringList& inPatterns)
{
    for (const QString& p : inPatterns)
        if (QRegularExpression(QRegularExpression::wildcardToRegularExpression(p)).match(inName).hasMatch())
            return true;
    return false;
}
}

McResult File::removeDir(const QString& inPath, bool inRecursive, const QStringList& inInclude,
                         const QStringList& inExclude)
{
    McResult retVal;
    QDir dir(inPath);
    if (!dir.exists())
        return retVal;
    const QFileInfoList entries =
        dir.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
    for (const QFileInfo& fi : entries)
    {
        if (fi.isDir() && !fi.isSymLink())
        {
            if (inRecursive)
                retVal << removeDir(fi.absoluteFilePath(), true, inInclude, inExclude);
            continue;
        }
        if (!inInclude.isEmpty() && !matchesAny(fi.fileName(), inInclude))
            continue;
        if (matchesAny(fi.fileName(), inExclude))
            continue;
        retVal << removeFile(fi.absoluteFilePath());
    }
    // The folder goes only when nothing was kept in it.
    if (dir.isEmpty(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System))
        MC_CHECK_WIN(retVal, QDir().rmdir(inPath), QStringLiteral("failed to remove dir '%1'").arg(inPath));
    return retVal;
}

McResult File::writeAll(QFile& inFile, const char* inData, qint64 inSize)
{
    McResult retVal;
    qint64 done = 0;
    while (done < inSize)
    {
        const qint64 n = inFile.write(inData + done, inSize - done);
        if (MC_CHECK(retVal, n > 0, QStringLiteral("failed to write '%1': %2").arg(inFile.fileName(), inFile.errorString())))
            return retVal;
        done += n;
    }
    if (MC_CHECK(retVal, inFile.flush(), QStringLiteral("failed to write '%1': %2").arg(inFile.fileName(), inFile.errorString())))
        return retVal;
    return retVal;
}

McResult File::writeAll(QFile& inFile, const QByteArray& inData)
{
    return writeAll(inFile, inData.constData(), inData.size());
}

bool File::pathsPointToTheSameFile(const QString& inPathA, const QString& inPathB)
{
    struct stat a, b;
    const QByteArray pa = QFile::encodeName(inPathA), pb = QFile::encodeName(inPathB);
    if (::stat(pa.constData(), &a) == 0 && ::stat(pb.constData(), &b) == 0)
        return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
    return QDir::cleanPath(QFileInfo(inPathA).absoluteFilePath()) ==
           QDir::cleanPath(QFileInfo(inPathB).absoluteFilePath());
}

McResult File::junctionCreate(const QString& inSource, const QString& inTarget)
{
    McResult retVal;
    const QFileInfo source(inSource);
    if (MC_CHECK(retVal, !source.exists() && !source.isSymLink(),
                 QStringLiteral("'%1' already exists; a link is never put over it").arg(inSource)))
        return retVal;
    if (MC_CHECK(retVal, QFileInfo(inTarget).isDir(), QStringLiteral("link target '%1' is not a directory").arg(inTarget)))
        return retVal;
    const QString target = QFileInfo(inTarget).absoluteFilePath();
    MC_CHECK_WIN(retVal, ::symlink(QFile::encodeName(target).constData(), QFile::encodeName(inSource).constData()) == 0,
                 QStringLiteral("failed to create link '%1' -> '%2'").arg(inSource, target));
    return retVal;
}

QString File::temporaryPathBeside(const QString& inPath)
{
    const QFileInfo info(inPath);
    // The writer's process id, so that a sweep of left-overs can tell whether the writer is gone.
    return QStringLiteral("%1/.%2.%3.%4.part")
        .arg(info.absolutePath(), info.fileName())
        .arg(static_cast<qint64>(KsPlatform::TemporaryOwner::self()))
        .arg(QRandomGenerator::global()->generate64(), 16, 16, QLatin1Char('0'));
}

namespace
{
void stampFrom(const struct stat& inSt, FileStamp& outStamp)
{
    outStamp.size = inSt.st_size;
    outStamp.mtimeNs = static_cast<qint64>(inSt.st_mtim.tv_sec) * 1000000000 + inSt.st_mtim.tv_nsec;
    outStamp.inode = inSt.st_ino;
    outStamp.device = inSt.st_dev;
}

int openSource(const QString& inSource, struct stat& outSt)
{
    int in = File::openForReading(inSource);
    if (in >= 0 && ::fstat(in, &outSt) != 0)
    {
        ::close(in);
        in = -1;
    }
    return in;
}

// Copies into inOut and closes inIn; inOut stays open for the caller to put in place. The stamp
// is taken now, when the content is final.
bool copyInto(int inIn, const struct stat& inSt, int inOut, FileStamp* outStamp)
{
    const bool ok = KsPlatform::FileCopy::content(inIn, inSt, inOut);
    ::close(inIn);
    if (ok && outStamp && !File::stampOf(inOut, *outStamp))
        *outStamp = FileStamp();
    return ok;
}
}

int File::openForReading(const QString& inPath)
{
    const QByteArray name = QFile::encodeName(inPath);
    int fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC);
    return fd;
}

bool File::stampOf(int inFd, FileStamp& outStamp)
{
    struct stat st;
    if (::fstat(inFd, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    stampFrom(st, outStamp);
    return true;
}

bool File::stampOf(const QString& inPath, FileStamp& outStamp)
{
    struct stat st;
    if (::stat(QFile::encodeName(inPath).constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    stampFrom(st, outStamp);
    return true;
}

bool File::stampOfEntry(const QString& inPath, FileStamp& outStamp)
{
    struct stat st;
    if (::lstat(QFile::encodeName(inPath).constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    stampFrom(st, outStamp);
    return true;
}

McResult File::copyReplace(const QString& inSource, const QString& inTarget, FileStamp* outStamp)
{
    McResult retVal;
    const QString temp = temporaryPathBeside(inTarget);
    const QByteArray tmp = QFile::encodeName(temp);
    struct stat st;
    const int in = openSource(inSource, st);
    if (MC_CHECK_WIN(retVal, in >= 0, QStringLiteral("failed to read '%1'").arg(inSource)))
        return retVal;
    const int out = ::open(tmp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, (st.st_mode & 0777) | 0600);
    if (MC_CHECK_WIN(retVal, out >= 0, QStringLiteral("failed to write '%1'").arg(inTarget)))
    {
        ::close(in);
        return retVal;
    }
    bool ok = copyInto(in, st, out, outStamp);
    ok = (::close(out) == 0) && ok;
    if (ok)
        ok = ::rename(tmp.constData(), QFile::encodeName(inTarget).constData()) == 0;
    if (!ok)
        ::unlink(tmp.constData());
    MC_CHECK_WIN(retVal, ok, QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(inSource, inTarget));
    return retVal;
}

namespace
{
QSet<QString>& foldersMadeEmpty()
{
    static QSet<QString> sFolders;
    return sFolders;
}

QString folderOf(const QString& inPath)
{
    const qsizetype slash = inPath.lastIndexOf(QLatin1Char('/'));
    return slash > 0 ? inPath.left(slash) : slash == 0 ? QStringLiteral("/") : QFileInfo(inPath).absolutePath();
}

// In a folder this process made, nothing was there; the final link still refuses a newcomer.
bool mustLookFirst(const QString& inTarget) { return !foldersMadeEmpty().contains(folderOf(inTarget)); }
}

namespace
{
// A failed step of makePath: errno kept, the path concerned handed out. A file in the way is
// named itself, not the folder below it that could not be looked at.
bool makePathFailed(const QString& inAt, QString* outFailed)
{
    const int why = errno;
    if (outFailed)
    {
        *outFailed = inAt;
        struct stat st;
        if (why == ENOTDIR)
            for (QString up = inAt; up != folderOf(up); up = folderOf(up))
                if (::stat(QFile::encodeName(up).constData(), &st) == 0)
                {
                    if (!S_ISDIR(st.st_mode))
                        *outFailed = up;
                    break;
                }
    }
    errno = why;
    return false;
}
}

bool File::makePath(const QString& inPath, QString* outFailed)
{
    QStringList missing;
    QString at = QDir::cleanPath(inPath);
    struct stat st;
    while (::stat(QFile::encodeName(at).constData(), &st) != 0)
    {
        const bool absent = errno == ENOENT;
        const QString up = folderOf(at);
        if (!absent || up == at)
            return makePathFailed(at, outFailed);
        missing.prepend(at);
        at = up;
    }
    // The usual case of a folder that is there already: one look.
    if (missing.isEmpty())
    {
        if (S_ISDIR(st.st_mode))
            return true;
        errno = ENOTDIR;
        return makePathFailed(at, outFailed);
    }
    for (const QString& folder : missing)
    {
        if (::mkdir(QFile::encodeName(folder).constData(), 0777) == 0)
            foldersMadeEmpty().insert(folder);
        else if (errno != EEXIST)
            return makePathFailed(folder, outFailed);
    }
    if (::stat(QFile::encodeName(inPath).constData(), &st) != 0)
        return makePathFailed(inPath, outFailed);
    if (S_ISDIR(st.st_mode))
        return true;
    errno = ENOTDIR;
    return makePathFailed(inPath, outFailed);
}

namespace
{
enum class Made
{
    Created,
    Existed,
    NoSource,
    NoFolder,
    NoNamelessFiles,
    Failed,
};

// Whether linkat may name an open file by its descriptor alone (AT_EMPTY_PATH); older kernels
// allow that only to privileged processes. Unknown until the first try.
std::atomic<int> sEmptyPathLinks{-1};

// Names a file without a name; fails with EEXIST when something has that name.
bool linkFd(int inFd, const QByteArray& inTarget)
{
    // By descriptor where allowed: the way through /proc costs a look-up of its own per file.
    if (sEmptyPathLinks.load(std::memory_order_relaxed) != 0)
    {
        if (::linkat(inFd, "", AT_FDCWD, inTarget.constData(), AT_EMPTY_PATH) == 0)
        {
            sEmptyPathLinks.store(1, std::memory_order_relaxed);
            return true;
        }
        if (errno != ENOENT && errno != EPERM && errno != EINVAL)
            return false;
        // ENOENT is also what a missing folder gives: only a first refusal decides.
        if (errno == ENOENT && sEmptyPathLinks.load(std::memory_order_relaxed) == 1)
            return false;
        sEmptyPathLinks.store(0, std::memory_order_relaxed);
    }
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(inFd);
    return ::linkat(AT_FDCWD, self.constData(), AT_FDCWD, inTarget.constData(), AT_SYMLINK_FOLLOW) == 0;
}

// The steps of copyCreate without a word said, so that any thread may run them; errno tells why
// a step failed. The content goes into a file without a name, which is linked in only once it is
// complete: no moment shows a half-written target, and a failure leaves nothing behind.
Made createNameless(const QString& inSource, const QString& inTarget, bool inLookFirst, FileStamp* outStamp)
{
    const QByteArray target = QFile::encodeName(inTarget);
    // lstat, not stat: a symbolic link, even a dangling one, is something there.
    struct stat there;
    if (inLookFirst && ::lstat(target.constData(), &there) == 0)
        return Made::Existed;
    struct stat st;
    const int in = openSource(inSource, st);
    if (in < 0)
        return Made::NoSource;
    bool unsupported = false;
    const int out = File::openNameless(inTarget, unsupported);
    if (out < 0)
    {
        const int why = errno;
        ::close(in);
        errno = why;
        return unsupported ? Made::NoNamelessFiles : Made::NoFolder;
    }
    bool ok = copyInto(in, st, out, outStamp);
    if (ok)
        ok = linkFd(out, target);
    const int why = errno;
    ::close(out);
    errno = why;
    // Something appeared there meanwhile: it is left as it is.
    return ok ? Made::Created : why == EEXIST ? Made::Existed : Made::Failed;
}
}

int File::openNameless(const QString& inTarget, bool& outUnsupported)
{
    const int fd = ::open(QFile::encodeName(folderOf(inTarget)).constData(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
    outUnsupported = fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR);
    return fd;
}

bool File::linkNameless(int inFd, const QString& inTarget, bool inReplace)
{
    const QByteArray target = QFile::encodeName(inTarget);
    bool ok = linkFd(inFd, target);
    if (!ok && errno == EEXIST && inReplace)
    {
        // A second name first, then rename(2), which replaces the old file in one step.
        const QByteArray temp = QFile::encodeName(temporaryPathBeside(inTarget));
        ok = linkFd(inFd, temp) && ::rename(temp.constData(), target.constData()) == 0;
        if (!ok)
        {
            const int why = errno;
            ::unlink(temp.constData());
            errno = why;
        }
    }
    const int why = errno;
    ::close(inFd);
    errno = why;
    return ok;
}

McResult File::copyCreate(const QString& inSource, const QString& inTarget, bool& outExisted, FileStamp* outStamp)
{
    McResult retVal;
    const Made made = createNameless(inSource, inTarget, mustLookFirst(inTarget), outStamp);
    outExisted = made == Made::Existed;
    if (made == Made::NoNamelessFiles)
        return copyReplace(inSource, inTarget, outStamp);  // through a temporary name instead
    const bool in = made != Made::NoSource;
    if (MC_CHECK_WIN(retVal, in, QStringLiteral("failed to read '%1'").arg(inSource)))
        return retVal;
    const bool out = made != Made::NoFolder;
    if (MC_CHECK_WIN(retVal, out, QStringLiteral("failed to write '%1'").arg(inTarget)))
        return retVal;
    const bool ok = made == Made::Created || made == Made::Existed;
    MC_CHECK_WIN(retVal, ok, QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(inSource, inTarget));
    return retVal;
}

bool File::copyCreateSilently(const QString& inSource, const QString& inTarget, bool inLookFirst, FileStamp* outStamp)
{
    return createNameless(inSource, inTarget, inLookFirst, outStamp) == Made::Created;
}

bool File::targetMayExist(const QString& inTarget) { return mustLookFirst(inTarget); }
}
