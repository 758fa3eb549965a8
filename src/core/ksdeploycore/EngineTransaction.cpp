// Product transactions: a snapshot of the installed state, thrown away on commit and
// installed again on rollback.
#include "Engine.h"

#include "Cache.h"
#include "Common.h"
#include "FileHashAhead.h"
#include "Link.h"
#include "Progress.h"
#include "Property.h"
#include "RegistryStore.h"
#include "Resource.h"
#include "ResourceFactory.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"
#include "ResourceRegistryKey.h"
#include "ResourceRegistryValue.h"
#include "TransactionJournal.h"

#include "Durability.h"
#include "DurabilityWriteback.h"
#include "InterruptSignals.h"
#include "ProductLock.h"
#include "TemporaryOwner.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <map>

#include <sys/stat.h>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
QString tr(const char* inText) { return QCoreApplication::translate("KsDeploy::Engine", inText); }

std::string local(const QString& inPath) { return QFile::encodeName(inPath).toStdString(); }

int sFailureReportsHeld = 0;
// The first failure reported while held since it was last taken: it carries the system's reason,
// which the results passed up do not.
std::string sFirstHeldReport;

bool keepFirstHeldReport(const McResult& inResult)
{
    if (sFailureReportsHeld > 0 && sFirstHeldReport.empty())
        sFirstHeldReport = *inResult.detail() ? inResult.detail() : inResult.text();
    return true;
}

// Failures are gathered, not reported one by one, while one of these lives.
struct FailureReportsHold
{
    FailureReportsHold()
    {
        if (sFailureReportsHeld++ == 0)
        {
            sFirstHeldReport.clear();
            McResult::notificationCallbackAdd(&keepFirstHeldReport);
        }
    }
    ~FailureReportsHold()
    {
        if (--sFailureReportsHeld == 0)
            McResult::notificationCallbackRemove(&keepFirstHeldReport);
    }
};

// "... (No space left on device)" gives the reason alone; other texts stay whole.
QString reasonOf(const std::string& inReport)
{
    const QString text = QString::fromLocal8Bit(inReport.c_str());
    const int open = text.lastIndexOf(QStringLiteral(" ("));
    if (text.endsWith(QLatin1Char(')')) && open > 0)
        return text.mid(open + 2, text.size() - open - 3);
    return text;
}

// From how many files on a change's data is written back while it runs.
const int64_t sWritebackFiles = 1000;

// How many of the paths that could not be restored the report names.
const int sRollbackPathsShown = 3;

// The temporary names that writes use beside their targets, left there by a write that was cut
// short: files (QxBase::File::temporaryPathBeside, only once their writer is gone, as a folder
// may be shared with another product's change) and shortcuts (KsPlatform::shortcutWrite).
bool isLeftOverTemporary(const QFileInfo& inFile)
{
    static const QRegularExpression sPattern(
        QStringLiteral("^(\\..+\\.([0-9]+)\\.[0-9a-f]{16}\\.part|\\.ksdeploy-shortcut-[A-Za-z0-9]{6})$"));
    const QRegularExpressionMatch m = sPattern.match(inFile.fileName());
    if (!m.hasMatch())
        return false;
    const long writer = m.captured(2).toLong();
    return m.captured(2).isEmpty() || writer == KsPlatform::TemporaryOwner::self() ||
           KsPlatform::TemporaryOwner::isGone(writer,
                                              static_cast<std::time_t>(inFile.lastModified().toSecsSinceEpoch()));
}
}

namespace
{
// The nearest folder at or above a path that exists: where the file system of what will be
// written there can be looked at.
QString existingFolderAt(QString inFolder)
{
    unsigned long long id = 0;
    while (!KsPlatform::fileSystemId(local(inFolder), id))
    {
        const int cut = inFolder.lastIndexOf(QLatin1Char('/'));
        if (cut <= 0)
            return QStringLiteral("/");
        inFolder.truncate(cut);
    }
    return inFolder;
}
}

bool Engine::failureReportsHeld() { return sFailureReportsHeld > 0; }

