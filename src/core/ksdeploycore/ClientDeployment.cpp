// The client update: staging, the folder exchange and the start watch. The staging folder gets a
// product of its own, a copy of the application folder's part of the product rooted at the staging
// path, so that nothing outside the folder (shortcuts, registry entries) is touched before the
// exchange and the real product's configuration stays as it is.
#include "ClientDeployment.h"

#include "Cache.h"
#include "Common.h"
#include "Engine.h"
#include "FolderInUse.h"
#include "FolderSwap.h"
#include "McCoder.h"
#include "PluginKestraClient.h"
#include "Process.h"
#include "ProcessWatch.h"
#include "Progress.h"
#include "QxFile.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QProcessEnvironment>
#include <QSaveFile>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace KsDeploy
{
ClientDeployment* ClientDeployment::sActive = nullptr;

namespace
{
std::string local(const QString& inPath) { return QFile::encodeName(inPath).toStdString(); }

QString fromLocal(const std::string& inText) { return QString::fromLocal8Bit(inText.c_str()); }

// The key of the staging folder's own product.
QString stagingKeyOf(const QString& inKey) { return inKey + QStringLiteral(".staging"); }

bool isInside(const QString& inPath, const QString& inFolder)
{
    return KsPlatform::FolderInUse::pathIsInside(local(QDir::cleanPath(inPath)), local(inFolder));
}

// The MD5 of a file and the stamp it kept while it was read; false when it cannot be read or
// changed meanwhile. Touches nothing shared, so several threads may hash at once.
bool digestOf(const std::string& inPath, McLib::MD5& outMd5, QxBase::FileStamp& outStamp)
{
    const int fd = ::open(inPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    QxBase::FileStamp after;
    bool ok = QxBase::File::stampOf(fd, outStamp);
    if (ok)
    {
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        McCoder coder;
        coder.crcMD5Init();
        std::vector<unsigned char> buffer(1 << 20);
        for (;;)
        {
            const ssize_t n = ::read(fd, buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
            {
                ok = n == 0;
                break;
            }
            coder.crcMD5Update(buffer.data(), static_cast<unsigned int>(n));
        }
        coder.crcMD5Final();
        coder.crcMD5Query(outMd5.data());
        ok = ok && QxBase::File::stampOf(fd, after) && after == outStamp;
    }
    ::close(fd);
    return ok;
}

// The digest record: what an update proved of the files it left in the application folder, by
// file identity, so that the next update need not read them again.
struct RecordedDigest
{
    qint64 size = -1;
    qint64 mtimeNs = 0;
    McLib::MD5 md5;
};
using DigestRecord = QHash<QPair<quint64, quint64>, RecordedDigest>;

DigestRecord digestRecordRead(const QString& inPath)
{
    DigestRecord record;
    QFile file(inPath);
    if (inPath.isEmpty() || !file.open(QIODevice::ReadOnly))
        return record;
    // A damaged line is no record of anything: its file is hashed.
    while (!file.atEnd())
    {
        const QList<QByteArray> f = file.readLine(256).trimmed().split(' ');
        bool ok[4] = {false, false, false, false};
        bool md5Ok = false;
        if (f.size() != 5)
            continue;
        const quint64 device = f[0].toULongLong(&ok[0]);
        const quint64 inode = f[1].toULongLong(&ok[1]);
        RecordedDigest d;
        d.size = f[2].toLongLong(&ok[2]);
        d.mtimeNs = f[3].toLongLong(&ok[3]);
        const BufferID id = BufferID::fromString(QString::fromLatin1(f[4]), &md5Ok);
        if (ok[0] && ok[1] && ok[2] && ok[3] && md5Ok && d.size >= 0)
        {
            d.md5 = id.md5();
            record.insert(qMakePair(device, inode), d);
        }
    }
    return record;
}
}

ClientDeployment::ClientDeployment() = default;

void ClientDeployment::clientSet(const QString& inExecutable, const QStringList& inArguments,
                                 const QStringList& inEnvironment)
{
    mClientExecutable = inExecutable;
    mClientArguments = inArguments;
    mClientEnvironment = inEnvironment;
}

void ClientDeployment::note(const QString& inText, McLogLevel inLevel)
{
    Engine::instance().trace(inLevel, inText);
    mListOfNote << QDateTime::currentDateTime().toString(Qt::ISODateWithMs) + QLatin1Char(' ') + inText;
}

McResult ClientDeployment::recoverInterrupted(const QString& inApplicationDir)
{
    McResult retVal;
    const QString journal = exchangeJournal(QDir::cleanPath(inApplicationDir));
    KsPlatform::FolderSwap::Recovery recovery = KsPlatform::FolderSwap::Recovery::Nothing;
    const KsPlatform::Status s = KsPlatform::FolderSwap::recover(local(journal), recovery);
    if (MC_CHECK_DETAIL(retVal, s.isOk(),
                        QStringLiteral("cannot finish the interrupted update of '%1'").arg(inApplicationDir),
                        s.text))
        return retVal;
    if (recovery == KsPlatform::FolderSwap::Recovery::Completed)
        Engine::instance().trace(
            McLogLevelInfo,
            QStringLiteral("recovery: the interrupted exchange of '%1' was finished").arg(inApplicationDir));
    else if (recovery == KsPlatform::FolderSwap::Recovery::Undone)
        Engine::instance().trace(
            McLogLevelInfo,
            QStringLiteral("recovery: the interrupted exchange of '%1' was undone").arg(inApplicationDir));
    return retVal;
}

McResult ClientDeployment::checkInputs()
{
    McResult retVal;
    Engine& e = Engine::instance();
    if (MC_CHECK(retVal, QDir::isAbsolutePath(mApplicationDir),
                 QStringLiteral("the application folder '%1' is not an absolute path").arg(mApplicationDir)))
        return retVal;
    mApplicationDir = QDir::cleanPath(mApplicationDir);
    if (MC_CHECK_DETAIL(retVal, QFileInfo(mApplicationDir).isDir(),
                        QStringLiteral("the application folder '%1' does not exist").arg(mApplicationDir),
                        McLib::osDetail(local(mApplicationDir), QFileInfo::exists(mApplicationDir) ? ENOTDIR : ENOENT)))
        return retVal;
    const McHandle<ResourceProduct> product = e.productResource(mProductKey);
    if (MC_CHECK(retVal, product.isNotNull(), QStringLiteral("product '%1' is not loaded").arg(mProductKey)))
        return retVal;
    const McHandle<ResourceFileDirectory> root = product->applicationDirectory();
    const QString rootPath = root.isNull() ? QString() : QDir::cleanPath(root->path());
    if (MC_CHECK_DETAIL(retVal, rootPath == mApplicationDir,
                        QStringLiteral("product '%1' does not install into '%2'").arg(mProductKey, mApplicationDir),
                        local(QStringLiteral("its application folder is '%1'").arg(rootPath))))
        return retVal;
    MC_CHECK(retVal, isInside(mClientExecutable, mApplicationDir) && QDir::cleanPath(mClientExecutable) != mApplicationDir,
             QStringLiteral("the client '%1' is not inside the application folder '%2'")
                 .arg(mClientExecutable, mApplicationDir));
    return retVal;
}

McResult ClientDeployment::programsInUse(QStringList& outPrograms) const
{
    McResult retVal;
    outPrograms.clear();
    std::vector<KsPlatform::FolderUser> users;
    const KsPlatform::Status s = KsPlatform::FolderInUse::list(local(mApplicationDir), users);
    if (MC_CHECK_DETAIL(retVal, s.isOk(),
                        QStringLiteral("cannot tell which programs use '%1'").arg(mApplicationDir), s.text))
        return retVal;
    for (const KsPlatform::FolderUser& u : users)
        outPrograms << QStringLiteral("%1 (pid %2)").arg(fromLocal(u.name)).arg(u.pid);
    return retVal;
}

McResult ClientDeployment::waitUntilNotInUse()
{
    McResult retVal;
    for (;;)
    {
        QStringList programs;
        retVal << programsInUse(programs);
        if (retVal.isBad() || programs.isEmpty())
            return retVal;
        note(QStringLiteral("programs using '%1':").arg(mApplicationDir), McLogLevelWarning);
        for (const QString& program : programs)
            note(QStringLiteral("  ") + program, McLogLevelWarning);
        if (!mInUseQuestion)
        {
            MC_CHECK_DETAIL(retVal, programs.isEmpty(),
                            QStringLiteral("the application folder '%1' is in use").arg(mApplicationDir),
                            local(programs.join(QStringLiteral(", "))));
            return retVal;
        }
        if (!mInUseQuestion(programs))
        {
            MC_CHECK_DETAIL(retVal, false,
                            QStringLiteral("the update was cancelled: the application folder '%1' is in use")
                                .arg(mApplicationDir),
                            local(programs.join(QStringLiteral(", "))));
            return retVal;
        }
    }
}

void ClientDeployment::cacheSeed()
{
    // A file the new version shares with the installed one is taken from the installed one: only
    // what changed is downloaded. The installed file is hashed, unless it still has the size and
    // time it had when its digest was last known: the install that wrote it tagged it, or a
    // finished update recorded it.
    Engine& e = Engine::instance();
    McDArray<McHandle<Resource>> resources;
    e.productResources(stagingKeyOf(mProductKey), resources);
    const QString staging = stagingDir();
    struct Seed
    {
        QString installed;
        std::string localPath;
        BufferID id;
        McLib::MD5 md5;
        QxBase::FileStamp stamp;
        bool executable = false;
        bool same = false;
        bool known = false;
    };
    std::vector<Seed> seeds;
    // A file that is still the one a finished update proved or an install tagged (same size and
    // modification time, the rule the digest memo applies within a run) is not read again.
    const DigestRecord record = digestRecordRead(digestRecordPath());
    int known = 0;
    for (int64_t i = 0; i < resources.size(); ++i)
    {
        const ResourceFileEntry* entry = dynamic_cast<const ResourceFileEntry*>(resources[i].ptr());
        if (!entry || entry->absence() || !entry->bufferId().isValid())
            continue;
        const QString path = entry->path();
        if (!path.startsWith(staging + QLatin1Char('/')))
            continue;
        // An item that is a link to a file of a client folder (one an earlier update made and
        // did not take back, killed before it could) may have changed with that file: it goes.
        const QString item = e.cache().itemFilePath(entry->bufferId());
        struct stat st;
        if (::lstat(local(item).c_str(), &st) == 0)
        {
            if (!S_ISREG(st.st_mode) || st.st_nlink <= 1)
                continue;
            ::unlink(local(item).c_str());
        }
        Seed seed;
        seed.installed = mApplicationDir + path.mid(staging.size());
        seed.localPath = local(seed.installed);
        seed.id = entry->bufferId();
        seed.executable = entry->isExecutable();
        QxBase::FileStamp now;
        const bool stamped = QxBase::File::stampOf(seed.installed, now);
        const auto at =
            record.isEmpty() || !stamped ? record.constEnd() : record.constFind(qMakePair(now.device, now.inode));
        if (at != record.constEnd() && at->size == now.size && at->mtimeNs == now.mtimeNs)
        {
            seed.known = true;
            seed.md5 = at->md5;
        }
        else if (stamped && installedFileTagged(seed.localPath, now, seed.md5))
            seed.known = true;
        if (seed.known)
        {
            seed.stamp = now;
            seed.same = BufferID(seed.md5) == seed.id;
            ++known;
        }
        seeds.push_back(seed);
    }
    // Hashing the installed files is most of the seed's work and MD5 keeps one core busy: two
    // threads take the files in turn, once there are enough of them to pay for the second.
    std::atomic<size_t> next{0};
    const auto hashSome = [&seeds, &next] {
        for (size_t i = next++; i < seeds.size(); i = next++)
        {
            Seed& seed = seeds[i];
            if (seed.known || !digestOf(seed.localPath, seed.md5, seed.stamp))
                continue;
            seed.same = BufferID(seed.md5) == seed.id;
            // What was read once is tagged: the next update need not read it again.
            if (seed.same)
                installedFileTag(seed.installed, seed.md5, seed.stamp);
        }
    };
    const size_t sSeedsForTwoThreads = 64;
    std::thread helper;
    if (seeds.size() - known >= sSeedsForTwoThreads)
        helper = std::thread(hashSome);
    hashSome();
    if (helper.joinable())
        helper.join();
    // The mode a file of the new version gets when it is written (see executableMake).
    const mode_t mask = ::umask(0);
    ::umask(mask);
    const mode_t written = 0666 & ~mask;
    QSet<QString> shared;
    int seeded = 0;
    for (const Seed& seed : seeds)
    {
        if (!seed.same)
            continue;
        scanFileRemember(seed.installed, seed.md5, seed.stamp);
        // A link to the installed file costs neither a copy nor its write-back. It is the item
        // only while the file is still the one that was hashed; where links are refused (another
        // file system), the item is a copy.
        const std::string item = local(e.cache().itemFilePath(seed.id));
        QxBase::FileStamp linked;
        if (::link(seed.localPath.c_str(), item.c_str()) == 0)
        {
            if (QxBase::File::stampOf(QFile::decodeName(item.c_str()), linked) && linked == seed.stamp)
            {
                e.trace(McLogLevelInfo, QStringLiteral("caching: %1").arg(seed.installed));
                mListOfLinkedItem << QFile::decodeName(item.c_str());
                // The staged file becomes one more link of it, unless the new version wants
                // another mode: a chmod of a shared file would change the installed version too.
                const mode_t wanted = seed.executable ? (written | 0111) : written;
                struct stat st;
                if (::stat(item.c_str(), &st) == 0 && (st.st_mode & 07777) == wanted)
                    shared.insert(mListOfLinkedItem.last());
                ++seeded;
                continue;
            }
            ::unlink(item.c_str());
        }
        // The cache's copy reads the digest from the memo instead of hashing the file again.
        if (e.cache().retrieveFromFile(seed.installed, false).isOk())
            ++seeded;
    }
    e.cache().sharedItemsSet(shared);
    note(QStringLiteral("update: %1 unchanged files taken from '%2' (%3 shared by links, %4 known without "
                        "reading them)")
             .arg(seeded)
             .arg(mApplicationDir)
             .arg(shared.size())
             .arg(known));
}

McResult ClientDeployment::folderRemove(const QString& inPath)
{
    // A link is removed, never followed.
    const QFileInfo fi(inPath);
    if (fi.isSymLink() || fi.isFile())
        return QxBase::File::removeFile(inPath);
    if (fi.exists())
        return QxBase::File::removeDir(inPath, true, {}, {});
    return McResult();
}

McResult ClientDeployment::stagingProductCreate()
{
    McResult retVal;
    Engine& e = Engine::instance();
    const QString staging = stagingDir();
    const QString stagingKey = stagingKeyOf(mProductKey);
    // Whatever an earlier update left under the name goes.
    retVal << folderRemove(staging);
    if (retVal.isBad())
        return retVal;

    // The application folder's part of the product, copied with the staging folder as its root.
    const McHandle<ResourceProduct> product = e.productResource(mProductKey);
    const McHandle<ResourceFileDirectory> root =
        product.isNull() ? McHandle<ResourceFileDirectory>() : product->applicationDirectory();
    if (MC_CHECK(retVal, root.isNotNull(), "Internal Error"))
        return retVal;
    e.productUnregisterResources(stagingKey);
    McHandle<ResourceProduct> stagingProduct(new ResourceProduct);
    stagingProduct->nameSet(stagingKey);
    McHandle<ResourceFileDirectory> stagingRoot(new ResourceFileDirectory(*root));
    stagingRoot->nameSet(staging);
    stagingProduct->applicationDirectorySet(stagingRoot);
    QHash<const Resource*, McHandle<ResourceFileDirectory>> copies;
    copies.insert(root.ptr(), stagingRoot);
    McDArray<McHandle<Resource>> resources;
    e.productResources(mProductKey, resources);
    // Folders before what they hold: walked again until no more can be placed.
    QList<const Resource*> pending;
    for (int64_t i = 0; i < resources.size(); ++i)
        if (dynamic_cast<const ResourceFileDirectory*>(resources[i].ptr()) ||
            dynamic_cast<const ResourceFileEntry*>(resources[i].ptr()))
            pending << resources[i].ptr();
    for (bool placed = true; placed;)
    {
        placed = false;
        for (auto it = pending.begin(); it != pending.end();)
        {
            const Resource* r = *it;
            const ResourceFileDirectory* dir = dynamic_cast<const ResourceFileDirectory*>(r);
            const ResourceFileEntry* entry = dynamic_cast<const ResourceFileEntry*>(r);
            const McHandle<ResourceFileDirectory> container = dir ? dir->container() : entry->container();
            if (copies.contains(r) || container.isNull() || !copies.contains(container.ptr()))
            {
                it = copies.contains(r) || container.isNull() ? pending.erase(it) : it + 1;
                continue;
            }
            if (dir)
            {
                McHandle<ResourceFileDirectory> copy(new ResourceFileDirectory(*dir));
                copy->containerSet(copies.value(container.ptr()));
                copies.insert(r, copy);
            }
            else
            {
                McHandle<ResourceFileEntry> copy(new ResourceFileEntry(*entry));
                copy->containerSet(copies.value(container.ptr()));
            }
            it = pending.erase(it);
            placed = true;
        }
    }
    return retVal;
}

bool ClientDeployment::stages(const ResourceProduct* inProduct) const
{
    return inProduct && !mProductKey.isEmpty() && inProduct->name() == stagingKeyOf(mProductKey);
}

void ClientDeployment::stagingBegin()
{
    mStagingBegun = true;
    note(QStringLiteral("update: staging the new version in '%1'").arg(stagingDir()));
    cacheSeed();
}

McResult ClientDeployment::stagingVerify()
{
    McResult retVal;
    Engine& e = Engine::instance();
    const QString stagingKey = stagingKeyOf(mProductKey);
    const QString staging = stagingDir();
    retVal << e.productVerify(stagingKey);
    mStaged = retVal.isOk();
    // What the verify proved, with the stamps the files have now: after the exchange the rest of
    // the product's install need not hash them again.
    mListOfStaged.clear();
    if (!mStaged)
        return retVal;
    McDArray<McHandle<Resource>> staged;
    e.productResources(stagingKey, staged);
    for (int64_t i = 0; i < staged.size(); ++i)
    {
        const ResourceFileEntry* entry = dynamic_cast<const ResourceFileEntry*>(staged[i].ptr());
        StagedFile file;
        if (entry && !entry->absence() && entry->bufferId().isValid() &&
            entry->path().startsWith(staging + QLatin1Char('/')) && QxBase::File::stampOf(entry->path(), file.stamp))
        {
            file.relative = entry->path().mid(staging.size());
            file.md5 = entry->bufferId().md5();
            mListOfStaged.push_back(file);
        }
    }
    return retVal;
}

McResult ClientDeployment::stagingAbandon()
{
    McResult retVal;
    const QString staging = stagingDir();
    if (QFileInfo::exists(staging) || QFileInfo(staging).isSymLink())
        folderRemove(staging);
    if (mStagingBegun && !mStaged)
        MC_CHECK(retVal, false, QStringLiteral("the new version could not be staged in '%1'").arg(staging));
    return retVal;
}

void ClientDeployment::stagedRemember()
{
    // A rename keeps a file's content, inode and times: what the verify proved of the staging
    // folder holds for the application folder, and the rest of the product's install need not
    // hash every file again.
    for (const StagedFile& file : mListOfStaged)
    {
        const QString path = mApplicationDir + file.relative;
        QxBase::FileStamp now;
        if (QxBase::File::stampOf(path, now) && now == file.stamp)
            scanFileRemember(path, file.md5, now);
    }
}

McResult ClientDeployment::exchange()
{
    McResult retVal;
    // Before the exchange, so that a kill right after it leaves the record of what came in; the
    // flush below puts it on the device with the staged files.
    retVal << unfinishedWrite();
    if (retVal.isBad())
        return retVal;
    // The install flushes its files only after its hooks: they must be on the device before
    // their folder takes the application folder's name.
    retVal << Engine::instance().productTransactionFlush(stagingKeyOf(mProductKey));
    if (retVal.isBad())
        return retVal;
    // A version that an interrupted update replaced is a leftover by now.
    retVal << folderRemove(replacedDir());
    if (retVal.isBad())
        return retVal;
    bool atomic = false;
    const KsPlatform::Status s = KsPlatform::FolderSwap::exchange(local(mApplicationDir), local(stagingDir()),
                                                                  local(exchangeJournal(mApplicationDir)), atomic);
    if (MC_CHECK_DETAIL(retVal, s.isOk(),
                        QStringLiteral("cannot exchange '%1' and '%2'").arg(mApplicationDir, stagingDir()), s.text))
        return retVal;
    mExchanged = true;
    note(QStringLiteral("update: exchanged '%1' and '%2'%3")
             .arg(mApplicationDir, stagingDir(), atomic ? QString() : QStringLiteral(" (journaled renames)")));
    // The staging install is not committed yet: its rollback, or the recovery of its journal after
    // a kill, removes what it wrote below the staging folder's name, which now holds the replaced
    // version. Under a name of its own that version is out of their reach.
    if (std::rename(local(stagingDir()).c_str(), local(replacedDir()).c_str()) == 0)
    {
        stagedRemember();
        return retVal;
    }
    const int error = errno;
    // Not out of reach: the two go back, so that the rollback finds the new version there.
    const KsPlatform::Status back = KsPlatform::FolderSwap::exchange(local(mApplicationDir), local(stagingDir()),
                                                                     local(exchangeJournal(mApplicationDir)), atomic);
    if (back.isOk())
        mExchanged = false;
    MC_CHECK_DETAIL(retVal, false, QStringLiteral("cannot keep the replaced version in '%1'").arg(replacedDir()),
                    McLib::osDetail(local(stagingDir()), error));
    return retVal;
}

McResult ClientDeployment::unfinishedWrite()
{
    McResult retVal;
    if (mDescription.isEmpty())
        return retVal;
    const QString target = unfinishedDescription(mApplicationDir);
    const QString part = target + QStringLiteral(".part");
    QFile::remove(part);
    const bool copied = QFile::copy(mDescription, part);
    if (MC_CHECK_DETAIL(retVal, copied, QStringLiteral("cannot keep the new version's description in '%1'").arg(target),
                        McLib::osDetail(local(mDescription), errno)))
        return retVal;
    const bool renamed = std::rename(local(part).c_str(), local(target).c_str()) == 0;
    MC_CHECK_DETAIL(retVal, renamed, QStringLiteral("cannot keep the new version's description in '%1'").arg(target),
                    McLib::osDetail(local(target), errno));
    if (!renamed)
        QFile::remove(part);
    mUnfinishedWritten = renamed;
    return retVal;
}

McResult ClientDeployment::exchangeBack()
{
    McResult retVal;
    bool atomic = false;
    const KsPlatform::Status s = KsPlatform::FolderSwap::exchange(local(mApplicationDir), local(replacedDir()),
                                                                  local(exchangeJournal(mApplicationDir)), atomic);
    if (MC_CHECK_DETAIL(retVal, s.isOk(),
                        QStringLiteral("cannot exchange '%1' and '%2'").arg(mApplicationDir, replacedDir()), s.text))
        return retVal;
    mExchanged = false;
    note(QStringLiteral("update: exchanged '%1' and '%2'%3")
             .arg(mApplicationDir, replacedDir(), atomic ? QString() : QStringLiteral(" (journaled renames)")));
    return retVal;
}

McResult ClientDeployment::clientStart(bool inWatch)
{
    McResult retVal;
    KsPlatform::ProcessStart start;
    const QFileInfo program(mClientExecutable);
    start.program = local(program.absoluteFilePath());
    start.workingDirectory = local(program.absolutePath());
    for (const QString& a : mClientArguments)
        start.arguments.push_back(local(a));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const QString& entry : mClientEnvironment)
    {
        const int eq = entry.indexOf(QLatin1Char('='));
        if (eq > 0)
            environment.insert(entry.left(eq), entry.mid(eq + 1));
    }
    for (const QString& entry : environment.toStringList())
        start.environment.push_back(local(entry));

    if (!inWatch)
    {
        KsPlatform::Process process;
        const KsPlatform::Status s = process.start(start, false);
        MC_CHECK_DETAIL(retVal, s.isOk(), QStringLiteral("cannot start the client '%1'").arg(mClientExecutable),
                        s.text);
        if (s.isOk())
            note(QStringLiteral("update: started '%1' (pid %2)").arg(mClientExecutable).arg(process.processId()));
        return retVal;
    }
    KsPlatform::ProcessWatch::StartOutcome outcome;
    const KsPlatform::Status s = KsPlatform::ProcessWatch::startWatched(start, mStartWatchMs, outcome);
    if (MC_CHECK_DETAIL(retVal, s.isOk(), QStringLiteral("cannot start the client '%1'").arg(mClientExecutable),
                        s.text))
        return retVal;
    MC_CHECK_DETAIL(retVal, !outcome.failed(),
                    QStringLiteral("the new client failed to start: '%1' ended with status %2 within %3 ms")
                        .arg(mClientExecutable)
                        .arg(outcome.exitCode)
                        .arg(mStartWatchMs),
                    local(QStringLiteral("%1: the previous version is put back").arg(mApplicationDir)));
    if (retVal.isOk())
        note(QStringLiteral("update: started '%1' (pid %2)").arg(mClientExecutable).arg(outcome.pid));
    return retVal;
}

void ClientDeployment::linkedItemsRemove()
{
    // The installed version stays in use: the cache may not share its files.
    for (const QString& item : mListOfLinkedItem)
        QFile::remove(item);
    mListOfLinkedItem.clear();
}

McResult ClientDeployment::failed(McResult inResult, Outcome inOutcome)
{
    mOutcome = inOutcome;
    if (inOutcome != Outcome::Updated)
    {
        linkedItemsRemove();
        // The old version is in place again, as its records say. A note that an earlier update
        // left stays for the launch that finishes it.
        if (mUnfinishedWritten)
            QFile::remove(unfinishedDescription(mApplicationDir));
    }
    note(inOutcome == Outcome::RolledBack ? QStringLiteral("update: failed; the previous version was put back")
                                          : QStringLiteral("update: failed; nothing was changed"),
         McLogLevelError);
    if (mFailureHandling)
    {
        Engine::instance().progress().reportUpdateFailure();
        if (QFileInfo(mClientExecutable).isFile())
            inResult << clientStart(false);
    }
    return inResult;
}

void ClientDeployment::succeeded()
{
    // The old version is kept as the previous one until the next update has worked.
    const QString previous = previousDir();
    folderRemove(previous);
    if (QDir().rename(replacedDir(), previous))
        note(QStringLiteral("update: the previous version is kept in '%1'").arg(previous));
    else
        note(QStringLiteral("update: the previous version could not be kept in '%1'").arg(previous), McLogLevelWarning);
    mOutcome = Outcome::Updated;
    digestRecordWrite();
    note(QStringLiteral("update: done"));
}

QString ClientDeployment::digestRecordPath() const
{
    return mWorkDir.isEmpty() ? QString() : mWorkDir + QStringLiteral("/installed.digests");
}

void ClientDeployment::digestRecordWrite()
{
    // The files the verify proved, as they are now in the application folder: written whole or
    // not at all, since a half record would only cost the next update its reading.
    const QString path = digestRecordPath();
    if (path.isEmpty() || !QDir().mkpath(mWorkDir))
        return;
    QByteArray text;
    for (const StagedFile& file : mListOfStaged)
    {
        QxBase::FileStamp now;
        if (!QxBase::File::stampOf(mApplicationDir + file.relative, now))
            continue;
        text += QByteArray::number(now.device) + ' ' + QByteArray::number(now.inode) + ' ' +
                QByteArray::number(now.size) + ' ' + QByteArray::number(now.mtimeNs) + ' ' +
                BufferID(file.md5).toString().toLatin1() + '\n';
    }
    QSaveFile save(path);
    if (!save.open(QIODevice::WriteOnly) || save.write(text) != text.size() || !save.commit())
        note(QStringLiteral("update: the record of the installed files could not be written: '%1'").arg(path),
             McLogLevelWarning);
}

McResult ClientDeployment::run()
{
    McResult retVal;
    Engine& e = Engine::instance();
    const QDateTime started = QDateTime::currentDateTime();
    mStarted = started;
    mListOfNote.clear();
    mStagingBegun = mStaged = mExchanged = mHookEnded = mUnfinishedWritten = false;
    mHookResult = McResult();
    mRecordPath =
        mWorkDir.isEmpty()
            ? QString()
            : QStringLiteral("%1/update-%2.log").arg(mWorkDir, started.toString(QStringLiteral("yyyyMMdd-HHmmss-zzz")));
    if (mParentPid > 0)
    {
        bool ended = false;
        KsPlatform::ProcessWatch::waitForEnd(mParentPid, mParentTimeoutMs, ended);
        if (MC_CHECK(retVal, ended,
                     QStringLiteral("the program that started the update did not end (pid %1)").arg(mParentPid)))
        {
            retVal = failed(retVal, Outcome::Unchanged);
            recordWrite();
            return retVal;
        }
    }
    retVal << checkInputs();
    if (retVal.isOk())
        retVal << recoverInterrupted(mApplicationDir);
    if (retVal.isOk())
        retVal << stagingProductCreate();
    // The update's steps are the client plugin's install hooks.
    const QString plugin = PluginKestraClient::instance().name();
    if (retVal.isOk() && !e.pluginIsRegistered(plugin))
        retVal << e.pluginRegister(plugin);
    if (retVal.isBad())
    {
        e.productUnregisterResources(stagingKeyOf(mProductKey));
        retVal = failed(retVal, Outcome::Unchanged);
        freeResources();
        recordWrite();
        return retVal;
    }

    sActive = this;
    retVal << e.productInstall(stagingKeyOf(mProductKey), false);
    sActive = nullptr;
    // Only the staging install links the installed version's files.
    e.cache().sharedItemsSet(QSet<QString>());
    e.productUnregisterResources(stagingKeyOf(mProductKey));
    if (mHookEnded)
        retVal << mHookResult;
    else
    {
        // The install refused the product before its hooks ran.
        retVal << stagingAbandon();
        retVal = failed(retVal, Outcome::Unchanged);
        freeResources();
    }
    recordWrite();
    return retVal;
}

QStringList ClientDeployment::freeResources()
{
    QStringList removed;
    // Staging folders of updates that did not get as far as the end.
    if (!mApplicationDir.isEmpty())
    {
        const QFileInfo app(QDir::cleanPath(mApplicationDir));
        const QFileInfoList leftovers =
            app.dir().entryInfoList(QStringList(app.fileName() + QStringLiteral(".staging*")),
                                    QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
        for (const QFileInfo& fi : leftovers)
        {
            const McResult r = fi.isDir() && !fi.isSymLink() ? QxBase::File::removeDir(fi.filePath(), true, {}, {})
                                                             : QxBase::File::removeFile(fi.filePath());
            if (r.isOk())
                removed << fi.filePath();
        }
    }
    // Records of earlier updates: this run's stay.
    if (!mWorkDir.isEmpty())
    {
        const QFileInfoList records = QDir(mWorkDir).entryInfoList({QStringLiteral("*.log"), QStringLiteral("*.xml")},
                                                                   QDir::Files | QDir::Hidden | QDir::System);
        for (const QFileInfo& fi : records)
            if ((!mStarted.isValid() || fi.lastModified() < mStarted) &&
                QxBase::File::removeFile(fi.absoluteFilePath()).isOk())
                removed << fi.absoluteFilePath();
    }
    for (const QString& path : removed)
        note(QStringLiteral("removed: %1").arg(path));
    return removed;
}

void ClientDeployment::recordWrite()
{
    if (mRecordPath.isEmpty() || !QDir().mkpath(mWorkDir))
        return;
    QFile file(mRecordPath);
    if (file.open(QIODevice::WriteOnly | QIODevice::Append))
        QxBase::File::writeAll(file, (mListOfNote.join(QLatin1Char('\n')) + QLatin1Char('\n')).toLocal8Bit());
}
}
