#include "Cache.h"

#include "Common.h"
#include "Engine.h"
#include "InterruptSignals.h"
#include "Lzma.h"
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

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <thread>
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
// A folder whose first few ".lzma" copies are all missing is asked for its plain files only.
const int sPackedMissesToSkip = 8;
// Transfers at once when many items are fetched: as many as a browser keeps per server.
const int sParallelTransfers = 8;

// The server has no such file (as opposed to failing to give it).
bool notFound(const QxDownload::Request& inRequest)
{
    return inRequest.result == QxDownload::ResultHttpError && inRequest.error == QLatin1String("HTTP 404");
}

QString folderOf(const QString& inUrl)
{
    const int slash = inUrl.lastIndexOf(QLatin1Char('/'));
    return slash < 0 ? inUrl : inUrl.left(slash);
}
}

namespace
{
// One item's way from a server to its destination: the ".lzma" copy (unless its folder has
// none), else the plain file, then the digest check and the name. Everything lands beside the
// destination first; only a checked file gets its name.
struct Fetch
{
    QString url;  // the plain file's
    QString destination;
    McLib::MD5 expected;
    bool check = false;
    QString compressed, decoded;
    QxDownload::Request first;   // the ".lzma" copy
    QxDownload::Request second;  // the plain file
    bool secondDone = false;     // the plain file came together with the copy
    Outcome packed, got;
    QString packedWhy;
    QString plain;      // where the content is before it gets its name
    int nameless = -1;  // the plain download's file, when it has no name
    bool skipPlain = false;
};

void fetchInit(Fetch& outFetch, const QString& inDestination, const QString& inUrl, const McLib::MD5& inExpected)
{
    outFetch.url = inUrl;
    outFetch.destination = inDestination;
    outFetch.expected = inExpected;
    outFetch.check = !inExpected.isNull();
    outFetch.compressed = QxBase::File::temporaryPathBeside(inDestination);
    outFetch.decoded = QxBase::File::temporaryPathBeside(inDestination);
    outFetch.first = requestFor(inUrl + QStringLiteral(".lzma"), outFetch.compressed, false);
    // A small copy is decoded from memory: its file would be made, written, read and removed.
    outFetch.first.flags |= QxDownload::FlagMemory;
    outFetch.first.headBytes = 13;
    outFetch.first.limitOfHead = &packedLimitOf;
    // Apart from the decoded copy: a fallback fetched together may finish before the copy fails.
    // Without a name, if the file system allows: it is named once checked, without a rename.
    outFetch.second = requestFor(inUrl, QxBase::File::temporaryPathBeside(inDestination), outFetch.check);
    outFetch.second.flags |= QxDownload::FlagNameless;
    outFetch.plain = outFetch.decoded;
}

// After the ".lzma" copy's answer (inoutFetch.packed): decoded and checked, or found wanting.
void fetchPacked(Fetch& inoutFetch)
{
    Fetch& f = inoutFetch;
    f.got = f.packed;
    f.packedWhy = f.packed.why;
    if (f.packed.done)
    {
        // A broken copy is not a failure yet: the plain file may still be right. Decoded straight
        // into our temporary name, hashed on the way.
        McLib::MD5 decodedMd5;
        const McResult unpacked = f.first.inMemory
                                      ? bufferUncompressBounded(f.decoded, f.first.body, &sReserve, &decodedMd5, true)
                                      : fileUncompressBounded(f.decoded, f.compressed, &sReserve, &decodedMd5, true);
        f.got.done = unpacked.isOk();
        f.packedWhy = QString::fromLatin1(unpacked.text());
        if (*unpacked.detail())
            f.packedWhy += QStringLiteral(" (%1)").arg(QString::fromLatin1(unpacked.detail()));
        if (f.first.inMemory)
            f.first.body = QByteArray();
        else
            QFile::remove(f.compressed);
        // Nor is a copy that decodes to other bytes: checked here, so the plain file can be tried.
        if (f.got.done && f.check)
        {
            f.got.md5 = decodedMd5;
            if (f.got.md5 != f.expected)
            {
                f.got.done = false;
                f.packedWhy = QStringLiteral("the decoded copy does not match its digest");
            }
        }
        if (!f.got.done)
            QFile::remove(f.decoded);
    }
    else
        QFile::remove(f.compressed);
    // A server that did not answer the first request is not asked the second.
    f.skipPlain = !f.got.done && f.packed.unreachable && !f.secondDone;
}

bool fetchNeedsPlain(const Fetch& inFetch) { return !inFetch.got.done && !inFetch.skipPlain; }

// After the plain file's answer, whose trace has ended in inOutcome.
void fetchPlain(Fetch& inoutFetch, const Outcome& inOutcome)
{
    inoutFetch.plain = inoutFetch.second.destination;
    inoutFetch.got = inOutcome;
    inoutFetch.nameless = inoutFetch.second.file;
}

// The verdict: the digest checked, the content named, or the failure in words. Reports nothing:
// whether a failure is one depends on the URLs still to come. outUnreachable: the server could
// not be connected to or did not answer in time.
McResult fetchConclude(Fetch& inoutFetch, bool& outUnreachable)
{
    McResult retVal;
    Fetch& f = inoutFetch;
    const QString& inUrl = f.url;
    const QString& inDestination = f.destination;
    const McLib::MD5& inExpected = f.expected;
    outUnreachable = false;
    // Whatever ends the call, the nameless file is closed, and so gone unless it was named.
    struct Closer
    {
        int& fd;
        ~Closer()
        {
            if (fd >= 0)
                ::close(fd);
            fd = -1;
        }
    } closer{f.nameless};
    if (!f.got.done)
    {
        outUnreachable = f.got.unreachable;
        Engine::instance().trace(McLogLevelError, QStringLiteral("Failed to download %1").arg(inUrl));
        QFile::remove(f.plain);
        QString why = f.got.why;
        // A missing ".lzma" copy is normal; a broken one is worth saying.
        if (!f.skipPlain && (f.packed.done || (!f.packedWhy.isEmpty() && f.packedWhy != QLatin1String("HTTP 404"))))
            why += QStringLiteral("; %1.lzma: %2").arg(inUrl, f.packedWhy);
        return MC_FAILURE("download", QStringLiteral("Failed to download %1").arg(inUrl)).detailSet(mcMessageText(why));
    }
    if (f.check)
    {
        // A plain download was hashed as it arrived; a decoded copy was hashed above.
        const QString content = f.nameless >= 0 ? QStringLiteral("/proc/self/fd/%1").arg(f.nameless) : f.plain;
        const McLib::MD5 md5 = f.got.md5.isNull() ? scanFile(content) : f.got.md5;
        if (inExpected != md5)
        {
            QFile::remove(f.plain);
            // A stalled transfer that ends short is the server's fault, not only this item's.
            outUnreachable = f.got.timedOut;
            const QString why = f.got.timedOut
                                    ? QStringLiteral("the content does not match its digest (%1)").arg(f.got.why)
                                    : QStringLiteral("the content does not match its digest");
            return MC_FAILURE("inExpectedHash==md5", inUrl).detailSet(mcMessageText(why));
        }
    }
    if (f.nameless >= 0)
    {
        // Named in one step, replacing an older file of that name.
        const int fd = f.nameless;
        f.nameless = -1;
        if (!QxBase::File::linkNameless(fd, inDestination, true))
            return MC_FAILURE("rename", inDestination)
                .detailSet(McLib::osDetail(QFile::encodeName(inDestination).toStdString(), errno));
        return retVal;
    }
    // rename(2) replaces an older file of that name in the same step.
    if (::rename(QFile::encodeName(f.plain).constData(), QFile::encodeName(inDestination).constData()) != 0)
    {
        const int err = errno;
        QFile::remove(f.plain);
        return MC_FAILURE("rename", inDestination)
            .detailSet(McLib::osDetail(QFile::encodeName(inDestination).toStdString(), err));
    }
    return retVal;
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

bool Cache::packedMissingAt(const QString& inFolder) const
{
    const auto it = mPackedSeen.constFind(inFolder);
    return it != mPackedSeen.constEnd() && it->lastMissed;
}

bool Cache::packedAbsentAt(const QString& inFolder) const
{
    // A few misses and not one copy: a folder published plain. One copy that came keeps the
    // folder asked ".lzma" first, for good: publishing leaves out only the copies not worth it.
    const auto it = mPackedSeen.constFind(inFolder);
    return it != mPackedSeen.constEnd() && it->had == 0 && it->notFound >= sPackedMissesToSkip;
}

void Cache::packedSeen(const QString& inFolder, bool inHad, bool inNotFound)
{
    PackedSeen& seen = mPackedSeen[inFolder];
    seen.had += inHad ? 1 : 0;
    seen.notFound += inNotFound ? 1 : 0;
    seen.lastMissed = !inHad;
}

void Cache::httpUrlClearAll()
{
    mListOfUrl.clear();
    mListOfUnreachableUrl.clear();
    mPackedSeen.clear();
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
    installedFileTag(inTarget, inBufferId.md5(), stamp);
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
    installedFileTag(inTarget, inBufferId.md5(), stamp);
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
        retVal << retrieveFailure(inBufferId, urls, reasons);
    return retVal;
}

McResult Cache::retrieveFailure(const BufferID& inBufferId, const QList<QString>& inUrls,
                                const QStringList& inReasons) const
{
    McResult retVal;
    const QString detail =
        inUrls.isEmpty()
            ? QStringLiteral("item %1 is not cached and no download URL is given").arg(inBufferId.toString())
            : QStringLiteral("item %1 could not be fetched: %2")
                  .arg(inBufferId.toString(), inReasons.join(QStringLiteral("; ")));
    MC_CHECK_DETAIL(retVal, itemIsCached(inBufferId), "Internal Error", mcMessageText(detail));
    return retVal;
}

McResult Cache::retrieveAll(const std::vector<BufferID>& inBufferIds, const std::function<bool(size_t)>& inProgress)
{
    McResult retVal;
    QString dir;
    retVal << path(dir);
    if (retVal.isBad())
        return retVal;
    const QList<QString> urls = mListOfUrl;
    // One item on its way: the URL it is tried at, why the ones before failed, its fetch.
    struct Item
    {
        size_t index = 0;
        int url = -1;
        QStringList reasons;
        Fetch fetch;
        bool plainAsked = false;
    };
    std::deque<std::unique_ptr<Item>> items;  // started and not yet done, in no order
    std::deque<QxDownload::Request*> ready;   // requests waiting for a connection
    std::map<const QxDownload::Request*, Item*> owner;
    size_t next = 0;    // the next item of inBufferIds to start
    size_t done = 0;    // items in the cache
    bool stop = false;  // interrupted, or an item failed: no further item starts
    bool interrupted = false;
    size_t failedAt = inBufferIds.size();
    QStringList failedReasons;
    QSet<QString> started;
    // Many items: their files are made ahead on another core (see NamelessFilePool).
    const size_t sItemsForAPool = 64;
    std::unique_ptr<QxBase::NamelessFilePool> pool;
    if (inBufferIds.size() >= sItemsForAPool)
        pool.reset(new QxBase::NamelessFilePool(dir, 2 * sParallelTransfers));

    const auto itemDone = [&](Item& inItem) {
        owner.erase(&inItem.fetch.first);
        owner.erase(&inItem.fetch.second);
        for (auto it = items.begin(); it != items.end(); ++it)
            if (it->get() == &inItem)
            {
                items.erase(it);
                break;
            }
    };
    const auto counted = [&] {
        ++done;
        if (inProgress && !inProgress(done))
            stop = interrupted = true;
    };
    // Starts the item at its next URL that answered so far; false when none is left.
    const auto tryNextUrl = [&](Item& inoutItem) {
        for (++inoutItem.url; inoutItem.url < urls.size(); ++inoutItem.url)
        {
            const QString& url = urls[inoutItem.url];
            if (!mListOfUnreachableUrl.contains(url))
                break;
            inoutItem.reasons << QStringLiteral("%1: skipped, it did not answer before").arg(url);
        }
        if (inoutItem.url >= urls.size())
            return false;
        QString base = urls[inoutItem.url];
        while (base.endsWith(QLatin1Char('/')))
            base.chop(1);
        const BufferID& id = inBufferIds[inoutItem.index];
        inoutItem.fetch = Fetch();
        fetchInit(inoutItem.fetch, itemFilePath(id), QStringLiteral("%1/%2").arg(base, id.toString()), id.md5());
        inoutItem.fetch.second.namelessPool = pool.get();
        inoutItem.plainAsked = packedAbsentAt(folderOf(inoutItem.fetch.url));
        QxDownload::Request* r = inoutItem.plainAsked ? &inoutItem.fetch.second : &inoutItem.fetch.first;
        owner[r] = &inoutItem;
        ready.push_back(r);
        return true;
    };
    const auto failed = [&](Item& inItem) {
        stop = true;
        if (inItem.index < failedAt)
        {
            failedAt = inItem.index;
            failedReasons = inItem.reasons;
        }
    };
    // A base URL gets one transfer at a time until one has ended with an answer: a server that
    // does not answer costs one wait, not one per connection.
    std::vector<int> inFlight(static_cast<size_t>(urls.size()), 0);
    std::vector<bool> answered(static_cast<size_t>(urls.size()), false);
    // The first waiting request that may start now; a request for a URL found dead meanwhile
    // moves its item on to the next URL instead.
    const auto takeReady = [&](bool& outChanged) -> QxDownload::Request* {
        outChanged = false;
        for (auto it = ready.begin(); it != ready.end(); ++it)
        {
            Item& item = *owner.at(*it);
            const size_t url = static_cast<size_t>(item.url);
            if (mListOfUnreachableUrl.contains(urls[item.url]))
            {
                ready.erase(it);
                owner.erase(&item.fetch.first);
                owner.erase(&item.fetch.second);
                item.reasons << QStringLiteral("%1: skipped, it did not answer before").arg(urls[item.url]);
                if (!tryNextUrl(item))
                {
                    failed(item);
                    itemDone(item);
                }
                // The queue has changed: look again from its start.
                outChanged = true;
                return nullptr;
            }
            if (answered[url] || inFlight[url] == 0)
            {
                QxDownload::Request* r = *it;
                ready.erase(it);
                ++inFlight[url];
                return r;
            }
        }
        return nullptr;
    };
    const auto nextRequest = [&]() -> QxDownload::Request* {
        for (;;)
        {
            bool changed = false;
            if (QxDownload::Request* r = takeReady(changed))
            {
                traceStart(*r);
                return r;
            }
            if (changed)
                continue;
            // Nothing waiting may start: a new item, unless its URL is busy proving itself.
            if (stop || next >= inBufferIds.size() || ready.size() >= static_cast<size_t>(sParallelTransfers))
                return nullptr;
            const size_t index = next++;
            const BufferID& id = inBufferIds[index];
            // The same content twice is fetched once.
            const QString name = id.toString();
            if (started.contains(name) || QFileInfo(itemFilePath(id)).isFile())
            {
                counted();
                continue;
            }
            started.insert(name);
            items.emplace_back(new Item);
            Item& item = *items.back();
            item.index = index;
            if (!tryNextUrl(item))
            {
                failed(item);
                itemDone(item);
            }
        }
    };
    const auto onDone = [&](QxDownload::Request& inRequest) {
        const auto at = owner.find(&inRequest);
        if (at == owner.end())
            return;
        Item& item = *at->second;
        Fetch& f = item.fetch;
        const Outcome outcome = traceEnd(inRequest);
        --inFlight[static_cast<size_t>(item.url)];
        if (!outcome.unreachable)
            answered[static_cast<size_t>(item.url)] = true;
        if (&inRequest == &f.first)
        {
            f.packed = outcome;
            packedSeen(folderOf(f.url), f.packed.done, notFound(f.first));
            fetchPacked(f);
            if (fetchNeedsPlain(f))
            {
                // The plain file waits for a connection like any other request.
                item.plainAsked = true;
                owner[&f.second] = &item;
                ready.push_back(&f.second);
                return;
            }
        }
        else
            fetchPlain(f, outcome);
        bool unreachable = false;
        const McResult one = fetchConclude(f, unreachable);
        if (one.isOk())
        {
            counted();
            itemDone(item);
            return;
        }
        QString why = QString::fromLatin1(one.text());
        if (*one.detail())
            why += QStringLiteral(": %1").arg(QString::fromLatin1(one.detail()));
        item.reasons << why;
        const QString url = urls[item.url];
        if (unreachable && !mListOfUnreachableUrl.contains(url))
        {
            // Said once: every later item goes straight to the next URL.
            mListOfUnreachableUrl.insert(url);
            Engine::instance().trace(McLogLevelWarning,
                                     QStringLiteral("%1 did not answer and is skipped from now on").arg(url));
        }
        owner.erase(&f.first);
        owner.erase(&f.second);
        // Interrupted, the caller says so: an item cut short is no failure of its own.
        if (interrupted)
            itemDone(item);
        else if (!tryNextUrl(item))
        {
            failed(item);
            itemDone(item);
        }
    };
    if (urls.isEmpty())
    {
        // Nothing to fetch from: the first item not cached says so, as retrieve would.
        for (const BufferID& id : inBufferIds)
        {
            if (!itemIsCached(id))
                return retVal << retrieveFailure(id, urls, QStringList());
            counted();
            if (stop)
                break;
        }
        return retVal;
    }
    QxDownload::createInstance()->downloadMany(sParallelTransfers, nextRequest, onDone);
    // Requests never started (an item failed, or the caller stopped) leave nothing behind.
    items.clear();
    if (failedAt < inBufferIds.size())
        retVal << retrieveFailure(inBufferIds[failedAt], urls, failedReasons);
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
    Fetch f;
    fetchInit(f, inDestination, inUrl, inExpected);
    const QString folder = folderOf(inUrl);
    // A folder published plain costs one request per item: its copies are not asked for.
    if (!packedAbsentAt(folder))
    {
        if (packedMissingAt(folder))
        {
            // The plain file is asked for together with the copy, so that its answer does not
            // wait for another miss.
            traceStart(f.first);
            QxDownload::createInstance()->downloadPair(f.first, f.second);
            f.packed = traceEnd(f.first);
            f.secondDone = f.second.result != QxDownload::ResultDropped;
        }
        else
            f.packed = downloadOnce(f.first);
        packedSeen(folder, f.packed.done, notFound(f.first));
        fetchPacked(f);
    }
    if (fetchNeedsPlain(f))
    {
        if (f.secondDone)
        {
            traceStart(f.second);
            fetchPlain(f, traceEnd(f.second));
        }
        else
            fetchPlain(f, downloadOnce(f.second));
    }
    else if (f.secondDone)
    {
        if (f.second.file >= 0)
            ::close(f.second.file);
        QFile::remove(f.second.destination);
    }
    return fetchConclude(f, outUnreachable);
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
    MC_DBC_TEXT(DbCPrecondition, QFile::exists(inFilePath), "QFile::exists(inFilePath)");
    return cacheFiles(QStringList{inFilePath}, inCompress);
}

namespace
{
// Compresses files on worker threads, a few at a time, for the thread that hands them out to
// write: the workers touch nothing shared but their queues.
class Packer
{
public:
    struct Job
    {
        QString source;  // the file
        QString item;    // its item's path, without ".lzma"
        int error = 0;   // the reading's errno
        LzmaWithin verdict = LzmaWithin::Failed;
        std::vector<unsigned char> packed;
    };

    Packer()
    {
        const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
        for (unsigned i = 0; i < std::min(cores, 8u); ++i)
            mWorkers.emplace_back([this] { work(); });
    }
    ~Packer()
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mEnd = true;
        }
        mToDo.notify_all();
        for (std::thread& t : mWorkers)
            t.join();
    }
    // Jobs handed out and not yet taken back: kept to a few, so memory holds a few files.
    size_t pending() const { return mPending; }
    size_t width() const { return mWorkers.size(); }
    void add(std::unique_ptr<Job> inJob)
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mQueue.push_back(std::move(inJob));
        }
        ++mPending;
        mToDo.notify_one();
    }
    // The next finished job; waits for one.
    std::unique_ptr<Job> take()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        mDoneReady.wait(lock, [this] { return !mDone.empty(); });
        std::unique_ptr<Job> job = std::move(mDone.front());
        mDone.pop_front();
        --mPending;
        return job;
    }