McResult Engine::productCloneResources(const QString& inKey, const QString& inCloneKey)
{
    McResult retVal;
    McDArray<McHandle<Resource>> resAllOrig;
    productResources(inKey, resAllOrig);

    QHash<QUuid, McHandle<Resource>> orig2clone;
    orig2clone.reserve(static_cast<int>(resAllOrig.size()));
    McDArray<McHandle<Resource>> resAllClon;
    for (int64_t i = 0; i < resAllOrig.size(); ++i)
    {
        const McHandle<Resource>& orig = resAllOrig[i];
        const QString className = ResourceFactory::className(orig.ptr());
        MC_ASSERT(!className.isEmpty());
        McHandle<Resource> clone = ResourceFactory::create(className);
        MC_ASSERT(clone.isNotNull());
        if (clone.isNull())
            continue;
        MC_ASSERT(!orig2clone.contains( orig->uuid() ));
        // Every property but the identity: the clone keeps its own fresh UUID.
        const QHash<QString, PropertyBase<Resource>*>& props = orig->properties();
        for (auto it = props.constBegin(); it != props.constEnd(); ++it)
            if (it.key() != QLatin1String("UUID"))
                it.value()->copyValue(clone.ptr(), orig.ptr());
        if (dynamic_cast<ResourceProduct*>(orig.ptr()))
        {
            ResourceProduct* p = dynamic_cast<ResourceProduct*>(clone.ptr());
            MC_ASSERT(p!=0);
            if (p)
                p->nameSet(inCloneKey);
        }
        orig2clone.insert(orig->uuid(), clone);
        resAllClon.append(clone);
    }
    for (int64_t i = 0; i < resAllClon.size(); ++i)
        resourceRegister(resAllClon[i]);
    MC_ASSERT(resAllOrig.size() == resAllClon.size());

    for (int64_t i = 0; i < resAllOrig.size(); ++i)
    {
        const McHandle<Resource>& orig = resAllOrig[i];
        const McHandle<Resource> clone = orig2clone.value(orig->uuid());
        if (clone.isNull())
            continue;
        const McDArray<McHandle<Link>>& links = orig->links();
        for (int64_t l = 0; l < links.size(); ++l)
        {
            const Resource& origTo = links[l]->target();
            if (MC_CHECK(retVal, orig2clone.contains(origTo.uuid()), "Internal Error"))
                return retVal;
            const McHandle<Resource> clonTo = orig2clone.value(origTo.uuid());
            MC_ASSERT(clonTo.isNotNull());
            if (clonTo.isNotNull())
                clone->linkAdd(*clonTo, links[l]->name());
        }
    }
    return retVal;
}

