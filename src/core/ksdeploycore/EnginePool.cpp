// The resource pool: every loaded, generated or cloned resource, in registration order.
#include "Engine.h"

#include "Resource.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourcePoolIndex.h"
#include "ResourceProduct.h"
#include "ResourceRegistryKey.h"
#include "ResourceRegistryValue.h"
#include "XmlSerializer.h"

#include <QFile>

#include <algorithm>

using namespace KsDeploy;

namespace
{
void uuidIndexInsert(ResourcePoolIndex& inIndex, const QUuid& inUuid, Resource* inResource)
{
    // One look-up for the common case of an identity not yet held.
    Resource*& first = inIndex.mByUuid[inUuid];
    if (!first)
        first = inResource;
    else
        inIndex.mShared[inUuid].push_back(inResource);
}

void uuidIndexRemove(ResourcePoolIndex& inIndex, const QUuid& inUuid, Resource* inResource)
{
    auto it = inIndex.mByUuid.find(inUuid);
    if (it == inIndex.mByUuid.end())
        return;
    auto shared = inIndex.mShared.find(inUuid);
    if (it.value() == inResource)
    {
        if (shared == inIndex.mShared.end())
        {
            inIndex.mByUuid.erase(it);
            return;
        }
        // Another holder of the identity takes the first place.
        it.value() = shared.value().back();
        shared.value().pop_back();
    }
    else if (shared != inIndex.mShared.end())
    {
        std::vector<Resource*>& v = shared.value();
        v.erase(std::remove(v.begin(), v.end(), inResource), v.end());
    }
    if (shared != inIndex.mShared.end() && shared.value().empty())
        inIndex.mShared.erase(shared);
}
}

void Engine::resourceRegister(const McHandle<Resource>& inResource)
{
    MC_REQUIRE(inResource.isNotNull());
    if (inResource.isNull() || inResource->mPoolPosition >= 0)
        return;
    inResource->mPoolPosition = mListOfResource.size();
    mListOfResource.append(inResource);
    uuidIndexInsert(*mPoolIndex, inResource->uuid(), inResource.ptr());
    MC_DBC_TEXT(DbCPostcondition, inResource->mPoolPosition >= 0, "mListOfResource.contains( inResource )");
}

int64_t Engine::resourceCount() const { return mListOfResource.size() - mPoolIndex->mHoles; }

void Engine::resourceReserve(int64_t inCount)
{
    // A guess from a size is never trusted with more than a large product's worth: a file of
    // anything but resources would otherwise claim memory it never uses.
    inCount = std::min<int64_t>(inCount, int64_t(1) << 20);
    if (inCount <= 0)
        return;
    mListOfResource.reserve(mListOfResource.size() + inCount);
    mPoolIndex->mByUuid.reserve(mPoolIndex->mByUuid.size() + inCount);
}

Resource* Engine::resource(const QUuid& inUuid) const
{
    auto it = mPoolIndex->mByUuid.constFind(inUuid);
    if (it == mPoolIndex->mByUuid.constEnd())
        return nullptr;
    Resource* best = it.value();
    if (mPoolIndex->mShared.isEmpty())
        return best;
    // Of several with the same identity, the one registered later wins.
    auto shared = mPoolIndex->mShared.constFind(inUuid);
    if (shared != mPoolIndex->mShared.constEnd())
        for (Resource* r : shared.value())
            if (r->mPoolPosition > best->mPoolPosition)
                best = r;
    return best;
}

void Engine::resourceUuidChanged(Resource* inResource, const QUuid& inOldUuid)
{
    uuidIndexRemove(*mPoolIndex, inOldUuid, inResource);
    uuidIndexInsert(*mPoolIndex, inResource->uuid(), inResource);
}

void Engine::resourceUnlink(const McHandle<Resource>& inTarget) const
{
    MC_REQUIRE(inTarget.isNotNull());
    if (inTarget.isNull())
    {
        for (int64_t i = 0; i < mListOfResource.size(); ++i)
            if (mListOfResource[i].isNotNull())
                mListOfResource[i]->linkRemoveTo(nullptr);
        return;
    }
    std::vector<Resource*> sources;
    inTarget->incomingSources(sources);
    for (Resource* s : sources)
        if (s->mPoolPosition >= 0)
            s->linkRemoveTo(inTarget.ptr());
}

void Engine::resourceUnregister(const McHandle<Resource>& inResource)
{
    MC_REQUIRE(inResource.isNotNull());
    if (inResource.isNull())
        return;
    const McHandle<Resource> keep(inResource);  // the pool's handle may be the last one
    resourceUnlink(keep);
    const int64_t pos = keep->mPoolPosition;
    if (pos >= 0 && pos < mListOfResource.size() && mListOfResource[pos] == keep)
    {
        uuidIndexRemove(*mPoolIndex, keep->uuid(), keep.ptr());
        keep->mPoolPosition = -1;
        mListOfResource[pos] = McHandle<Resource>();
        ++mPoolIndex->mHoles;
        if (pos == mListOfResource.size() - 1)
        {
            // Trailing holes are dropped at once.
            while (mListOfResource.size() > 0 && mListOfResource.last().isNull())
            {
                mListOfResource.removeLast(1);
                --mPoolIndex->mHoles;
            }
        }
        else if (mPoolIndex->mHoles > 64 && mPoolIndex->mHoles * 2 > mListOfResource.size())
        {
            resourcePoolCompact();
        }
    }
    MC_DBC_TEXT(DbCPostcondition, keep->mPoolPosition < 0, "!mListOfResource.contains(inResource)");
}