private:
    static void pack(Job& inoutJob)
    {
        const int fd = QxBase::File::openForReading(inoutJob.source);
        if (fd < 0)
        {
            inoutJob.error = errno;
            return;
        }
        std::vector<unsigned char> content;
        struct stat st;
        if (::fstat(fd, &st) == 0 && st.st_size > 0)
            content.reserve(static_cast<size_t>(st.st_size));
        unsigned char buffer[1 << 16];
        for (;;)
        {
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                inoutJob.error = errno;
            if (n <= 0)
                break;
            content.insert(content.end(), buffer, buffer + n);
        }
        ::close(fd);
        if (inoutJob.error)
            return;
        // A copy must be at least 5% smaller than the item to be worth decoding. Data that does
        // not shrink at all in a quick look (already packed, random) is not put through the slow
        // preset: compressing it would cost as much as the whole rest.
        const uint64_t size = content.size();
        if (lzmaLooksIncompressible(content.data(), static_cast<int64_t>(size)))
        {
            inoutJob.verdict = LzmaWithin::TooLarge;
            return;
        }
        inoutJob.verdict =
            lzmaCompressWithin(inoutJob.packed, content.data(), static_cast<int64_t>(size), size - (size + 19) / 20);
    }

    void work()
    {
        for (;;)
        {
            std::unique_ptr<Job> job;
            {
                std::unique_lock<std::mutex> lock(mMutex);
                mToDo.wait(lock, [this] { return mEnd || !mQueue.empty(); });
                if (mQueue.empty())
                    return;
                job = std::move(mQueue.front());
                mQueue.pop_front();
            }
            pack(*job);
            {
                std::lock_guard<std::mutex> lock(mMutex);
                mDone.push_back(std::move(job));
            }
            mDoneReady.notify_one();
        }
    }

    std::vector<std::thread> mWorkers;
    std::mutex mMutex;
    std::condition_variable mToDo, mDoneReady;
    std::deque<std::unique_ptr<Job>> mQueue, mDone;
    size_t mPending = 0;
    bool mEnd = false;
};