McResult Engine::productTransactionBegin(const QString& inKey)
{
    McResult retVal;
    const QString cloneKey = QStringLiteral("_") + inKey;
    progress().taskStartNext(tr("Transaction Begin"));
    retVal << productLock(inKey);
    if (retVal.isBad())
        return retVal;
    retVal << productCloneResources(inKey, cloneKey);
    if (retVal.isBad())
        return retVal;
    const McHandle<ResourceProduct> resProductClone = productResource(cloneKey);
    if (MC_CHECK(retVal, resProductClone.isNotNull(), "Internal Error"))
        return retVal;
    McDArray<McHandle<Resource>> clones;
    productResources(cloneKey, clones);
    // The snapshot describes what is on the machine now, not what the description says.
    QStringList& newDirs = mListOfTransactionNewDirs[inKey];
    newDirs.clear();
    QSet<const ResourceFileDirectory*> missingDirs;
    QSet<QString> recorded;
    for (int64_t i = 0; i < clones.size(); ++i)
    {
        if (auto* dir = dynamic_cast<ResourceFileDirectory*>(clones[i].ptr()))
        {
            const QString dirPath = dir->path();
            const QFileInfo info(dirPath);
            if (!dirPath.isEmpty() && !info.exists() && !info.isSymLink())
            {
                missingDirs.insert(dir);
                // Making a folder makes its missing parents too; they go with it on rollback.
                QString missing = QDir::cleanPath(dirPath);
                while (!missing.isEmpty() && !recorded.contains(missing))
                {
                    recorded.insert(missing);
                    newDirs.append(missing);
                    const int cut = missing.lastIndexOf(QLatin1Char('/'));
                    if (cut <= 0)
                        break;
                    missing.truncate(cut);
                    const QFileInfo parent(missing);
                    if (parent.exists() || parent.isSymLink())
                        break;
                }
            }
        }
    }
    // A file's path begins with its folder's, so in a folder that is not there no file is:
    // a first install needs no look at each of its files. The others are hashed on every core
    // ahead of the scan below.
    QStringList present;
    std::vector<int> presentOf(static_cast<size_t>(clones.size()), -1);
    for (int64_t i = 0; i < clones.size(); ++i)
    {
        auto* entry = dynamic_cast<ResourceFileEntry*>(clones[i].ptr());
        if (!entry || (!missingDirs.isEmpty() && missingDirs.contains(entry->container().ptr())))
            continue;
        const QString path = entry->path();
        if (path.isEmpty())
            continue;
        presentOf[static_cast<size_t>(i)] = static_cast<int>(present.size());
        present.append(path);
    }
    FileHashAhead ahead(present);
    for (int64_t i = 0; i < clones.size(); ++i)
    {
        // Hashing a big product takes a while: an interrupt stops it at the next resource.
        if (productInterrupted(retVal, mOperationRunning))
            break;
        auto* entry = dynamic_cast<ResourceFileEntry*>(clones[i].ptr());
        if (entry && !missingDirs.isEmpty() && missingDirs.contains(entry->container().ptr()))
        {
            entry->absenceFound();
            continue;
        }
        ahead.record(presentOf[static_cast<size_t>(i)]);
        retVal << clones[i]->scan();
        if (retVal.isBad())
            break;
    }
    if (retVal.isOk())
        retVal << cache().retrieveFromResources(clones, false);
    // The copy stops at a pending interrupt too, and leaves saying so to us.
    if (retVal.isOk())
        productInterrupted(retVal, mOperationRunning);
    // Written before the first change: from here on a later start can undo this one.
    if (retVal.isOk())
        retVal << productTransactionJournalWrite(inKey, mOperationRunning, clones);
    // An incomplete snapshot must never be installed back: it would hold the description's
    // contents instead of the machine's. Nothing was changed yet, so there is nothing to undo.
    if (retVal.isBad())
    {
        productUnregisterResources(cloneKey);
        mListOfTransactionNewDirs.remove(inKey);
    }
    return retVal;
}

McResult Engine::pathOfJournalDir(QString& outValue) const
{
    McResult retVal = pathOfMaintenanceDir(outValue);
    if (retVal.isBad())
        return retVal;
    outValue += QStringLiteral("/Journal");
    const bool made = QDir().mkpath(outValue);
    MC_CHECK_DETAIL(retVal, made && QFileInfo(outValue).isDir(), "failed to create the transaction journal folder",
                    local(outValue) + ": cannot be created");
    if (retVal.isBad())
        outValue.clear();
    return retVal;
}

McResult Engine::productLock(const QString& inKey)
{
    McResult retVal;
    if (mListOfProductLock.contains(inKey))
        return retVal;
    QString folder;
    retVal << pathOfJournalDir(folder);
    if (retVal.isBad())
        return retVal;
    const TransactionJournal names(folder, inKey);
    auto lock = std::make_shared<KsPlatform::ProductLock>();
    long owner = 0;
    const KsPlatform::Status status = lock->acquire(local(names.lockPath()), owner);
    if (status.isBad() && status.code == EWOULDBLOCK)
    {
        MC_CHECK_DETAIL(retVal, false,
                        QStringLiteral("product '%1' is being changed by another process (pid %2)").arg(inKey).arg(owner),
                        local(names.lockPath()) + ": locked by process " + std::to_string(owner));
        return retVal;
    }
    if (MC_CHECK_DETAIL(retVal, status.isOk(), QStringLiteral("failed to lock product '%1'").arg(inKey), status.text))
        return retVal;
    mListOfProductLock.insert(inKey, lock);
    return retVal;
}

