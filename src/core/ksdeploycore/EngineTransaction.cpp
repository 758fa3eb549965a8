// Product transactions: a snapshot of the installed state, thrown away on commit and
// installed again on rollback.
#include "Engine.h"

#include "Cache.h"
#include "Link.h"
#include "Progress.h"
#include "Property.h"
#include "Resource.h"
#include "ResourceFactory.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <algorithm>

using namespace KsDeploy;

namespace
{
QString tr(const char* inText) { return QCoreApplication::translate("KsDeploy::Engine", inText); }
}

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
    for (int64_t i = 0; i < clones.size(); ++i)
    {
        // A file's path begins with its folder's, so in a folder that is not there no file is:
        // a first install needs no look at each of its files.
        auto* entry = dynamic_cast<ResourceFileEntry*>(clones[i].ptr());
        if (entry && !missingDirs.isEmpty() && missingDirs.contains(entry->container().ptr()))
        {
            entry->absenceFound();
            continue;
        }
        retVal << clones[i]->scan();
        if (retVal.isBad())
            break;
    }
    if (retVal.isOk())
        retVal << cache().retrieveFromResources(clones, false);
    // An incomplete snapshot must never be installed back: it would hold the description's
    // contents instead of the machine's. Nothing was changed yet, so there is nothing to undo.
    if (retVal.isBad())
    {
        productUnregisterResources(cloneKey);
        mListOfTransactionNewDirs.remove(inKey);
    }
    return retVal;
}

void Engine::productTransactionCommit(const QString& inKey)
{
    progress().taskStartNext(tr("Transaction Commit"));
    mListOfTransactionNewDirs.remove(inKey);
    productUnregisterResources(QStringLiteral("_") + inKey);
}

void Engine::productTransactionRollback(const QString& inKey)
{
    progress().taskStartNext(tr("Transaction Rollback"));
    const QString cloneKey = QStringLiteral("_") + inKey;
    if (productResource(cloneKey).isNotNull())
        productInstall(cloneKey, true);
    productUnregisterResources(cloneKey);
    // Deepest first, and only when empty: a folder that now holds someone else's files stays.
    QStringList newDirs = mListOfTransactionNewDirs.take(inKey);
    std::sort(newDirs.begin(), newDirs.end(),
              [](const QString& a, const QString& b) { return a.size() > b.size(); });
    for (const QString& dirPath : newDirs)
        QDir().rmdir(dirPath);
}

void Engine::productUnregisterResources(const QString& inKey)
{
    McDArray<McHandle<Resource>> all;
    productResources(inKey, all);
    for (int64_t i = 0; i < all.size(); ++i)
        resourceUnregister(all[i]);
}
