// Product-wide operations: look-up, install, uninstall, verify, rescan, precache, resolve.
#include "Engine.h"

#include "Cache.h"
#include "FileHashAhead.h"
#include "FileWriter.h"
#include "Link.h"
#include "Plugin.h"
#include "ProductWalk.h"
#include "Progress.h"
#include "Property.h"
#include "RegistryStore.h"
#include "Resource.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include "InterruptSignals.h"

#include <QCoreApplication>
#include <QSet>

#include <memory>
#include <vector>

using namespace KsDeploy;

namespace
{
QString tr(const char* inText) { return QCoreApplication::translate("KsDeploy::Engine", inText); }

// Signals are noted, not obeyed, while a product is changed: the loops stop at the next resource
// and the change is rolled back. A signal that came too late to stop anything then has its usual
// effect.
struct InterruptScope
{
    InterruptScope() { KsPlatform::InterruptSignals::armedSet(true); }
    ~InterruptScope() { KsPlatform::InterruptSignals::armedSet(false); }
};

// The change is over: signals have their usual effect again, and one that was noted but stopped
// nothing is acted on now.
void interruptsRelease(std::unique_ptr<InterruptScope>& inoutScope, const Engine& inEngine)
{
    inoutScope.reset();
    if (inEngine.interruptedOperation().isEmpty())
        KsPlatform::InterruptSignals::deliverPending();
}
}

namespace
{
// Plan first, then act: every name of the product resolved and every path checked, before a
// plugin is asked, a snapshot taken, a byte downloaded or a file touched. Stops at the first
// refusal, so a forgotten value is one report, not one per file.
McResult productPlan(const McDArray<McHandle<Resource>>& inResources)
{
    McResult retVal;
    // Names first: a path built on an unresolved folder would fail once for each file in it.
    for (int64_t i = 0; i < inResources.size() && retVal.isOk(); ++i)
        retVal << inResources[i]->nameResolvableCheck();
    for (int64_t i = 0; i < inResources.size() && retVal.isOk(); ++i)
        retVal << inResources[i]->pathCheck();
    return retVal;
}
}

McHandle<ResourceProduct> Engine::productResource(const QString& inKey) const
{
    // Of several products with the key, the one registered last.
    McDArray<McHandle<Resource>> all;
    resources(all);
    for (int64_t i = all.size() - 1; i >= 0; --i)
    {
        ResourceProduct* p = dynamic_cast<ResourceProduct*>(all[i].ptr());
        if (p && p->name() == inKey)
            return McHandle<ResourceProduct>(p);
    }
    return McHandle<ResourceProduct>();
}

void Engine::productResources(const QString& inKey, McDArray<McHandle<Resource>>& outResources) const
{
    outResources.clear();
    const McHandle<ResourceProduct> product = productResource(inKey);
    if (product.isNull())
        return;
    // Depth first from the product: a resource, then its link targets in link order, then the
    // resources linking to it in pool order. An explicit stack keeps deep graphs off the call stack.
    QSet<const Resource*> seen;
    std::vector<Resource*> stack;
    stack.push_back(product.ptr());
    McDArray<McHandle<Resource>> incoming;
    while (!stack.empty())
    {
        Resource* r = stack.back();
        stack.pop_back();
        if (seen.contains(r))
            continue;
        seen.insert(r);
        outResources.append(McHandle<Resource>(r));
        resourcesLinkingToATarget(McHandle<Resource>(r), incoming);
        for (int64_t i = incoming.size() - 1; i >= 0; --i)
            if (!seen.contains(incoming[i].ptr()))
                stack.push_back(incoming[i].ptr());
        const McDArray<McHandle<Link>>& links = r->links();
        for (int64_t i = links.size() - 1; i >= 0; --i)
        {
            Resource* t = const_cast<Resource*>(&links[i]->target());
            if (!seen.contains(t))
                stack.push_back(t);
        }
    }
}

McResult Engine::productOpen(const QString& inKey, bool inPlan, McHandle<ResourceProduct>& outProduct,
                             McDArray<McHandle<Resource>>& outResources) const
{
    McResult retVal;
    outResources.clear();
    const McHandle<ResourceProduct> resProduct = productResource(inKey);
    outProduct = resProduct;
    if (MC_CHECK(retVal, resProduct.isNotNull(), "Internal Error"))
        return retVal;
    productResources(inKey, outResources);
    if (inPlan)
        retVal << productPlan(outResources);
    return retVal;
}