void Engine::productUnlock(const QString& inKey)
{
    const std::shared_ptr<KsPlatform::ProductLock> lock = mListOfProductLock.take(inKey);
    if (lock)
        lock->release();
}

McResult Engine::productTransactionJournalWrite(const QString& inKey, const QString& inOperation,
                                                const McDArray<McHandle<Resource>>& inSnapshot)
{
    McResult retVal;
    mListOfJournal.remove(inKey);
    // Without a journal on disk (benchmarks only) the same record still serves this process's
    // own rollback.
    QString folder;
    if (mTransactionJournal)
        retVal << pathOfJournalDir(folder);
    if (retVal.isBad())
        return retVal;
    auto journal = std::make_shared<TransactionJournal>(folder, inKey);
    journal->operation = inOperation;
    journal->processId = static_cast<qint64>(::getpid());
    journal->newDirs = mListOfTransactionNewDirs.value(inKey);
    bool anyFileKept = false;
    int64_t files = 0;
    QSet<QString> folders;
    std::map<QString, bool> keys;
    if (mTransactionJournal)
    {
        // A later start may not know this run's configuration: the snapshot is saved resolved.
        // Texts that do not resolve are saved as they are, without a word.
        for (int64_t i = 0; i < inSnapshot.size(); ++i)
            inSnapshot[i]->propertiesRewrite([this](QString& inoutText) {
                QString resolved = inoutText;
                if (mConfiguration.resolveQuietly(resolved))
                    inoutText = resolved;
            });
    }
    for (int64_t i = 0; i < inSnapshot.size() && retVal.isOk(); ++i)
    {
        Resource* r = inSnapshot[i].ptr();
        if (auto* dir = dynamic_cast<ResourceFileDirectory*>(r))
        {
            const QString dirPath = QDir::cleanPath(dir->path());
            if (!dirPath.isEmpty() && !folders.contains(dirPath))
            {
                folders.insert(dirPath);
                journal->tempFolders << dirPath;
            }
        }
        else if (auto* entry = dynamic_cast<ResourceFileEntry*>(r))
        {
            anyFileKept = anyFileKept || (!entry->absence() && entry->bufferId().isValid());
            ++files;
        }
        else if (auto* shortcut = dynamic_cast<ResourceFileShortcut*>(r))
        {
            // A shortcut's scan cannot read back every byte of its file, so the file itself is
            // kept, in the cache like the snapshot's file contents.
            TransactionJournal::ShortcutState state;
            state.path = shortcut->path();
            struct stat st;
            if (state.path.isEmpty())
                continue;
            if (::lstat(local(state.path).c_str(), &st) == 0)
            {
                // A folder or a link in its place is not what the change writes over.
                if (!S_ISREG(st.st_mode))
                    continue;
                const McLib::MD5 md5 = scanFile(state.path);
                if (MC_CHECK_DETAIL(retVal, !md5.isNull(), "failed to keep the shortcut",
                                    McLib::osDetail(local(state.path), EACCES)))
                    break;
                retVal << cache().retrieveFromFile(state.path, false);
                if (retVal.isBad())
                    break;
                state.existed = true;
                state.md5 = BufferID(md5).toString();
                state.mode = static_cast<unsigned int>(st.st_mode & 07777);
                anyFileKept = true;
            }
            journal->shortcuts.append(state);
        }
        else if (auto* key = dynamic_cast<ResourceRegistryKey*>(r))
        {
            // The key and each missing parent: a rollback removes what the change created.
            ResourceRegistryKey::Place at;
            retVal << key->locate(at);
            if (retVal.isBad())
                break;
            QString keyPath = key->path();
            std::string sub = at.path;
            while (!sub.empty() && !keys.count(keyPath))
            {
                const bool existed = at.registry->keyOpen(at.root, sub).isOk();
                keys[keyPath] = existed;
                journal->registryKeys.append({keyPath, existed});
                if (existed)
                    break;
                const size_t cut = sub.rfind('\\');
                if (cut == std::string::npos)
                    break;
                sub.resize(cut);
                keyPath.truncate(keyPath.lastIndexOf(QLatin1Char('\\')));
            }
        }
        else if (auto* value = dynamic_cast<ResourceRegistryValue*>(r))
        {
            const McHandle<ResourceRegistryKey> key = value->container();
            if (key.isNull())
                continue;
            ResourceRegistryKey::Place at;
            retVal << key->locate(at);
            if (retVal.isBad())
                break;
            TransactionJournal::RegistryValueState state;
            state.keyPath = key->path();
            state.name = value->name();
            FailureReportsHold quiet;
            mConfiguration.resolve(state.name);
            std::string data;
            const KsPlatform::Status status =
                at.registry->valueQuery(at.root, at.path, state.name.toLatin1().toStdString(), state.type, data);
            if (status.isBad() && status.code != KsPlatform::RegistryNotFound)
            {
                KS_CHECK_REGISTRY(retVal, status);
                break;
            }
            state.existed = status.isOk();
            state.data = QByteArray(data.data(), static_cast<int>(data.size()));
            journal->registryValues.append(state);
        }
    }
    if (retVal.isBad())
        return retVal;
    // The old contents the snapshot points at must be on the device before the journal is.
    if (mTransactionFlush && anyFileKept)
    {
        QString cachePath;
        retVal << pathToCache(cachePath);
        if (retVal.isOk())
        {
            const KsPlatform::Status status = KsPlatform::fileSystemFlush(local(cachePath));
            MC_CHECK_DETAIL(retVal, status.isOk(), "failed to flush the content cache", status.text);
        }
        if (retVal.isBad())
            return retVal;
    }
    if (mTransactionJournal)
        retVal << journal->write(inSnapshot, mTransactionFlush);
    if (retVal.isOk())
        mListOfJournal.insert(inKey, journal);
    // The disk writes a big change's data back while it goes on, so that its flush at the commit
    // does not have to wait for all of it. A small change's flush is short anyway.
    if (retVal.isOk() && mTransactionFlush && files >= sWritebackFiles)
    {
        std::vector<std::string> folders;
        QSet<QString> seen;
        for (const QString& folder : journal->tempFolders)
        {
            const QString at = existingFolderAt(folder);
            if (!seen.contains(at))
            {
                seen.insert(at);
                folders.push_back(local(at));
            }
        }
        auto writeback = std::make_shared<KsPlatform::DurabilityWriteback>();
        writeback->start(folders);
        mListOfWriteback.insert(inKey, writeback);
    }
    return retVal;
}

