#include "Resource.h"

#include <memory>
#include <vector>

#include "Engine.h"

#include <algorithm>
#include <atomic>

using namespace KsDeploy;

namespace
{
std::atomic<uint64_t> sPathGeneration{1};
}

uint64_t KsDeploy::pathGeneration() { return sPathGeneration.load(std::memory_order_relaxed); }
void KsDeploy::pathGenerationBump() { sPathGeneration.fetch_add(1, std::memory_order_relaxed); }

Resource::Resource() : mUuid(QUuid::createUuid())
{
    if (Engine::instanceAvailable())
    {
        McHandle<Resource> self(this);
        Engine::instance().resourceRegister(self);
    }
    MC_ASSERT(refCount()>0);
}

// A copy is a new node: its own identity, no links, and its own place in the pool.
Resource::Resource(const Resource& inOther)
    : McHandable(inOther)
    , mName(inOther.mName)
    , mUuid(QUuid::createUuid())
    , mAbsence(inOther.mAbsence)
    , mDeleteOnUninstall(inOther.mDeleteOnUninstall)
{
    if (Engine::instanceAvailable())
    {
        McHandle<Resource> self(this);
        Engine::instance().resourceRegister(self);
    }
    MC_ASSERT(refCount()>0);
}

Resource& Resource::operator=(const Resource& inOther)
{
    if (this != &inOther)
    {
        mName = inOther.mName;
        pathGenerationBump();
        mAbsence = inOther.mAbsence;
        mDeleteOnUninstall = inOther.mDeleteOnUninstall;
    }
    return *this;
}

Resource::~Resource()
{
    // Tell the targets that this source is gone before the links release them.
    for (int64_t i = 0; i < mLinks.size(); ++i)
        if (Resource* t = mLinks[i]->targetPtr())
            t->mIncoming.remove(this);
}

void Resource::notifyDelete()
{
    // The pool holds a handle, so a resource reaching zero is no longer registered.
    delete this;
}

McResult Resource::scan() { return McResult(); }
QString Resource::path() const { return QString(); }

void KsDeploy::propertyTableInsert(Resource::PropertyTable& inoutTable, const char* inName,
                                   PropertyBase<Resource>* inProperty)
{
    static std::vector<std::unique_ptr<PropertyBase<Resource>>> sOwned;
    sOwned.emplace_back(inProperty);
    inoutTable.insert(QString::fromLatin1(inName), inProperty);
}

const Resource::PropertyTable& Resource::properties() const
{
    static const PropertyTable sTable = [] {
        PropertyTable t;
        propertyTableInsert(t, "UUID", new Property<Resource, Resource, QUuid>("UUID", -1000, &Resource::uuid, &Resource::uuidSet));
        propertyTableInsert(t, "Absence",
                 new Property<Resource, Resource, bool>("Absence", -700, &Resource::absence, &Resource::absenceSet));
        propertyTableInsert(t, "DeleteOnUninstall",
                 new Property<Resource, Resource, bool>("DeleteOnUninstall", -600, &Resource::deleteOnUninstall,
                                                        &Resource::deleteOnUninstallSet));
        propertyTableInsert(t, "Name", new Property<Resource, Resource, QString>("Name", -500, &Resource::name, &Resource::nameSet));
        return t;
    }();
    return sTable;
}

void Resource::uuidSet(const QUuid& inUuid)
{
    if (inUuid == mUuid)
        return;
    const QUuid old = mUuid;
    mUuid = inUuid;
    // A registered resource is found under its new identity from now on.
    if (mPoolPosition >= 0 && Engine::instanceAvailable())
        Engine::instance().resourceUuidChanged(this, old);
}

bool Resource::linksTo(const Resource& inTarget, const QString& inName) const
{
    MC_REQUIRE(inTarget.refCount()>0);
    for (int64_t i = 0; i < mLinks.size(); ++i)
        if (mLinks[i]->targetPtr() == &inTarget && mLinks[i]->name() == inName)
            return true;
    return false;
}

void Resource::linkAdd(const Resource& inTarget, const QString& inName)
{
    MC_REQUIRE(inTarget.refCount()>0);
    if (linksTo(inTarget, inName))
        return;
    mLinks.append(McHandle<Link>(new Link(inTarget, inName)));
    pathGenerationBump();
    ++const_cast<Resource&>(inTarget).mIncoming[this];
}

namespace
{
void dropIncoming(Resource* inTarget, QHash<Resource*, int>& inIncoming, Resource* inSource)
{
    (void)inTarget;
    auto it = inIncoming.find(inSource);
    if (it != inIncoming.end() && --it.value() <= 0)
        inIncoming.erase(it);
}
}

void Resource::linkRemove(const QString& inName)
{
    for (int64_t i = mLinks.size() - 1; i >= 0; --i)
    {
        if (mLinks[i]->name() != inName)
            continue;
        Resource* t = mLinks[i]->targetPtr();
        if (t)
            dropIncoming(t, t->mIncoming, this);
        mLinks.remove(i, 1);
        pathGenerationBump();
    }
}

void Resource::linkRemoveTo(const Resource* inTarget)
{
    for (int64_t i = mLinks.size() - 1; i >= 0; --i)
    {
        Resource* t = mLinks[i]->targetPtr();
        if (!t || (inTarget && t != inTarget))
            continue;
        dropIncoming(t, t->mIncoming, this);
        mLinks.remove(i, 1);
        pathGenerationBump();
    }
}

void Resource::linkSet(const QString& inName, const Resource* inTarget)
{
    linkRemove(inName);
    if (inTarget)
        linkAdd(*inTarget, inName);
}

void Resource::properties(McDArray<PropertyBase<Resource>*>& outProperties) const
{
    outProperties.clear();
    const PropertyTable& table = properties();
    outProperties.reserve(table.size());
    for (auto it = table.constBegin(); it != table.constEnd(); ++it)
    {
        PropertyBase<Resource>* p = it.value();
        // Binary insertion into the sorted array.
        int64_t lo = 0, hi = outProperties.size();
        while (lo < hi)
        {
            const int64_t mid = (lo + hi) / 2;
            if (outProperties[mid]->lessThan(*p))
                lo = mid + 1;
            else
                hi = mid;
        }
        outProperties.insert(lo, 1, &p);
    }
}

void Resource::incomingSources(std::vector<Resource*>& outSources) const
{
    outSources.clear();
    outSources.reserve(static_cast<size_t>(mIncoming.size()));
    for (auto it = mIncoming.constBegin(); it != mIncoming.constEnd(); ++it)
        outSources.push_back(it.key());
}