bool Engine::productInterrupted(McResult& inoutResult, const QString& inOperation)
{
    if (KsPlatform::InterruptSignals::pending() == 0)
        return false;
    // Not reported here: the host says in one line what happened once the rollback is done.
    if (inoutResult.isOk() || mInterruptedOperation.isEmpty())
        inoutResult << MC_FAILURE("!interrupted", QStringLiteral("%1 interrupted").arg(inOperation).toStdString());
    mInterruptedOperation = inOperation;
    return true;
}

McResult Engine::productInstall(const QString& inKey, bool inRollbackMode)
{
    McResult retVal;
    std::unique_ptr<InterruptScope> interrupts;
    if (!inRollbackMode)
    {
        interrupts.reset(new InterruptScope);
        productOperationStart(QStringLiteral("install"));
    }
    // All registry changes of the operation land in one store transaction, or none of them.
    RegistryTransaction registryChanges;
    McHandle<ResourceProduct> resProduct;
    McDArray<McHandle<Resource>> all;
    if ((retVal << productOpen(inKey, !inRollbackMode, resProduct, all)).isBad())
        return retVal;
    if (!inRollbackMode)
        retVal << productInstallBegin(inKey, resProduct);
    if (retVal.isOk())
        retVal << productInstallDownload(all, inRollbackMode);
    // A rollback installs what it can even without every item.
    if (retVal.isOk() || inRollbackMode)
        retVal << productInstallResources(all, inRollbackMode);
    if (inRollbackMode)
    {
        // Rolling back: the enclosing store transaction puts the registry back exactly, while the
        // snapshot's registry resources hold the new values, not the old ones.
        registryChanges.rollback();
        return retVal;
    }
    if (retVal.isOk())
        retVal << productInstallPlugins(resProduct);
    productTransactionEnd(inKey, registryChanges, retVal);
    productInstallPost(resProduct, retVal.isBad());
    interruptsRelease(interrupts, *this);
    return retVal;
}

void Engine::productOperationStart(const QString& inOperation)
{
    mInterruptedOperation.clear();
    mRollbackIncomplete = false;
    mOperationRunning = inOperation;
}

McResult Engine::productInstallBegin(const QString& inKey, const McHandle<ResourceProduct>& inProduct)
{
    McResult retVal;
    // Every plugin is asked, even after one refused; then the snapshot is taken.
    for (int64_t i = mListOfPlugin.size() - 1; i >= 0; --i)
        retVal << mListOfPlugin[i]->onInstallPre(inProduct);
    if (retVal.isOk())
        retVal << productTransactionBegin(inKey);
    return retVal;
}

McResult Engine::productInstallDownload(const McDArray<McHandle<Resource>>& inResources, bool inRollbackMode)
{
    McResult retVal;
    progress().taskStartNext(tr("Download"));
    std::vector<ResourceFileEntry*> entries;
    for (int64_t i = 0; i < inResources.size(); ++i)
        if (ResourceFileEntry* e = dynamic_cast<ResourceFileEntry*>(inResources[i].ptr()))
            entries.push_back(e);
    const size_t n = entries.size();
    // For many files one listing of the cache says which items are there already; only the
    // others are looked at one by one, and fetched over several connections at once.
    QSet<QString> cached;
    const bool listed = n > 64 && cache().itemsCached(cached);
    std::vector<BufferID> wanted;
    wanted.reserve(n);
    for (size_t i = 0; i < n; ++i)
    {
        const BufferID id = entries[i]->bufferId();
        if (id.isValid() && (!listed || !cached.contains(id.toString())))
            wanted.push_back(id);
    }
    if (!inRollbackMode && productInterrupted(retVal, mOperationRunning))
        return retVal;
    const size_t have = n - wanted.size();
    retVal << cache().retrieveAll(wanted, [&](size_t inDone) {
        progress().progressSet(static_cast<float>(have + inDone) / static_cast<float>(n));
        return inRollbackMode || !productInterrupted(retVal, mOperationRunning);
    });
    return retVal;
}

