#pragma once
#include "Configuration.h"
#include "KsGlobal.h"

#include <QDir>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>

#include <memory>

namespace KsPlatform
{
class ProductLock;
class DurabilityWriteback;
}

namespace KsDeploy
{
class Cache;
class Progress;
class Resource;
class ResourceProduct;
class Plugin;
class RegistryTransaction;
class ResourcePoolIndex;
class TransactionJournal;

// The one process-wide object of the deployment library.
class Engine
{
public:
    Engine(const Engine& inOther);
    Engine& operator=(const Engine& inOther);

    // ---- life cycle and environment ------------------------------------------------------
    static void instanceInit(char** inKeyValueList);
    static Engine& instance();
    static bool instanceAvailable();
    static void instanceShutdown();
    // Test seam: shuts the engine down and allows a fresh instanceInit without a report.
    static void instanceTestReset();

    const QHash<QString, QString>& environment() const { return mListOfEnvVal; }
    QString environmentLookup(const QString& inKey) const { return mListOfEnvVal.value(inKey); }

    Configuration& configuration() { return mConfiguration; }
    const Configuration& configuration() const { return mConfiguration; }
    Cache& cache();
    Progress& progress();

    bool quiet() const { return mQuiet; }
    void quietSet(bool inQuiet);

    void trace(McResult inResult);
    void trace(McLogLevel inLevel, const QString& inText);

    McResult pathOfMaintenanceDir(QString& outValue) const;
    // The cache's folder (Cache::path).
    McResult pathToCache(QString& outValue) const;
    void pathToCacheSet(const QString& inPath);

    // ---- resource pool (EnginePool) ------------------------------------------------------
    void resourceRegister(const McHandle<Resource>& inResource);
    Resource* resource(const QUuid& inUuid) const;
    void resourceUnlink(const McHandle<Resource>& inTarget) const;
    void resourceUnregister(const McHandle<Resource>& inResource);
    void resourceUnregisterAll();
    void resourcesDumpAll(const QString& inFilePath) const;
    void resourcesDumpGraphviz(const McDArray<McHandle<Resource>>& inResources, const QString& inFilePath) const;
    // Number of registered resources.
    int64_t resourceCount() const;
    // Makes room for about inCount more resources: a load that can tell how many it brings
    // spares the pool's index its regrowth.
    void resourceReserve(int64_t inCount);
    void resources(McDArray<McHandle<Resource>>& outResources) const;
    void resourcesLinkingToATarget(const McHandle<Resource>& inTarget,
                                   McDArray<McHandle<Resource>>& outResources) const;

    // ---- plugins (EnginePlugin) ----------------------------------------------------------
    McHandle<Plugin> pluginLookup(const QString& inPluginName) const;
    bool pluginIsRegistered(const QString& inPluginName) const;
    McResult pluginRegister(const QString& inPluginName) const;
    McResult pluginActivate(const QString& inPluginName) const;
    // Makes a plugin name known to pluginRegister. The library's own plugins add themselves;
    // tests add test plugins. Not reachable from the command line.
    typedef McHandle<Plugin> (*PluginFactory)();
    static void pluginFactoryAdd(const QString& inPluginName, PluginFactory inFactory);

    // ---- sandboxes and side execution (EngineSandbox) ------------------------------------
    McResult pathOfSandboxDir(QString& outValue) const;
    McResult sandboxGenerate(QDir& outDir) const;
    bool sandboxIsValidName(const QString& inSandboxName) const;
    bool sandboxIsValidDir(const QString& inPath) const;
    void sandboxes(QList<QDir>& outList) const;
    McResult sandboxRemove(const QString& inSandboxName, bool inAtReboot) const;
    // Removes the sandboxes whose removal was deferred by sandboxRemove(name, true).
    void sandboxRemovePending() const;
    McResult sideExecutionInvoke(const QString& inExecutable, const QList<QString>& inArguments,
                                 const QList<QString>& inEnvironment, bool inStartFlag1, bool inStartFlag2) const;

    // ---- products (EngineProduct, EngineTransaction) -------------------------------------
    McHandle<ResourceProduct> productResource(const QString& inKey) const;
    // The product and everything connected to it through links, each once.
    void productResources(const QString& inKey, McDArray<McHandle<Resource>>& outResources) const;
    McResult productResolve(const QString& inKey, const QList<QString>& inTargetKeys);
    McResult productInstall(const QString& inKey, bool inRollbackMode);
    McResult productUninstall(const QString& inKey);
    McResult productVerify(const QString& inKey);
    McResult productRescan(const QString& inKey);
    McResult productPrecache(const QString& inKey, bool inCompress);
    McResult productTransactionBegin(const QString& inKey);
    void productTransactionCommit(const QString& inKey);
    void productTransactionRollback(const QString& inKey);
    void productUnregisterResources(const QString& inKey);

