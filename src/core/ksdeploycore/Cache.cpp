#include "Cache.h"

#include "Common.h"
#include "Engine.h"
#include "InterruptSignals.h"
#include "Progress.h"
#include "QxDownload.h"
#include "QxFile.h"
#include "ResourceFileEntry.h"
#include "TemporaryOwner.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
QString tr(const char* inText) { return QCoreApplication::translate("KsDeploy::Cache", inText); }

int sStallMs = 30000;
int sTotalMs = 0;

// Never to be eaten into by a download or a decoding: an endless body fills no disk.
const QxBase::DiskReserve sReserve;

struct Outcome
{
    bool done = false;  // ok, or timed out with whatever arrived
    bool timedOut = false;
    bool unreachable = false;  // no connection, or no answer in time
    QString why;               // the failure in words
    McLib::MD5 md5;            // of what arrived, when asked for
};

// The most a ".lzma" body can hold after a header that states its decoded size: the codec
// never grows incompressible data by an eighth. An unknown size is bounded by the reserve alone.
long long packedLimitOf(const char* inHead, size_t inSize)
{
    if (inSize < 13)
        return -1;
    uint64_t claimed = 0;
    for (int i = 0; i < 8; ++i)
        claimed |= static_cast<uint64_t>(static_cast<unsigned char>(inHead[5 + i])) << (8 * i);
    if (claimed == UINT64_MAX || claimed > (1ull << 50))
        return -1;
    return static_cast<long long>(claimed + claimed / 8 + 65536 + 13);
}

QxDownload::Request requestFor(const QString& inUrl, const QString& inDestination, bool inDigest)
{
    QxDownload::Request r;
    r.url = inUrl;
    r.destination = inDestination;
    // The destination is a temporary file of the caller, written in place; the digest of a plain
    // download is computed on the way in.
    r.flags = inDigest ? QxDownload::FlagInPlace | QxDownload::FlagDigest : QxDownload::FlagInPlace;
    r.stallMs = sStallMs;
    r.totalMs = sTotalMs;
    r.reserve = &sReserve;
    return r;
}

void traceStart(const QxDownload::Request& inRequest)
{
    Engine::instance().trace(McLogLevelInfo,
                             QStringLiteral("download: %1 -> %2").arg(inRequest.url, inRequest.destination));
}

// The closing trace line of one download, and under it why it failed; a timeout counts as done,
// the digest decides.
Outcome traceEnd(const QxDownload::Request& inRequest)
{
    Engine& engine = Engine::instance();
    const int res = inRequest.result;
    const QString outcome = res == 0   ? QStringLiteral("...ok")
                            : res == 3 ? QStringLiteral("...timeout")
                                       : QStringLiteral("...failed");
    engine.trace(McLogLevelInfo, QStringLiteral("%1 (%2 ms)").arg(outcome).arg(inRequest.ms));
    if (res != 0 && !inRequest.error.isEmpty())
        engine.trace(McLogLevelInfo, QStringLiteral("  %1: %2").arg(inRequest.url, inRequest.error));
    const bool timedOut = res == QxDownload::ResultTimeout;
    return Outcome{res == 0 || timedOut, timedOut, timedOut || res == QxDownload::ResultUnreachable, inRequest.error,
                   inRequest.md5};
}

Outcome downloadOnce(QxDownload::Request& inoutRequest)
{
    traceStart(inoutRequest);
    QxDownload::createInstance()->download(inoutRequest);
    return traceEnd(inoutRequest);
}

// Folders on a server whose last ".lzma" copy could not be had. From them the plain file is asked
// for together with the next ".lzma" copy, so that its answer does not wait for another miss; a
// folder that has its copies is asked one request at a time. Kept per folder, not per server: a
// description published plain beside items published packed says nothing about the items.
QString folderOf(const QString& inUrl)
{
    const int slash = inUrl.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? inUrl : inUrl.left(slash);
}
}

Cache::Cache(const std::function<McResult(QString&)>& inDefaultPath) : mDefaultPath(inDefaultPath) {}
Cache::~Cache() = default;

McResult Cache::path(QString& outValue) const
{
    McResult retVal;
    // Asked for once per item or more: the folder verified before is taken as it is. Whoever
    // removes it (itemRemoveAll) forgets it.
    if (!mPathVerified.isEmpty() && (mPath.isEmpty() ? mPathVerifiedIsDefault : mPathVerified == mPath))
    {
        outValue = mPathVerified;
        return retVal;
    }
    outValue = mPath;
    if (outValue.isEmpty())
        retVal << mDefaultPath(outValue);
    directoryEnsure(retVal, outValue, QStringLiteral("Failed to access cache directory [%1]").arg(outValue));
    if (retVal.isOk() && QDir(outValue).isAbsolute())
    {
        mPathVerified = outValue;
        mPathVerifiedIsDefault = mPath.isEmpty();
    }
    return retVal;
}