McResult Engine::productInstallResources(const McDArray<McHandle<Resource>>& inResources, bool inRollbackMode)
{
    McResult retVal;
    progress().taskStartNext(tr("Installation"));
    const ProductWalk walk(inResources, ProductWalk::Order::TargetsFirst);
    const size_t total = walk.total();
    const std::unique_ptr<FileWriter> writer = FileWriter::create(total, inRollbackMode);
    bool stop = false;
    const auto visit = [&](Resource& inResource, size_t inLeft) {
        if (!inRollbackMode && productInterrupted(retVal, mOperationRunning))
        {
            stop = true;
            return false;
        }
        trace(McLogLevelInfo, QStringLiteral("install: ") + inResource.path());
        const McResult one = writer->install(inResource);
        retVal << one;
        if (inRollbackMode)
            rollbackFailureAdd(inResource.path(), one);
        progress().progressSet(1.0f - static_cast<float>(inLeft) / static_cast<float>(total));
        stop = one.isBad() && !inRollbackMode;
        return !stop;
    };
    const auto onCycle = [&](size_t numLeft0, size_t numLeft1) {
        // The rest link to one another in a cycle.
        McResult cycle;
        MC_CHECK(cycle, numLeft0>numLeft1, "Internal Error");
        if (!inRollbackMode)
            retVal << cycle;
        // Rollback restores as much as it can: the last pending one goes regardless.
        return inRollbackMode;
    };
    const auto forced = [&](Resource& inResource, size_t) {
        trace(McLogLevelInfo, QStringLiteral("install: ") + inResource.path());
        rollbackFailureAdd(inResource.path(), inResource.install());
        return true;
    };
    walk.run(visit, onCycle, forced);
    // The last files are written before anything is committed or rolled back.
    if (!stop)
        retVal << writer->finish();
    return retVal;
}

McResult Engine::productInstallPlugins(const McHandle<ResourceProduct>& inProduct)
{
    McResult retVal;
    for (int64_t i = mListOfPlugin.size() - 1; i >= 0 && retVal.isOk(); --i)
        retVal << mListOfPlugin[i]->onInstall(inProduct);
    return retVal;
}

void Engine::productTransactionEnd(const QString& inKey, RegistryTransaction& inoutRegistryChanges,
                                   McResult& inoutResult)
{
    if (inoutResult.isOk())
        productInterrupted(inoutResult, mOperationRunning);
    // Files on the device first, then the registry, then the journal goes: after a crash at
    // any point the files and the registry are of the same version once recovery has run.
    if (inoutResult.isOk())
        inoutResult << productTransactionFlush(inKey);
    if (inoutResult.isOk())
        inoutResult << inoutRegistryChanges.commit();
    if (inoutResult.isOk())
        productTransactionCommit(inKey);
    else
        productTransactionRollback(inKey);
}

void Engine::productInstallPost(const McHandle<ResourceProduct>& inProduct, bool inFailed)
{
    for (int64_t i = mListOfPlugin.size() - 1; i >= 0; --i)
        mListOfPlugin[i]->onInstallPost(inProduct, inFailed);
}

McResult Engine::productUninstall(const QString& inKey)
{
    McResult retVal;
    std::unique_ptr<InterruptScope> interrupts(new InterruptScope);
    productOperationStart(QStringLiteral("uninstall"));
    RegistryTransaction registryChanges;
    McHandle<ResourceProduct> resProduct;
    McDArray<McHandle<Resource>> all;
    if ((retVal << productOpen(inKey, true, resProduct, all)).isBad())
        return retVal;
    retVal << productTransactionBegin(inKey);
    if (retVal.isOk())
        retVal << productUninstallResources(all);
    productTransactionEnd(inKey, registryChanges, retVal);
    interruptsRelease(interrupts, *this);
    return retVal;
}

McResult Engine::productUninstallResources(const McDArray<McHandle<Resource>>& inResources)
{
    McResult retVal;
    progress().taskStartNext(tr("Uninstallation"));
    const ProductWalk walk(inResources, ProductWalk::Order::SourcesFirst);
    const size_t total = walk.total();
    // A cycle lets its last pending resource go regardless, so uninstall always ends.
    const auto release = [&](Resource& inResource, size_t inLeft) {
        if (productInterrupted(retVal, mOperationRunning))
            return false;
        if (inResource.deleteOnUninstall())
        {
            trace(McLogLevelInfo, QStringLiteral("uninstall:") + inResource.path());
            retVal << inResource.uninstall();
        }
        progress().progressSet(1.0f - static_cast<float>(inLeft) / static_cast<float>(total));
        return true;
    };
    walk.run(
        release, [](size_t, size_t) { return true; }, release);
    return retVal;
}

