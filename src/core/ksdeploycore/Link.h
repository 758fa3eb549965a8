#pragma once
#include "KsGlobal.h"

#include <QString>

namespace KsDeploy
{
class Resource;

// A named, directed edge; owned by its source resource, keeps its target alive.
class Link : public McHandable
{
public:
    Link(const Resource& inTarget, const QString& inName);
    ~Link() override;

    const QString& name() const { return mName; }
    const Resource& target() const { return *mTarget; }
    Resource* targetPtr() const { return mTarget.ptr(); }
    // Where the link stands in its source's array, kept by the source (removal by target
    // finds it without a scan).
    int64_t position() const { return mPosition; }
    void positionSet(int64_t inPosition) { mPosition = inPosition; }
    // The next link from the same source to the same target (the target keeps the first one).
    Link* nextToSameTarget() const { return mNextToSameTarget; }
    void nextToSameTargetSet(Link* inLink) { mNextToSameTarget = inLink; }

private:
    McHandle<Resource> mTarget;
    QString mName;
    int64_t mPosition = -1;
    Link* mNextToSameTarget = nullptr;
};
}