McResult Engine::productTransactionFlush(const QString& inKey)
{
    McResult retVal;
    const std::shared_ptr<TransactionJournal> journal = mListOfJournal.value(inKey);
    if (!mTransactionFlush || !journal)
        return retVal;
    // One flush per file system the change wrote to, however many files it wrote.
    mListOfWriteback.remove(inKey);
    QSet<unsigned long long> flushed;
    for (const QString& written : journal->tempFolders)
    {
        const QString folder = existingFolderAt(written);
        unsigned long long id = 0;
        if (!KsPlatform::fileSystemId(local(folder), id) || flushed.contains(id))
            continue;
        flushed.insert(id);
        const KsPlatform::Status status = KsPlatform::fileSystemFlush(local(folder));
        if (MC_CHECK_DETAIL(retVal, status.isOk(), "failed to flush the installed files", status.text))
            return retVal;
    }
    return retVal;
}

void Engine::transactionDurabilitySet(bool inFlush, bool inJournal)
{
    mTransactionFlush = inFlush;
    mTransactionJournal = inJournal;
}

void Engine::productTransactionCommit(const QString& inKey)
{
    progress().taskStartNext(tr("Transaction Commit"));
    mListOfWriteback.remove(inKey);
    mListOfTransactionNewDirs.remove(inKey);
    productUnregisterResources(QStringLiteral("_") + inKey);
    const std::shared_ptr<TransactionJournal> journal = mListOfJournal.take(inKey);
    if (journal)
        journal->remove(mTransactionFlush);
    productUnlock(inKey);
}