void Engine::resourcePoolCompact()
{
    int64_t out = 0;
    McHandle<Resource>* data = mListOfResource.data();
    for (int64_t i = 0; i < mListOfResource.size(); ++i)
    {
        if (data[i].isNull())
            continue;
        if (out != i)
            data[out] = std::move(data[i]);
        data[out]->mPoolPosition = out;
        ++out;
    }
    mListOfResource.removeLast(mListOfResource.size() - out);
    mPoolIndex->mHoles = 0;
}

void Engine::resourceUnregisterAll()
{
    McDArray<McHandle<Resource>> old;
    old.swap(mListOfResource);
    mPoolIndex->mByUuid.clear();
    mPoolIndex->mShared.clear();
    mPoolIndex->mHoles = 0;
    for (int64_t i = 0; i < old.size(); ++i)
        if (old[i].isNotNull())
            old[i]->mPoolPosition = -1;
    // Releasing may cascade through links; the pool is already consistent.
    old.clear();
}

void Engine::resources(McDArray<McHandle<Resource>>& outResources) const
{
    outResources.clear();
    outResources.reserve(resourceCount());
    for (int64_t i = 0; i < mListOfResource.size(); ++i)
        if (mListOfResource[i].isNotNull())
            outResources.append(mListOfResource[i]);
}

void Engine::resourcesLinkingToATarget(const McHandle<Resource>& inTarget,
                                       McDArray<McHandle<Resource>>& outResources) const
{
    MC_DBC_TEXT(DbCPrecondition, inTarget.isNotNull() && inTarget->refCount() > 0, "inTarget.refCount()>0");
    outResources.clear();
    if (inTarget.isNull())
        return;
    std::vector<Resource*> sources;
    inTarget->incomingSources(sources);
    sources.erase(std::remove_if(sources.begin(), sources.end(), [](Resource* r) { return r->mPoolPosition < 0; }),
                  sources.end());
    std::sort(sources.begin(), sources.end(),
              [](const Resource* a, const Resource* b) { return a->mPoolPosition < b->mPoolPosition; });
    outResources.reserve(static_cast<int64_t>(sources.size()));
    for (Resource* s : sources)
        outResources.append(McHandle<Resource>(s));
}

void Engine::resourcesDumpAll(const QString& inFilePath) const
{
    McDArray<McHandle<Resource>> all;
    resources(all);
    XmlSerializer serializer;
    serializer.serialize(inFilePath, all);
}

void Engine::resourcesDumpGraphviz(const McDArray<McHandle<Resource>>& inResources, const QString& inFilePath) const
{
    QFile file(inFilePath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;
    QHash<const Resource*, int64_t> index;
    for (int64_t i = 0; i < inResources.size(); ++i)
        if (!index.contains(inResources[i].ptr()))
            index.insert(inResources[i].ptr(), i);
    QByteArray out;
    auto line = [&out](const QString& inText) {
        out += inText.toLatin1();
        out += '\n';
    };
    line("digraph KsDeploy");
    line("{");
    line("# page = \"8.2677165,11.692913\" ;");
    line("label = \"KsDeploy\" ;");
    for (int64_t i = inResources.size() - 1; i >= 0; --i)
    {
        const Resource* r = inResources[i].ptr();
        if (!r)
            continue;
        QString shape = "circle", color = "white";
        if (dynamic_cast<const ResourceProduct*>(r))
            shape = "box", color = "lightcoral";
        if (dynamic_cast<const ResourceFileDirectory*>(r))
            shape = "ellipse", color = "green";
        if (dynamic_cast<const ResourceFileEntry*>(r))
            shape = "box", color = "greenyellow";
        if (dynamic_cast<const ResourceRegistryKey*>(r))
            shape = "ellipse", color = "skyblue1";
        if (dynamic_cast<const ResourceRegistryValue*>(r))
            shape = "box", color = "aliceblue";
        QString label = r->name();
        label.replace("\\", "\\\\");
        line(QString("\"%1\" [shape=%2,label=\"%3\",style=filled,fillcolor=%4] ;").arg(i).arg(shape, label, color));
        const bool isProduct = dynamic_cast<const ResourceProduct*>(r) != nullptr;
        const McDArray<McHandle<Link>>& links = r->links();
        for (int64_t l = 0; l < links.size(); ++l)
        {
            auto it = index.constFind(links[l]->targetPtr());
            if (it == index.constEnd())
                continue;
            const QString edgeColor = isProduct ? "orange" : "black";
            line(QString("\"%1\" -> \"%2\" [color=%3,labelangle=0,fontcolor=%3,label=\" %4\"] ;")
                     .arg(i)
                     .arg(it.value())
                     .arg(edgeColor, links[l]->name()));
        }
    }
    line("}");
    file.write(out);
}
