#include "Resource.h"

#include <memory>
#include <vector>

#include "Configuration.h"
#include "Engine.h"
#include "ResourceFactory.h"

#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <mutex>

using namespace KsDeploy;

namespace
{
std::atomic<uint64_t> sPathGeneration{1};
// Set on a thread whose resources the caller registers later.
thread_local bool sPoolEntryDeferred = false;
}

uint64_t KsDeploy::pathGeneration() { return sPathGeneration.load(std::memory_order_relaxed); }
void KsDeploy::pathGenerationBump() { sPathGeneration.fetch_add(1, std::memory_order_relaxed); }

Resource::Resource() : mUuid(identityTake())
{
    // Unregistered, nothing holds it yet: the maker's handle is its first.
    if (sPoolEntryDeferred)
        return;
    if (Engine::instanceAvailable())
    {
        McHandle<Resource> self(this);
        Engine::instance().resourceRegister(self);
    }
    MC_ASSERT(refCount()>0);
}

void Resource::poolEntryDeferSet(bool inDefer) { sPoolEntryDeferred = inDefer; }

// A copy is a new node: its own identity, no links, and its own place in the pool.
Resource::Resource(const Resource& inOther)
    : McHandable(inOther), mName(inOther.mName), mUuid(QUuid::createUuid()), mAbsence(inOther.mAbsence),
      mDeleteOnUninstall(inOther.mDeleteOnUninstall)
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
        if (Resource* t = mLinks[i].isNotNull() ? mLinks[i]->targetPtr() : nullptr)
            t->mIncoming.remove(this);
}

void Resource::notifyDelete()
{
    // The pool holds a handle, so a resource reaching zero is no longer registered.
    delete this;
}

McResult Resource::scan() { return McResult(); }