    // ---- surviving the process's death (EngineTransaction) -------------------------------
    // Rolls back every product change that a process of this user began and never finished
    // (it left its journal), unless a living process still holds that product. Runs at start.
    McResult productTransactionRecoverAll();
    // Makes everything the change of a product wrote durable: run before its commit.
    McResult productTransactionFlush(const QString& inKey);
    // For benchmarks only: without flushes (and with inJournal false, without a journal) a
    // change is as fast as it can be, and as unsafe.
    void transactionDurabilitySet(bool inFlush, bool inJournal);
    // True when the last rollback could not restore everything (its journal was kept).
    bool rollbackIncomplete() const { return mRollbackIncomplete; }
    // The operation ("install", "uninstall") that the last interrupt stopped, empty if none.
    QString interruptedOperation() const { return mInterruptedOperation; }
    // While held, failures are gathered by the engine instead of being reported one by one.
    static bool failureReportsHeld();

private:
    friend class Resource;

    Engine();
    ~Engine();

    // Pool bookkeeping (EnginePool).
    void resourceUuidChanged(Resource* inResource, const QUuid& inOldUuid);
    void resourcePoolCompact();

    McResult productCloneResources(const QString& inKey, const QString& inCloneKey);
    McResult pathOfJournalDir(QString& outValue) const;
    // The product's lock, held from before its snapshot until its commit or rollback.
    McResult productLock(const QString& inKey);
    void productUnlock(const QString& inKey);
    McResult productTransactionJournalWrite(const QString& inKey, const QString& inOperation,
                                            const McDArray<McHandle<Resource>>& inSnapshot);
    McResult productTransactionRecover(const QString& inJournalPath);
    // Puts back the shortcut files a rollback's snapshot cannot describe byte for byte.
    void productTransactionShortcutsRestore(const TransactionJournal& inJournal);
    // What every start does before the command line: changes that a dead process left half
    // done are rolled back, and temporary files it left in the cache are removed.
    void startRecover();
    // The opening of every product operation: the product of inKey ("Internal Error" when there
    // is none) and the resources collected from it; with inPlan also every name resolved and
    // every path checked, before anything is touched.
    McResult productOpen(const QString& inKey, bool inPlan, McHandle<ResourceProduct>& outProduct,
                         McDArray<McHandle<Resource>>& outResources) const;
    // The steps of productInstall, in order, and of productUninstall (EngineProduct). Start: a
    // change begins, nothing interrupted it, its rollback is complete. Begin: the plugins'
    // onInstallPre, then the snapshot. End: the commit (flush, registry, journal) when the result
    // is good, the rollback otherwise.
    void productOperationStart(const QString& inOperation);
    McResult productInstallBegin(const QString& inKey, const McHandle<ResourceProduct>& inProduct);
    McResult productInstallDownload(const McDArray<McHandle<Resource>>& inResources, bool inRollbackMode);
    McResult productInstallResources(const McDArray<McHandle<Resource>>& inResources, bool inRollbackMode);
    McResult productInstallPlugins(const McHandle<ResourceProduct>& inProduct);
    void productTransactionEnd(const QString& inKey, RegistryTransaction& inoutRegistryChanges, McResult& inoutResult);
    void productInstallPost(const McHandle<ResourceProduct>& inProduct, bool inFailed);
    McResult productUninstallResources(const McDArray<McHandle<Resource>>& inResources);
    // Called by the install and uninstall loops: true (and the result bad) once a signal asked
    // to stop.
    bool productInterrupted(McResult& inoutResult, const QString& inOperation);
    // Notes a resource the running rollback could not put back, with the reason (given every
    // resource's result; good ones are not noted).
    void rollbackFailureAdd(const QString& inPath, const McResult& inResult);

    static Engine* sInstance;
    static bool sIsShutdown;

    QHash<QString, QString> mListOfEnvVal;
    Cache* mCache = nullptr;
    Progress* mProgress = nullptr;
    McDArray<McHandle<Resource>> mListOfResource;
    Configuration mConfiguration;
    // Per open transaction: the product's directories that did not exist when it began, removed
    // again (when empty) on rollback so that a failed install leaves no folders behind.
    QHash<QString, QStringList> mListOfTransactionNewDirs;
    bool mQuiet = false;
    McDArray<McHandle<Plugin>> mListOfPlugin;
    // Per open transaction: its journal (none when journals are off) and the product's lock.
    QHash<QString, std::shared_ptr<TransactionJournal>> mListOfJournal;
    QHash<QString, std::shared_ptr<KsPlatform::ProductLock>> mListOfProductLock;
    // Per open transaction: the writing back of its data while it runs, ended before its flush.
    QHash<QString, std::shared_ptr<KsPlatform::DurabilityWriteback>> mListOfWriteback;
    // Per open transaction that is a recovery at start: the registry is restored from the journal.
    QHash<QString, bool> mListOfRecovering;
    // Failures of the running rollback: "path: reason".
    QStringList mRollbackFailures;
    bool mRollbackIncomplete = false;
    QString mInterruptedOperation;
    // The product operation under way ("install", "uninstall"), for its journal and messages.
    QString mOperationRunning;
    bool mTransactionFlush = true;
    bool mTransactionJournal = true;

    // Pool indexes kept beside mListOfResource so that look-up and removal stay near-constant
    // time per resource (EnginePool). Rebuilt, not shared, by copies.
    std::unique_ptr<ResourcePoolIndex> mPoolIndex;
};
}