void Engine::productTransactionRollback(const QString& inKey)
{
    progress().taskStartNext(tr("Transaction Rollback"));
    KsPlatform::InterruptSignals::rollingBackSet(true);
    mListOfWriteback.remove(inKey);
    const QString cloneKey = QStringLiteral("_") + inKey;
    const std::shared_ptr<TransactionJournal> journal = mListOfJournal.take(inKey);
    const bool recovering = mListOfRecovering.take(inKey);
    mRollbackFailures.clear();
    {
        FailureReportsHold quiet;
        if (productResource(cloneKey).isNotNull())
            productInstall(cloneKey, true);
        productUnregisterResources(cloneKey);
        if (journal)
            productTransactionShortcutsRestore(*journal);
        // Within this process the registry store's own transaction undoes every change; after
        // a crash that transaction is gone (or was committed), so the journal's values go back.
        if (recovering && journal)
        {
            RegistryTransaction restore;
            McResult res;
            KsPlatform::Registry* registry = nullptr;
            if (!journal->registryKeys.isEmpty() || !journal->registryValues.isEmpty())
                res << RegistryStore::instance(registry);
            const auto failed = [&](const QString& inPath, const KsPlatform::Status& inStatus) {
                mRollbackFailures << inPath + QStringLiteral(": ") + QString::fromLocal8Bit(inStatus.text.c_str());
            };
            for (const TransactionJournal::RegistryKeyState& k : journal->registryKeys)
            {
                KsPlatform::RegistryRoot root;
                std::string sub;
                if (registry && k.existed && RegistryStore::splitPath(k.path, root, sub))
                {
                    const KsPlatform::Status status = registry->keyCreate(root, sub);
                    if (status.isBad())
                        failed(k.path, status);
                }
            }
            for (const TransactionJournal::RegistryValueState& v : journal->registryValues)
            {
                KsPlatform::RegistryRoot root;
                std::string sub;
                if (!registry || !RegistryStore::splitPath(v.keyPath, root, sub))
                    continue;
                const std::string name = v.name.toLatin1().toStdString();
                KsPlatform::Status status;
                if (v.existed)
                    status = registry->valueSet(root, sub, name, v.type,
                                                std::string(v.data.constData(), static_cast<size_t>(v.data.size())));
                else
                {
                    status = registry->valueDelete(root, sub, name);
                    if (status.code == KsPlatform::RegistryNotFound)
                        status = KsPlatform::Status::ok();
                }
                if (status.isBad())
                    failed(v.keyPath + QLatin1Char('\\') + v.name, status);
            }
            // Keys the change created, deepest first; one that holds someone else's subkeys stays.
            QList<TransactionJournal::RegistryKeyState> created;
            for (const TransactionJournal::RegistryKeyState& k : journal->registryKeys)
                if (!k.existed)
                    created.append(k);
            std::sort(created.begin(), created.end(),
                      [](const TransactionJournal::RegistryKeyState& a, const TransactionJournal::RegistryKeyState& b) {
                          return a.path.size() > b.path.size();
                      });
            for (const TransactionJournal::RegistryKeyState& k : created)
            {
                KsPlatform::RegistryRoot root;
                std::string sub;
                if (registry && RegistryStore::splitPath(k.path, root, sub) && !sub.empty())
                {
                    const KsPlatform::Status status = registry->keyDelete(root, sub);
                    if (status.isBad() && status.code != KsPlatform::RegistryNotFound &&
                        status.code != KsPlatform::RegistryAccessDenied)
                        failed(k.path, status);
                }
            }
            if (res.isOk() && registry)
            {
                const McResult committed = restore.commit();
                if (committed.isBad())
                    mRollbackFailures << QString::fromLocal8Bit(RegistryStore::location().toLocal8Bit()) +
                                             QStringLiteral(": ") + QString::fromLocal8Bit(committed.text());
            }
            else if (res.isBad())
                mRollbackFailures << RegistryStore::location() + QStringLiteral(": ") +
                                         QString::fromLocal8Bit(res.text());
        }
    }
    // Deepest first, and only when empty: a folder that now holds someone else's files stays.
    QStringList newDirs = mListOfTransactionNewDirs.take(inKey);
    std::sort(newDirs.begin(), newDirs.end(), [](const QString& a, const QString& b) { return a.size() > b.size(); });
    // Temporary files of writes that a crash or a failure cut short.
    if (journal)
        for (const QString& folder : journal->tempFolders)
        {
            const QFileInfoList files = QDir(folder).entryInfoList(QStringList() << QStringLiteral(".*"),
                                                                   QDir::Files | QDir::Hidden | QDir::System);
            for (const QFileInfo& file : files)
                if (isLeftOverTemporary(file))
                    QFile::remove(file.filePath());
        }
    for (const QString& dirPath : newDirs)
        QDir().rmdir(dirPath);

    mRollbackIncomplete = !mRollbackFailures.isEmpty();
    if (mRollbackIncomplete)
    {
        // One report instead of one per file; the journal stays so that the next start tries again.
        QStringList shown = mRollbackFailures.mid(0, sRollbackPathsShown);
        if (mRollbackFailures.size() > sRollbackPathsShown)
            shown << QStringLiteral("...");
        McResult report;
        MC_CHECK_DETAIL(report, false,
                        QStringLiteral("rollback incomplete: %1 of the resources of product '%2' could not be restored")
                            .arg(mRollbackFailures.size())
                            .arg(inKey),
                        local(shown.join(QStringLiteral("; "))));
    }
    else if (journal)
        journal->remove(mTransactionFlush);
    productUnlock(inKey);
    KsPlatform::InterruptSignals::rollingBackSet(false);
}