namespace
{
bool isControl(QChar inChar)
{
    const ushort u = inChar.unicode();
    return u < 0x20 || (u >= 0x7f && u < 0xa0);
}

// A name as it can be shown on one line: control characters written as \xNN.
QString printable(const QString& inText)
{
    QString out;
    for (const QChar c : inText)
        out += isControl(c) ? QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0')) : QString(c);
    return out;
}

QString controlProblem(const QString& inText)
{
    for (const QChar c : inText)
        if (isControl(c))
            return QStringLiteral("holds the control character 0x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
    return QString();
}

// A whole path may hold separators, but never a step up.
QString pathProblem(const QString& inPath, QChar inSeparator)
{
    const QString control = controlProblem(inPath);
    if (!control.isEmpty())
        return control;
    // Looked for in place: this runs for every file of a product.
    for (qsizetype at = inPath.indexOf(QLatin1String("..")); at >= 0; at = inPath.indexOf(QLatin1String(".."), at + 1))
    {
        const bool starts = at == 0 || inPath.at(at - 1) == inSeparator;
        const bool ends = at + 2 == inPath.size() || inPath.at(at + 2) == inSeparator;
        if (starts && ends)
            return QStringLiteral("holds a \"..\" component");
    }
    return QString();
}

QString ruleProblem(Resource::NameRule inRule, const QString& inName)
{
    switch (inRule)
    {
    case Resource::NameFolderRoot:
        return pathProblem(inName, QLatin1Char('/'));
    case Resource::NameKeyRoot:
        return pathProblem(inName, QLatin1Char('\\'));
    case Resource::NameFile:
    case Resource::NameKey:
        // An empty name gives an empty path, which the resource itself refuses.
        return inName.isEmpty() ? QString() : Resource::nameComponentProblem(inName);
    case Resource::NameValue:
        return controlProblem(inName);
    case Resource::NameFree:
        break;
    }
    return QString();
}

QString describe(const Resource& inResource)
{
    return QStringLiteral("%1 %2").arg(ResourceFactory::className(&inResource),
                                       inResource.uuid().toString(QUuid::WithBraces));
}

std::string detailOf(const QString& inText, const QString& inProblem)
{
    return mcMessageText(QStringLiteral("%1: %2").arg(printable(inText), inProblem));
}
}

bool Resource::folderIsSymbolicLink(const QString& inPath)
{
    const QFileInfo info(inPath);
    if (!info.isSymLink())
        return false;
    McResult report;
    MC_CHECK_DETAIL(report, !info.isSymLink(), "refused to use a symbolic link as a folder",
                    mcMessageText(QStringLiteral("%1: a symbolic link to %2; links are never followed")
                                      .arg(inPath, info.symLinkTarget())));
    return true;
}

QString Resource::nameComponentProblem(const QString& inName)
{
    // One pass over the characters, nothing allocated for a good name: every file of a product
    // is checked when it is loaded.
    bool slash = false;
    bool backslash = false;
    bool dotsOnly = true;
    QChar control;
    bool hasControl = false;
    for (const QChar c : inName)
    {
        const ushort u = c.unicode();
        slash = slash || u == '/';
        backslash = backslash || u == '\\';
        dotsOnly = dotsOnly && u == '.';
        if (!hasControl && isControl(c))
        {
            hasControl = true;
            control = c;
        }
    }
    if (dotsOnly && (inName.size() == 1 || inName.size() == 2))
        return QStringLiteral("is not one path component (it is \"%1\")").arg(inName);
    if (slash)
        return QStringLiteral("is not one path component (it holds '/')");
    if (backslash)
        return QStringLiteral("is not one path component (it holds '\\')");
    if (hasControl)
        return QStringLiteral("holds the control character 0x%1").arg(control.unicode(), 2, 16, QLatin1Char('0'));
    return QString();
}

McResult Resource::nameCheck() const
{
    McResult retVal;
    const QString problem = ruleProblem(nameRule(), name());
    MC_CHECK_DETAIL(retVal, problem.isEmpty(), QStringLiteral("refused name [%1] of %2").arg(printable(name()), describe(*this)),
                    detailOf(name(), problem));
    return retVal;
}

McResult Resource::nameResolvableCheck() const
{
    Configuration& configuration = Engine::instance().configuration();
    QString resolved = name();
    if (configuration.resolveQuietly(resolved))
        return McResult();
    // Reported once, by the resolution itself, with the keys that have no value.
    QString again = name();
    return configuration.resolve(again);
}

McResult Resource::pathCheck() const
{
    McResult retVal;
    const NameRule rule = nameRule();
    if (rule == NameFree)
        return retVal;
    QString resolved = name();
    Engine::instance().configuration().resolveQuietly(resolved);
    QString problem = ruleProblem(rule, resolved);
    if (problem.isEmpty() && rule == NameFolderRoot && !resolved.startsWith(QLatin1Char('/')))
        problem = QStringLiteral("is not an absolute path");
    if (MC_CHECK_DETAIL(retVal, problem.isEmpty(), QStringLiteral("refused name [%1] of %2").arg(printable(name()), describe(*this)),
                        detailOf(resolved, problem)))
        return retVal;
    if (rule != NameFolderRoot && rule != NameFile)
        return retVal;
    // Where the product's files go is looked at before any of them is fetched.
    if (rule == NameFolderRoot && folderIsSymbolicLink(resolved))
        return retVal.makeBad(1);
    // The whole path once more, in case a name's pieces only together form a step up.
    const QString full = path();
    if (full.isEmpty())
        return retVal;
    problem = full.startsWith(QLatin1Char('/')) ? pathProblem(full, QLatin1Char('/'))
                                                : QStringLiteral("is not an absolute path");
    MC_CHECK_DETAIL(retVal, problem.isEmpty(), QStringLiteral("refused path of %1").arg(describe(*this)),
                    detailOf(full, problem));
    return retVal;
}
QString Resource::path() const { return QString(); }

void KsDeploy::propertyTableInsert(Resource::PropertyTable& inoutTable, const char* inName,
                                   PropertyBase<Resource>* inProperty)
{
    // Classes' tables may first be asked for on two reading threads at once.
    static std::mutex sOwnedLock;
    static std::vector<std::unique_ptr<PropertyBase<Resource>>> sOwned;
    const std::lock_guard<std::mutex> lock(sOwnedLock);
    sOwned.emplace_back(inProperty);
    inoutTable.insert(QString::fromLatin1(inName), inProperty);
}

const Resource::PropertyTable& Resource::properties() const
{
    static const PropertyTable sTable = [] {
        PropertyTable t;
        propertyTableInsert(
            t, "UUID", new Property<Resource, Resource, QUuid>("UUID", -1000, &Resource::uuid, &Resource::uuidSet));
        propertyTableInsert(
            t, "Absence",
            new Property<Resource, Resource, bool>("Absence", -700, &Resource::absence, &Resource::absenceSet));
        propertyTableInsert(t, "DeleteOnUninstall",
                            new Property<Resource, Resource, bool>("DeleteOnUninstall", -600,
                                                                   &Resource::deleteOnUninstall,
                                                                   &Resource::deleteOnUninstallSet));
        propertyTableInsert(
            t, "Name", new Property<Resource, Resource, QString>("Name", -500, &Resource::name, &Resource::nameSet));
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
    for (const Link* link = inTarget.mIncoming.value(const_cast<Resource*>(this)); link;
         link = link->nextToSameTarget())
        if (link->name() == inName)
            return true;
    return false;
}

void Resource::linkAdd(const Resource& inTarget, const QString& inName)
{
    MC_REQUIRE(inTarget.refCount()>0);
    // One look-up of the target's entry for this source serves both the duplicate check and the
    // insertion: a load makes one link per resource at least. Nothing below touches the table.
    Link*& first = const_cast<Resource&>(inTarget).mIncoming[this];
    for (const Link* existing = first; existing; existing = existing->nextToSameTarget())
        if (existing->name() == inName)
            return;
    McHandle<Link> link(new Link(inTarget, inName));
    link->positionSet(mLinks.size());
    mLinks.append(link);
    pathGenerationBump();
    link->nextToSameTargetSet(first);
    first = link.ptr();
}

void Resource::linksCompact() const
{
    int64_t out = 0;
    McHandle<Link>* data = mLinks.data();
    for (int64_t i = 0; i < mLinks.size(); ++i)
    {
        if (data[i].isNull())
            continue;
        if (out != i)
            data[out] = std::move(data[i]);
        data[out]->positionSet(out);
        ++out;
    }
    mLinks.removeLast(mLinks.size() - out);
    mLinkHoles = 0;
}

namespace
{
// Forgets one link of inSource in its target's list of incoming links.
void dropIncoming(QHash<Resource*, Link*>& inIncoming, Resource* inSource, Link* inLink)
{
    auto it = inIncoming.find(inSource);
    if (it == inIncoming.end())
        return;
    if (it.value() == inLink)
    {
        if (Link* next = inLink->nextToSameTarget())
            it.value() = next;
        else
            inIncoming.erase(it);
    }
    else
    {
        for (Link* each = it.value(); each->nextToSameTarget(); each = each->nextToSameTarget())
            if (each->nextToSameTarget() == inLink)
            {
                each->nextToSameTargetSet(inLink->nextToSameTarget());
                break;
            }
    }
    inLink->nextToSameTargetSet(nullptr);
}
}

template <class Predicate>
void Resource::linkRemoveIf(Predicate inRemove)
{
    // One pass that keeps the order of the links that stay; removing one by one would move the
    // tail of the array for every link removed.
    linksCompact();
    McDArray<McHandle<Link>> kept;
    McDArray<McHandle<Link>> removed;
    kept.reserve(mLinks.size());
    for (int64_t i = 0; i < mLinks.size(); ++i)
    {
        Link* link = mLinks[i].ptr();
        if (!inRemove(*link))
        {
            link->positionSet(kept.size());
            kept.append(mLinks[i]);
            continue;
        }
        if (Resource* t = link->targetPtr())
            dropIncoming(t->mIncoming, this, link);
        removed.append(mLinks[i]);
    }
    if (removed.size() == 0)
        return;
    mLinks.swap(kept);
    pathGenerationBump();
    // The removed links, and with them perhaps their targets, are released only now, when this
    // resource is consistent again.
}

void Resource::linkRemove(const QString& inName)
{
    linkRemoveIf([&inName](const Link& inLink) { return inLink.name() == inName; });
}

void Resource::linkRemoveTo(const Resource* inTarget)
{
    if (!inTarget)
    {
        linkRemoveIf([](const Link& inLink) { return inLink.targetPtr() != nullptr; });
        return;
    }
    QHash<Resource*, Link*>& incoming = const_cast<Resource*>(inTarget)->mIncoming;
    auto mine = incoming.find(this);
    if (mine == incoming.end())
        return;
    // Only the links to that target are touched: unlinking every target of a large resource
    // one by one stays linear. Their slots become holes until the next links().
    McDArray<McHandle<Link>> removed;
    Link* next = nullptr;
    for (Link* link = mine.value(); link; link = next)
    {
        next = link->nextToSameTarget();
        link->nextToSameTargetSet(nullptr);
        const int64_t at = link->position();
        MC_ASSERT(at >= 0 && at < mLinks.size() && mLinks[at].ptr() == link);
        if (at < 0 || at >= mLinks.size() || mLinks[at].ptr() != link)
            continue;
        removed.append(mLinks[at]);
        mLinks[at] = McHandle<Link>();
        ++mLinkHoles;
    }
    incoming.erase(mine);
    pathGenerationBump();
    // Trailing holes go at once; the rest once they make up half of the array.
    while (mLinks.size() > 0 && mLinks.last().isNull())
    {
        mLinks.removeLast(1);
        --mLinkHoles;
    }
    if (mLinkHoles > 64 && mLinkHoles * 2 > mLinks.size())
        linksCompact();
}

void Resource::linkSet(const QString& inName, const Resource* inTarget)
{
    linkRemove(inName);
    if (inTarget)
        linkAdd(*inTarget, inName);
}

void Resource::propertiesRewrite(const std::function<void(QString&)>& inRewrite)
{
    McDArray<PropertyBase<Resource>*> props;
    properties(props);
    for (int64_t p = 0; p < props.size(); ++p)
    {
        const QString before = props[p]->read(this);
        QString text = before;
        inRewrite(text);
        if (text != before)
            props[p]->write(this, text);
    }
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

namespace
{
// The identity the next resource made on this thread takes (null: a random one).
thread_local QUuid sIdentityNext;
}

void Resource::identityNextSet(const QUuid& inUuid) { sIdentityNext = inUuid; }

QUuid Resource::identityTake()
{
    if (sIdentityNext.isNull())
        return QUuid::createUuid();
    const QUuid taken = sIdentityNext;
    sIdentityNext = QUuid();
    return taken;
}