bool Cache::packedMissingAt(const QString& inFolder) const { return mListOfFolderWithoutPacked.contains(inFolder); }

void Cache::packedMissingSet(const QString& inFolder, bool inMissing)
{
    if (inMissing)
        mListOfFolderWithoutPacked.insert(inFolder);
    else
        mListOfFolderWithoutPacked.remove(inFolder);
}

void Cache::httpUrlAdd(const QString& inUrl)
{
    if (!mListOfUrl.contains(inUrl, Qt::CaseSensitive))
        mListOfUrl.append(inUrl);
}

QString Cache::itemFilePath(const BufferID& inBufferId) const
{
    QString dir;
    const McResult res = path(dir);
    MC_ASSERT(res.isOk());
    return QStringLiteral("%1/%2").arg(dir, inBufferId.toString());
}

bool Cache::itemIsCached(const BufferID& inBufferId) const { return QFileInfo(itemFilePath(inBufferId)).isFile(); }

bool Cache::itemsCached(QSet<QString>& outNames) const
{
    outNames.clear();
    QString dir;
    if (path(dir).isBad())
        return false;
    if (!QFileInfo(dir).isDir())
        return false;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
    while (it.hasNext())
    {
        it.next();
        outNames.insert(it.fileName());
    }
    return true;
}

void Cache::temporaryFilesRemove(const QDateTime& inStart)
{
    QString dir;
    if (Engine::instance().pathToCache(dir).isBad())
        return;
    // The names QxBase::File::temporaryPathBeside gives: ".<item>.<process id>.<16 hex digits>.part".
    // Another process may be writing one right now, however old it is: only those whose writer
    // is gone go.
    static const QRegularExpression sPattern(QStringLiteral("^\\..+\\.([0-9]+)\\.[0-9a-f]{16}\\.part$"));
    QDirIterator it(dir, QStringList() << QStringLiteral(".*.part"), QDir::Files | QDir::Hidden | QDir::System);
    while (it.hasNext())
    {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QRegularExpressionMatch m = sPattern.match(info.fileName());
        const QDateTime modified = info.lastModified();
        if (m.hasMatch() && modified < inStart &&
            KsPlatform::TemporaryOwner::isGone(m.captured(1).toLong(),
                                               static_cast<std::time_t>(modified.toSecsSinceEpoch())))
            QFile::remove(info.filePath());
    }
}

void Cache::itemRemove(const BufferID& inBufferId) { QFile::remove(itemFilePath(inBufferId)); }

void Cache::itemRemoveAll()
{
    QString dir;
    if (path(dir).isBad())
        return;
    QxBase::File::removeDir(dir, true, QStringList(), QStringList());
    // The folder may have gone: the next look checks (and creates) it again.
    mPathVerified.clear();
}

McResult Cache::itemCreateFile(const BufferID& inBufferId, const QString& inTarget, bool& outExisted)
{
    McResult retVal;
    const QString item = itemFilePath(inBufferId);
    QxBase::FileStamp stamp;
    outExisted = false;
    if (mListOfSharedItem.contains(item))
    {
        // Nothing is written: the target is the item's file under one more name. Its stamp is
        // taken after the link, which changes the file's ctime.
        if (::link(QFile::encodeName(item).constData(), QFile::encodeName(inTarget).constData()) == 0)
        {
            if (QxBase::File::stampOf(inTarget, stamp))
                scanFileRemember(inTarget, inBufferId.md5(), stamp);
            return retVal;
        }
        if (errno == EEXIST)
        {
            outExisted = true;
            return retVal;
        }
        // Refused (another file system, a link count at its limit): a copy instead.
    }
    const McResult created = QxBase::File::copyCreate(item, inTarget, outExisted, &stamp);
    if (outExisted)
        return retVal;
    if (MC_CHECK_TEXT(retVal, created.isOk(), "b", QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(item, inTarget)))
        return retVal << created;  // the copy's own reason follows
    scanFileRemember(inTarget, inBufferId.md5(), stamp);
    return retVal;
}