void Engine::productTransactionShortcutsRestore(const TransactionJournal& inJournal)
{
    // After the snapshot is installed: its shortcuts hold the description's texts, these files
    // the machine's bytes.
    for (const TransactionJournal::ShortcutState& state : inJournal.shortcuts)
    {
        // What the snapshot's shortcut met on its way is moot: this file decides.
        const QString prefix = state.path + QStringLiteral(": ");
        mRollbackFailures.erase(std::remove_if(mRollbackFailures.begin(), mRollbackFailures.end(),
                                               [&](const QString& inFailure) { return inFailure.startsWith(prefix); }),
                                mRollbackFailures.end());
        sFirstHeldReport.clear();
        const std::string path = local(state.path);
        struct stat st;
        const bool present = ::lstat(path.c_str(), &st) == 0;
        if (!state.existed)
        {
            // The change made it; a folder someone put there meanwhile is not ours to remove.
            if (present && !S_ISDIR(st.st_mode) && ::unlink(path.c_str()) != 0)
            {
                const std::string why = McLib::osDetail(path, errno);
                rollbackFailureAdd(state.path, MC_FAILURE("unlink", state.path.toStdString()).detailSet(why));
            }
            continue;
        }
        bool ok = false;
        const BufferID id = BufferID::fromString(state.md5, &ok);
        McResult res;
        // A link put in its place is replaced, never followed.
        if (ok && present && S_ISLNK(st.st_mode) && ::unlink(path.c_str()) != 0)
        {
            const std::string why = McLib::osDetail(path, errno);
            res << MC_FAILURE("unlink", state.path.toStdString()).detailSet(why);
        }
        if (res.isOk())
            res << cache().itemWriteToFile(id, state.path, true);
        if (res.isOk() && ::chmod(path.c_str(), static_cast<mode_t>(state.mode)) != 0)
        {
            const std::string why = McLib::osDetail(path, errno);
            res << MC_FAILURE("chmod", state.path.toStdString()).detailSet(why);
        }
        rollbackFailureAdd(state.path, res);
    }
}

void Engine::rollbackFailureAdd(const QString& inPath, const McResult& inResult)
{
    // Called for every resource the rollback installs: what a good one reported is not kept.
    if (inResult.isOk())
    {
        sFirstHeldReport.clear();
        return;
    }
    const std::string report = !sFirstHeldReport.empty() ? sFirstHeldReport
                               : *inResult.detail()      ? std::string(inResult.detail())
                                                         : std::string(inResult.text());
    sFirstHeldReport.clear();
    const QString why = reasonOf(report);
    mRollbackFailures << (why.startsWith(inPath) ? why : inPath + QStringLiteral(": ") + why);
}

void Engine::startRecover()
{
    const QDateTime started = QDateTime::currentDateTime();
    productTransactionRecoverAll();
    cache().temporaryFilesRemove(started);
}

