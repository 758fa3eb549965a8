#pragma once
#include "KsGlobal.h"
#include "Link.h"
#include "Property.h"

#include <QHash>
#include <QString>
#include <QUuid>

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

    QString name() const { return mName; }
    void nameSet(const QString& inName)
    {
        mName = inName;
        pathGenerationBump();
    }
    QUuid uuid() const { return mUuid; }
    void uuidSet(const QUuid& inUuid);
    bool absence() const { return mAbsence; }
    void absenceSet(bool inAbsence) { mAbsence = inAbsence; }
    bool deleteOnUninstall() const { return mDeleteOnUninstall; }
    void deleteOnUninstallSet(bool inFlag) { mDeleteOnUninstall = inFlag; }

    // Adds a link unless one with the same target object and name exists.
    void linkAdd(const Resource& inTarget, const QString& inName);
    unsigned int linkCount() const { return static_cast<unsigned int>(mLinks.size()); }
    bool linksTo(const Resource& inTarget, const QString& inName) const;
    const McDArray<McHandle<Link>>& links() const { return mLinks; }
    // Removes every link of that name.
    void linkRemove(const QString& inName);
    // Removes every link to that target (every link with a target when null).
    void linkRemoveTo(const Resource* inTarget);

    // The one linked resource of class T under that name (any name when empty).
    template <class T>
    McHandle<T> link(const QString& inName) const
    {
        McHandle<T> retVal;
        for (int64_t i = mLinks.size() - 1; i >= 0; --i)
        {
            T* t = dynamic_cast<T*>(mLinks[i]->targetPtr());
            if (!t || (!inName.isEmpty() && mLinks[i]->name() != inName))
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
        for (int64_t i = 0; i < mLinks.size(); ++i)
            if (T* t = dynamic_cast<T*>(mLinks[i]->targetPtr()))
                if (inName.isEmpty() || mLinks[i]->name() == inName)
                    outResources.append(McHandle<T>(t));
    }

    // Sorted listing of the class's properties.
    void properties(McDArray<PropertyBase<Resource>*>& outProperties) const;

    // The resources holding links to this one (each once, in no particular order).
    void incomingSources(std::vector<Resource*>& outSources) const;

protected:
    void notifyDelete() override;
    // Replaces the links of one name by a single link to inTarget (none when null).
    void linkSet(const QString& inName, const Resource* inTarget);

private:
    friend class Engine;

    QString mName;
    McDArray<McHandle<Link>> mLinks;
    QUuid mUuid;
    bool mAbsence = false;
    bool mDeleteOnUninstall = true;

    // Who links to me, with the number of links each holds; kept by linkAdd and link removal.
    QHash<Resource*, int> mIncoming;
    int64_t mPoolPosition = -1;
};

// Enters a property into a class's table. The property objects live as long as the process;
// they are owned here so that they are released at exit like everything else.
void propertyTableInsert(Resource::PropertyTable& inoutTable, const char* inName, PropertyBase<Resource>* inProperty);
}