McResult Cache::itemWriteOverFile(const BufferID& inBufferId, const QString& inTarget, bool inOverwrite)
{
    McResult retVal;
    if (QFileInfo(inTarget).isFile())
    {
        const McLib::MD5 md5 = scanFile(inTarget);
        if (md5 == inBufferId.md5())
            return retVal;
        if (!inOverwrite && MC_CHECK(retVal, md5==inBufferId.md5(), "a different file already exists"))
            return retVal;
    }
    const QString item = itemFilePath(inBufferId);
    QxBase::FileStamp stamp;
    const McResult copied = QxBase::File::copyReplace(item, inTarget, &stamp);
    if (MC_CHECK_TEXT(retVal, copied.isOk(), "b", QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(item, inTarget)))
        return retVal << copied;  // the copy's own reason follows
    scanFileRemember(inTarget, inBufferId.md5(), stamp);
    return retVal;
}

McResult Cache::itemWriteToFile(const BufferID& inBufferId, const QString& inTarget, bool inOverwrite)
{
    // Nothing there yet is the usual case of a first install: written in one go, no comparison.
    bool existed = false;
    McResult retVal = itemCreateFile(inBufferId, inTarget, existed);
    if (existed)
        retVal << itemWriteOverFile(inBufferId, inTarget, inOverwrite);
    return retVal;
}

McResult Cache::retrieve(const BufferID& inBufferId)
{
    McResult retVal;
    QString dir;
    retVal << path(dir);
    if (retVal.isBad())
        return retVal;
    // A good answer of retrieveFromHTTP already means the item is in the cache.
    retVal << retrieveFromHTTP(inBufferId);
    return retVal;
}

void Cache::downloadLimitsSet(int inStallMs, int inTotalMs)
{
    sStallMs = inStallMs > 0 ? inStallMs : 30000;
    sTotalMs = inTotalMs > 0 ? inTotalMs : 0;
}

McResult Cache::retrieveFromHTTP(const BufferID& inBufferId)
{
    McResult retVal;
    // An item already cached is the usual case: one look, and no base URL is asked.
    if (itemIsCached(inBufferId))
        return retVal;
    const QList<QString> urls = mListOfUrl;
    QStringList reasons;
    bool fetched = false;
    for (const QString& url : urls)
    {
        if (mListOfUnreachableUrl.contains(url))
        {
            reasons << QStringLiteral("%1: skipped, it did not answer before").arg(url);
            continue;
        }
        bool unreachable = false;
        const McResult one = retrieveFromHTTP(inBufferId, url, unreachable);
        // A good answer has just put the item in place.
        fetched = one.isOk();
        if (fetched)
            break;
        // Not reported on its own (the next URL may serve), but the final detail says why each failed.
        QString why = QString::fromLatin1(one.text());
        if (*one.detail())
            why += QStringLiteral(": %1").arg(QString::fromLatin1(one.detail()));
        reasons << why;
        if (unreachable)
        {
            // Said once: every later item goes straight to the next URL.
            mListOfUnreachableUrl.insert(url);
            Engine::instance().trace(McLogLevelWarning,
                                     QStringLiteral("%1 did not answer and is skipped from now on").arg(url));
        }
    }
    if (!fetched)
    {
        const QString detail =
            urls.isEmpty()
                ? QStringLiteral("item %1 is not cached and no download URL is given").arg(inBufferId.toString())
                : QStringLiteral("item %1 could not be fetched: %2")
                      .arg(inBufferId.toString(), reasons.join(QStringLiteral("; ")));
        MC_CHECK_DETAIL(retVal, itemIsCached(inBufferId), "Internal Error", mcMessageText(detail));
    }
    return retVal;
}

McResult Cache::retrieveFromHTTP(const BufferID& inBufferId, const QString& inUrl)
{
    bool unreachable = false;
    return retrieveFromHTTP(inBufferId, inUrl, unreachable);
}

