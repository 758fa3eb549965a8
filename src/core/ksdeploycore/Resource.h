#pragma once
#include "KsGlobal.h"
#include "Link.h"
#include "Property.h"

#include <QHash>
#include <QString>
#include <QUuid>

#include <functional>
#include <vector>

namespace KsDeploy
{
// Counts the changes that can alter a resolved path: names, links and configuration values.
// A path remembered under the current count is still right.
uint64_t pathGeneration();
void pathGenerationBump();

// A node of the resource graph. Every resource enters the engine's pool when it is made.
class Resource : public McHandable
{
public:
    typedef QHash<QString, PropertyBase<Resource>*> PropertyTable;

    Resource();
    Resource(const Resource& inOther);
    Resource& operator=(const Resource& inOther);
    ~Resource() override;

    virtual McResult install() = 0;
    virtual McResult uninstall() = 0;
    virtual McResult verify() = 0;
    virtual McResult scan();
    virtual QString path() const;
    virtual const PropertyTable& properties() const;

    // What a name stands for, which decides what it may hold: a root folder's name is a whole
    // path, a root registry key's name a key path; any name below a root is one component, so
    // that nothing a description says can reach outside the place it installs to.
    enum NameRule
    {
        NameFree,        // a product key: never part of a path
        NameFolderRoot,  // an absolute path once resolved, without ".." in it
        NameFile,        // one component of a file-system path
        NameKeyRoot,     // a registry key path
        NameKey,         // one component of a registry key path
        NameValue,       // a registry value name: any text but control characters
    };
    virtual NameRule nameRule() const { return NameFree; }
    // Why inName cannot be one path component, or an empty text when it can.
    static QString nameComponentProblem(const QString& inName);
    // Refuses a name that does not fit its rule (as written, references left in place); asked
    // by the loader once the containers are linked.
    McResult nameCheck() const;
    // Refuses a name that has no value for one of its references, reporting it the way a
    // failed resolution is reported; for checking every name before any path is built.
    McResult nameResolvableCheck() const;
    // Refuses a resolved name that does not fit its rule, and a resolved file-system path that
    // is not absolute or holds "..": asked before anything of a product is touched.
    McResult pathCheck() const;
    // True, after saying so, when a folder's path is a symbolic link: it is never followed.
    static bool folderIsSymbolicLink(const QString& inPath);

    QString name() const { return mName; }
    void nameSet(const QString& inName)
    {
        mName = inName;
        pathGenerationBump();
    }
    QUuid uuid() const { return mUuid; }
    void uuidSet(const QUuid& inUuid);
    // For a reader that knows the identity of the resource it makes next: that resource takes
    // it (and enters the pool under it) instead of drawing a random one, which costs more than
    // the rest of making it. Null clears an identity not taken.
    static void identityNextSet(const QUuid& inUuid);
    // While set, resources made on this thread stay out of the pool until the caller registers
    // them: a reader working beside the engine's thread must not touch the pool, and the pool
    // takes them in file order afterwards.
    static void poolEntryDeferSet(bool inDefer);
    bool absence() const { return mAbsence; }
    void absenceSet(bool inAbsence) { mAbsence = inAbsence; }
    bool deleteOnUninstall() const { return mDeleteOnUninstall; }
    void deleteOnUninstallSet(bool inFlag) { mDeleteOnUninstall = inFlag; }

    // Adds a link unless one with the same target object and name exists.
    void linkAdd(const Resource& inTarget, const QString& inName);
    unsigned int linkCount() const { return static_cast<unsigned int>(mLinks.size() - mLinkHoles); }
    bool linksTo(const Resource& inTarget, const QString& inName) const;
    // The links in the order they were added.
    const McDArray<McHandle<Link>>& links() const
    {
        if (mLinkHoles > 0)
            linksCompact();
        return mLinks;
    }
    // Removes every link of that name.
    void linkRemove(const QString& inName);
    // Removes every link to that target (every link with a target when null).
    void linkRemoveTo(const Resource* inTarget);

    // The one linked resource of class T under that name (any name when empty).
    template <class T>
    McHandle<T> link(const QString& inName) const
    {
        McHandle<T> retVal;
        const McDArray<McHandle<Link>>& all = links();
        for (int64_t i = all.size() - 1; i >= 0; --i)
        {
            T* t = dynamic_cast<T*>(all[i]->targetPtr());
            if (!t || (!inName.isEmpty() && all[i]->name() != inName))
                continue;
            MC_DBC_TEXT(DbCCheck, retVal.isNull(), "retVal.isNull()");
            retVal = t;
        }
        return retVal;
    }

    // All linked resources of class T, optionally only under one name.
    template <class T>
    void linked(McDArray<McHandle<T>>& outResources, const QString& inName = QString()) const
    {
        outResources.clear();
        const McDArray<McHandle<Link>>& all = links();
        for (int64_t i = 0; i < all.size(); ++i)
            if (T* t = dynamic_cast<T*>(all[i]->targetPtr()))
                if (inName.isEmpty() || all[i]->name() == inName)
                    outResources.append(McHandle<T>(t));
    }

    // Sorted listing of the class's properties.
    void properties(McDArray<PropertyBase<Resource>*>& outProperties) const;
    // Hands every property text to inRewrite; a text it changed is written back.
    void propertiesRewrite(const std::function<void(QString&)>& inRewrite);

    // The resources holding links to this one (each once, in no particular order).
    void incomingSources(std::vector<Resource*>& outSources) const;

protected:
    void notifyDelete() override;
    // Replaces the links of one name by a single link to inTarget (none when null).
    void linkSet(const QString& inName, const Resource* inTarget);

private:
    // Removes every link for which inRemove(link) is true, keeping the order of the others.
    template <class Predicate>
    void linkRemoveIf(Predicate inRemove);
    // Squeezes the holes left by removals out of mLinks, keeping the order.
    void linksCompact() const;
    // The identity set by identityNextSet, once, else a random one.
    static QUuid identityTake();

private:
    friend class Engine;

    QString mName;
    // In the order added. Removal by target leaves null holes (counted in mLinkHoles) so that
    // unlinking many targets one by one stays linear; links() squeezes them out.
    mutable McDArray<McHandle<Link>> mLinks;
    mutable int64_t mLinkHoles = 0;
    QUuid mUuid;
    bool mAbsence = false;
    bool mDeleteOnUninstall = true;

    // Who links to me, with the first of the links each holds to me (the others follow through
    // Link::nextToSameTarget); kept by linkAdd and link removal. The duplicate check and removal
    // by target use it instead of scanning the source's links. One pointer per source keeps
    // this small: every resource of a large graph has such a table.
    QHash<Resource*, Link*> mIncoming;
    int64_t mPoolPosition = -1;
};

// Enters a property into a class's table. The property objects live as long as the process;
// they are owned here so that they are released at exit like everything else.
void propertyTableInsert(Resource::PropertyTable& inoutTable, const char* inName, PropertyBase<Resource>* inProperty);
}