// Writes a finished job: its ".lzma" copy, or the plain file where the copy is not worth it.
McResult packedWrite(const Packer::Job& inJob)
{
    McResult retVal;
    if (inJob.error)
    {
        MC_CHECK_DETAIL(retVal, inJob.error == 0, "Internal Error",
                        McLib::osDetail(QFile::encodeName(inJob.source).toStdString(), inJob.error));
        return retVal;
    }
    if (inJob.verdict == LzmaWithin::TooLarge)
    {
        const McResult copied = QxBase::File::copyReplace(inJob.source, inJob.item);
        if (MC_CHECK_TEXT(retVal, copied.isOk(), "b",
                          QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(inJob.source, inJob.item)))
            retVal << copied;
        return retVal;
    }
    const QString target = inJob.item + QStringLiteral(".lzma");
    if (MC_CHECK_TEXT(retVal, inJob.verdict == LzmaWithin::Done, "ret == LZMA_STREAM_END",
                      QStringLiteral("lzma compression: %1").arg(inJob.source)))
        return retVal;
    // Written beside the target and renamed into place: never a half-written copy.
    const QString temp = QxBase::File::temporaryPathBeside(target);
    QFile file(temp);
    if (MC_CHECK_TEXT(retVal, file.open(QIODevice::WriteOnly | QIODevice::Truncate),
                      "fileDst.open( QIODevice::WriteOnly | QIODevice::Truncate )", target))
        return retVal;
    retVal << QxBase::File::writeAll(file, reinterpret_cast<const char*>(inJob.packed.data()),
                                     static_cast<qint64>(inJob.packed.size()));
    if (retVal.isOk())
        retVal << QxBase::File::writeAll(file, QByteArray());  // flushes
    file.close();
    if (retVal.isOk())
        MC_CHECK_TEXT(retVal, ::rename(QFile::encodeName(temp).constData(), QFile::encodeName(target).constData()) == 0,
                      "rename", target);
    if (retVal.isBad())
        QFile::remove(temp);
    return retVal;
}
}