McResult Engine::productVerify(const QString& inKey)
{
    McResult retVal;
    McHandle<ResourceProduct> resProduct;
    McDArray<McHandle<Resource>> all;
    if ((retVal << productOpen(inKey, true, resProduct, all)).isBad())
        return retVal;
    progress().taskStartNext(tr("Verification"));
    const int64_t n = all.size();
    // The files are hashed on every core in the order the walk below asks for them.
    QStringList files;
    std::vector<int> fileOf(static_cast<size_t>(n), -1);
    for (int64_t k = n - 1; k >= 0; --k)
    {
        const ResourceFileEntry* entry = dynamic_cast<const ResourceFileEntry*>(all[k].ptr());
        if (!entry || entry->absence())
            continue;
        const QString path = entry->path();
        if (path.isEmpty())
            continue;
        fileOf[static_cast<size_t>(k)] = static_cast<int>(files.size());
        files.append(path);
    }
    FileHashAhead ahead(files);
    for (int64_t k = n - 1, i = 1; k >= 0; --k, ++i)
    {
        ahead.record(fileOf[static_cast<size_t>(k)]);
        trace(McLogLevelInfo, QStringLiteral("verify: ") + all[k]->path());
        retVal << all[k]->verify();
        progress().progressSet(1.0f - static_cast<float>(i) / static_cast<float>(n));
    }
    return retVal;
}

McResult Engine::productRescan(const QString& inKey)
{
    McResult retVal;
    McHandle<ResourceProduct> resProduct;
    McDArray<McHandle<Resource>> all;
    if ((retVal << productOpen(inKey, false, resProduct, all)).isBad())
        return retVal;
    progress().taskStartNext(tr("Rescan"));
    const int64_t n = all.size();
    for (int64_t i = 0; i < n; ++i)
    {
        progress().progressSet(static_cast<float>(i + 1) / static_cast<float>(n));
        trace(McLogLevelInfo, all[i]->path());
        retVal << all[i]->scan();
    }
    return retVal;
}

McResult Engine::productPrecache(const QString& inKey, bool inCompress)
{
    McResult retVal;
    McHandle<ResourceProduct> resProduct;
    McDArray<McHandle<Resource>> all;
    if ((retVal << productOpen(inKey, false, resProduct, all)).isBad())
        return retVal;
    retVal << cache().retrieveFromResources(all, inCompress);
    return retVal;
}

McResult Engine::productResolve(const QString& inKey, const QList<QString>& inTargetKeys)
{
    McResult retVal;
    McHandle<ResourceProduct> resProduct;
    McDArray<McHandle<Resource>> all;
    if ((retVal << productOpen(inKey, false, resProduct, all)).isBad())
        return retVal;
    for (const QString& targetKey : inTargetKeys)
    {
        if (MC_CHECK(retVal, !targetKey.isEmpty(), "empty configuration key"))
            return retVal;
        if (MC_CHECK(retVal, mConfiguration.valueIsDefined(targetKey),
                     QStringLiteral("configuration key '%1' is not defined").arg(targetKey)))
            return retVal;
    }
    for (const QString& targetKey : inTargetKeys)
    {
        // Every property text of the product's resources ...
        for (int64_t i = 0; i < all.size(); ++i)
            all[i]->propertiesRewrite([&](QString& inoutText) {
                if (!mConfiguration.isResolved(inoutText))
                    retVal << mConfiguration.resolve(inoutText, targetKey);
            });
        // ... and every configuration value.
        for (const QString& key : mConfiguration.keys())
        {
            QString text = mConfiguration.value(key);
            if (mConfiguration.isResolved(text))
                continue;
            const QString before = text;
            retVal << mConfiguration.resolve(text, targetKey);
            if (text != before)
                mConfiguration.valueSet(key, text, false);
        }
    }
    return retVal;
}