// One item from one URL, ".lzma" copy first, digest checked. Reports nothing: whether a failure
// is one depends on the URLs still to come. outUnreachable: the server could not be connected
// to or did not answer in time (its plain copy is then not asked for either).
McResult Cache::fetchFile(const QString& inDestination, const QString& inUrl, const McLib::MD5& inExpected,
                          bool& outUnreachable)
{
    McResult retVal;
    outUnreachable = false;
    Engine& engine = Engine::instance();
    // Everything lands beside the destination first; only a checked file gets its name.
    const QString compressed = QxBase::File::temporaryPathBeside(inDestination);
    const QString decoded = QxBase::File::temporaryPathBeside(inDestination);
    const bool check = !inExpected.isNull();
    const QString folder = folderOf(inUrl);
    QxDownload::Request first = requestFor(inUrl + QStringLiteral(".lzma"), compressed, false);
    first.headBytes = 13;
    first.limitOfHead = &packedLimitOf;
    // Apart from the decoded copy: a fallback fetched together may finish before the copy fails.
    // Without a name, if the file system allows: it is named once checked, without a rename.
    QxDownload::Request second = requestFor(inUrl, QxBase::File::temporaryPathBeside(inDestination), check);
    second.flags |= QxDownload::FlagNameless;
    bool secondDone = false;
    Outcome packed;
    if (packedMissingAt(folder))
    {
        traceStart(first);
        QxDownload::createInstance()->downloadPair(first, second);
        packed = traceEnd(first);
        secondDone = second.result != QxDownload::ResultDropped;
    }
    else
        packed = downloadOnce(first);
    packedMissingSet(folder, !packed.done);
    Outcome got = packed;
    QString plain = decoded;
    int nameless = -1;  // the plain download's file, when it has no name
    QString packedWhy = packed.why;
    if (packed.done)
    {
        // A broken copy is not a failure yet: the plain file may still be right. Decoded straight
        // into our temporary name, hashed on the way.
        McLib::MD5 decodedMd5;
        const McResult unpacked = fileUncompressBounded(decoded, compressed, &sReserve, &decodedMd5, true);
        got.done = unpacked.isOk();
        packedWhy = QString::fromLatin1(unpacked.text());
        if (*unpacked.detail())
            packedWhy += QStringLiteral(" (%1)").arg(QString::fromLatin1(unpacked.detail()));
        QFile::remove(compressed);
        // Nor is a copy that decodes to other bytes: checked here, so the plain file can be tried.
        if (got.done && check)
        {
            got.md5 = decodedMd5;
            if (got.md5 != inExpected)
            {
                got.done = false;
                packedWhy = QStringLiteral("the decoded copy does not match its digest");
            }
        }
        if (!got.done)
            QFile::remove(decoded);
    }
    else
        QFile::remove(compressed);
    // A server that did not answer the first request is not asked the second.
    const bool skipPlain = !got.done && packed.unreachable && !secondDone;
    if (!got.done && !skipPlain)
    {
        plain = second.destination;
        if (secondDone)
        {
            traceStart(second);
            got = traceEnd(second);
        }
        else
            got = downloadOnce(second);
        nameless = second.file;
    }
    else if (secondDone)
    {
        if (second.file >= 0)
            ::close(second.file);
        QFile::remove(second.destination);
    }
    // Whatever ends the call, the nameless file is closed, and so gone unless it was named.
    struct Closer
    {
        int& fd;
        ~Closer()
        {
            if (fd >= 0)
                ::close(fd);
        }
    } closer{nameless};
    if (!got.done)
    {
        outUnreachable = got.unreachable;
        engine.trace(McLogLevelError, QStringLiteral("Failed to download %1").arg(inUrl));
        QFile::remove(plain);
        QString why = got.why;
        // A missing ".lzma" copy is normal; a broken one is worth saying.
        if (!skipPlain && (packed.done || (!packedWhy.isEmpty() && packedWhy != QLatin1String("HTTP 404"))))
            why += QStringLiteral("; %1.lzma: %2").arg(inUrl, packedWhy);
        return MC_FAILURE("download", QStringLiteral("Failed to download %1").arg(inUrl)).detailSet(mcMessageText(why));
    }
    if (check)
    {
        // A plain download was hashed as it arrived; a decoded copy was hashed above.
        const QString content = nameless >= 0 ? QStringLiteral("/proc/self/fd/%1").arg(nameless) : plain;
        const McLib::MD5 md5 = got.md5.isNull() ? scanFile(content) : got.md5;
        if (inExpected != md5)
        {
            QFile::remove(plain);
            // A stalled transfer that ends short is the server's fault, not only this item's.
            outUnreachable = got.timedOut;
            const QString why = got.timedOut ? QStringLiteral("the content does not match its digest (%1)").arg(got.why)
                                             : QStringLiteral("the content does not match its digest");
            return MC_FAILURE("inExpectedHash==md5", inUrl).detailSet(mcMessageText(why));
        }
    }
    if (nameless >= 0)
    {
        // Named in one step, replacing an older file of that name.
        const int fd = nameless;
        nameless = -1;
        if (!QxBase::File::linkNameless(fd, inDestination, true))
            return MC_FAILURE("rename", inDestination)
                .detailSet(McLib::osDetail(QFile::encodeName(inDestination).toStdString(), errno));
        return retVal;
    }
    // rename(2) replaces an older file of that name in the same step.
    if (::rename(QFile::encodeName(plain).constData(), QFile::encodeName(inDestination).constData()) != 0)
    {
        const int err = errno;
        QFile::remove(plain);
        return MC_FAILURE("rename", inDestination)
            .detailSet(McLib::osDetail(QFile::encodeName(inDestination).toStdString(), err));
    }
    return retVal;
}