McResult Cache::cacheFiles(const QStringList& inPaths, bool inCompress)
{
    McResult retVal;
    std::unique_ptr<Packer> packer;
    QSet<QString> handed;  // items already on their way: the same content twice is packed once
    for (const QString& filePath : inPaths)
    {
        Engine::instance().trace(McLogLevelInfo, QStringLiteral("caching: %1").arg(filePath));
        const McLib::MD5 md5 = scanFile(filePath);
        if (md5.isNull())
        {
            retVal.makeBad(1);
            continue;
        }
        const QString item = itemFilePath(BufferID(md5));
        if (!inCompress)
        {
            if (QFileInfo(item).isFile())
                continue;
            const McResult copied = QxBase::File::copyReplace(filePath, item);
            if (MC_CHECK_TEXT(retVal, copied.isOk(), "b",
                              QStringLiteral("QFile::copy(\"%1\", \"%2\")").arg(filePath, item)))
                retVal << copied;
            continue;
        }
        // Published before, as a copy or, not worth one, plain.
        if (handed.contains(item) || QFileInfo(item + QStringLiteral(".lzma")).isFile() || QFileInfo(item).isFile())
            continue;
        handed.insert(item);
        if (!packer)
            packer.reset(new Packer);
        std::unique_ptr<Packer::Job> job(new Packer::Job);
        job->source = filePath;
        job->item = item;
        packer->add(std::move(job));
        // Hashing runs ahead of the packing by a few files only.
        while (packer->pending() > 2 * packer->width())
            retVal << packedWrite(*packer->take());
    }
    while (packer && packer->pending() > 0)
        retVal << packedWrite(*packer->take());
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
    // Compressing, the files of the whole walk go together: they are packed on every core.
    QStringList batch;
    while (!pending.isEmpty())
    {
        QDir current(pending.takeFirst());
        current.setNameFilters(inFilters);
        const QFileInfoList files = current.entryInfoList(QDir::Files | QDir::NoSymLinks, QDir::Unsorted);
        for (const QFileInfo& fi : files)
        {
            MC_ASSERT(fi.isFile());
            if (inCompress)
                batch.append(fi.absoluteFilePath());
            else
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
    if (!batch.isEmpty())
        retVal << cacheFiles(batch, true);
    return retVal;
}

McResult Cache::retrieveFromResources(const McDArray<McHandle<Resource>>& inResources, bool inCompress)
{
    McResult retVal;
    Progress& progress = Engine::instance().progress();
    progress.taskStartNext(tr("Cache resources"));
    const int64_t n = inResources.size();
    QStringList batch;
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
        {
            // Compressing, the files go together at the end: they are packed on every core.
            if (inCompress)
                batch.append(path);
            else
                retVal << retrieveFromFile(path, inCompress);
        }
        progress.progressSet(static_cast<float>(i + 1) / static_cast<float>(n));
    }
    if (!batch.isEmpty())
        retVal << cacheFiles(batch, true);
    return retVal;
}