McResult Engine::productTransactionRecoverAll()
{
    McResult retVal;
    QString folder;
    if (pathOfMaintenanceDir(folder).isBad())
        return retVal;
    folder += QStringLiteral("/Journal");
    if (!QFileInfo(folder).isDir())
        return retVal;
    // Only this user's: the maintenance folder may be shared, and another user's change is theirs.
    for (const QString& path : TransactionJournal::journalsIn(folder))
        if (QFileInfo(path).ownerId() == ::geteuid())
            retVal << productTransactionRecover(path);
    // What a process killed while writing its journal left: a journal is only ever complete under
    // its final name, so without one the rest is of no use, once nobody holds the product.
    const QFileInfoList left = QDir(folder).entryInfoList(QDir::Files | QDir::Hidden | QDir::System);
    for (const QFileInfo& info : left)
    {
        const QString name = info.fileName();
        const QString stem = name.section(QLatin1Char('.'), 0, 0);
        if (info.ownerId() != ::geteuid() || name.endsWith(QLatin1String(".lock")) ||
            name.endsWith(QLatin1String(".journal")) ||
            QFileInfo::exists(folder + QLatin1Char('/') + stem + QStringLiteral(".journal")))
            continue;
        KsPlatform::ProductLock lock;
        long owner = 0;
        if (lock.acquire(local(folder + QLatin1Char('/') + stem + QStringLiteral(".lock")), owner).isOk())
            QFile::remove(info.filePath());
    }
    return retVal;
}

McResult Engine::productTransactionRecover(const QString& inJournalPath)
{
    McResult retVal;
    auto journal = std::make_shared<TransactionJournal>(QString(), QString());
    retVal << TransactionJournal::read(inJournalPath, *journal);
    if (retVal.isBad())
        return retVal;
    const QString key = journal->productKey();
    // A living process that holds the product is still at work on it: not ours to undo.
    auto lock = std::make_shared<KsPlatform::ProductLock>();
    long owner = 0;
    const KsPlatform::Status status = lock->acquire(local(journal->lockPath()), owner);
    if (status.isBad())
    {
        if (status.code == EWOULDBLOCK)
            trace(McLogLevelInfo, QStringLiteral("recovery: product '%1' is being changed by process %2; left alone")
                                      .arg(key)
                                      .arg(owner));
        else
            MC_CHECK_DETAIL(retVal, false, QStringLiteral("failed to lock product '%1'").arg(key), status.text);
        return retVal;
    }
    // The file may have gone while we waited for nothing: its owner committed just now.
    if (!QFileInfo::exists(inJournalPath))
        return retVal;
    trace(McLogLevelInfo, QStringLiteral("recovery: rolling back the unfinished %1 of product '%2' (process %3)")
                              .arg(journal->operation)
                              .arg(key)
                              .arg(journal->processId));
    const QString cloneKey = QStringLiteral("_") + key;
    productUnregisterResources(cloneKey);
    retVal << journal->loadSnapshot();
    if (MC_CHECK_DETAIL(retVal, retVal.isOk() && productResource(cloneKey).isNotNull(),
                        QStringLiteral("the snapshot of product '%1' cannot be read").arg(key),
                        local(journal->snapshotPath()) + ": unreadable"))
    {
        productUnregisterResources(cloneKey);
        return retVal;
    }
    mListOfProductLock.insert(key, lock);
    mListOfJournal.insert(key, journal);
    mListOfTransactionNewDirs.insert(key, journal->newDirs);
    mListOfRecovering.insert(key, true);
    productTransactionRollback(key);
    if (mRollbackIncomplete)
        retVal.makeBad(McResult::CodeFail);
    else
        trace(McLogLevelInfo, QStringLiteral("recovery: product '%1' is back in the state it had before").arg(key));
    return retVal;
}

void Engine::productUnregisterResources(const QString& inKey)
{
    McDArray<McHandle<Resource>> all;
    productResources(inKey, all);
    for (int64_t i = 0; i < all.size(); ++i)
        resourceUnregister(all[i]);
}