McResult Cache::retrieveFromHTTP(const BufferID& inBufferId, const QString& inUrl, bool& outUnreachable)
{
    outUnreachable = false;
    const QString item = itemFilePath(inBufferId);
    if (QFileInfo(item).isFile())
        return McResult();
    QString base = inUrl;
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    const QString url = QStringLiteral("%1/%2").arg(base, inBufferId.toString());
    return fetchFile(item, url, inBufferId.md5(), outUnreachable);
}

McResult Cache::loadFileHTTP(const QString& inDestination, const QString& inUrl, const McLib::MD5& inExpected)
{
    bool unreachable = false;
    // The engine's cache remembers the folders without ".lzma" copies for the items that follow.
    const McResult retVal = Engine::instance().cache().fetchFile(inDestination, inUrl, inExpected, unreachable);
    Ks::fail(retVal);
    return retVal;
}

McResult Cache::retrieveFromFile(const QString& inFilePath, bool inCompress)
{
    McResult retVal;
    MC_DBC_TEXT(DbCPrecondition, QFile::exists(inFilePath), "QFile::exists(inFilePath)");
    Engine::instance().trace(McLogLevelInfo, QStringLiteral("caching: %1").arg(inFilePath));
    const McLib::MD5 md5 = scanFile(inFilePath);
    if (md5.isNull())
    {
        retVal.makeBad(1);
        return retVal;
    }
    QString target = itemFilePath(BufferID(md5));
    if (inCompress)
        target += QStringLiteral(".lzma");
    if (QFileInfo(target).isFile())
        return retVal;
    if (inCompress)
        retVal << fileCompress(target, inFilePath);
    else
    {
        const McResult copied = QxBase::File::copyReplace(inFilePath, target);
        if (MC_CHECK_TEXT(retVal, copied.isOk(), "b",
                          QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(inFilePath, target)))
            retVal << copied;
    }
    return retVal;
}

McResult Cache::retrieveFromDirectory(const QString& inDirPath, bool inRecursive, const QStringList& inFilters,
                                      bool inCompress)
{
    McResult retVal;
    Engine::instance().progress().taskStartNext(tr("Precache files"));
    QDir dir(inDirPath);
    if (MC_CHECK_DETAIL(retVal, dir.exists(), "Internal Error",
                        McLib::osDetail(QFile::encodeName(inDirPath).toStdString(), QFileInfo::exists(inDirPath) ? ENOTDIR : ENOENT)))
        return retVal;
    // Walked with an explicit list of folders, not recursion.
    QStringList pending{dir.absolutePath()};
    while (!pending.isEmpty())
    {
        QDir current(pending.takeFirst());
        current.setNameFilters(inFilters);
        const QFileInfoList files = current.entryInfoList(QDir::Files | QDir::NoSymLinks, QDir::Unsorted);
        for (const QFileInfo& fi : files)
        {
            MC_ASSERT(fi.isFile());
            retVal << retrieveFromFile(fi.absoluteFilePath(), inCompress);
        }
        if (!inRecursive)
            break;
        current.setNameFilters(QStringList());
        const QFileInfoList dirs =
            current.entryInfoList(QDir::AllDirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Unsorted);
        for (const QFileInfo& fi : dirs)
        {
            MC_ASSERT(fi.isDir());
            pending.append(fi.absoluteFilePath());
        }
    }
    return retVal;
}

McResult Cache::retrieveFromResources(const McDArray<McHandle<Resource>>& inResources, bool inCompress)
{
    McResult retVal;
    Progress& progress = Engine::instance().progress();
    progress.taskStartNext(tr("Cache resources"));
    const int64_t n = inResources.size();
    for (int64_t i = 0; i < n; ++i)
    {
        // Interrupted while a change takes its snapshot: the change stops, and says so.
        if (KsPlatform::InterruptSignals::pending() != 0)
            break;
        const ResourceFileEntry* entry = dynamic_cast<const ResourceFileEntry*>(inResources[i].ptr());
        if (!entry || entry->absence())
            continue;
        const QString path = entry->path();
        if (!path.isEmpty() && QFileInfo(path).isFile())
            retVal << retrieveFromFile(path, inCompress);
        progress.progressSet(static_cast<float>(i + 1) / static_cast<float>(n));
    }
    return retVal;
}
