#pragma once
#include "KsGlobal.h"

#include <functional>
#include <vector>

namespace KsDeploy
{
class Resource;

// The dependency-ordered walk that install and uninstall share. Install goes link targets first,
// uninstall the other way round: a resource is visited only once no pending resource comes before
// it. Each pass walks the pending list from its last element to its first, so that of resources
// ready at the same time the one collected later goes first. Runs in time linear in resources and
// links per pass.
class ProductWalk
{
public:
    enum class Order
    {
        TargetsFirst,
        SourcesFirst,
    };
    // Visits one resource; inLeft is the pending count before it goes. False stops the walk.
    typedef std::function<bool(Resource& inResource, size_t inLeft)> Visit;
    // Asked when a pass freed nothing, with the pending counts before and after it: the rest link
    // to one another in a cycle. True lets the last pending resource go regardless (see run).
    typedef std::function<bool(size_t inNumLeft0, size_t inNumLeft1)> Cycle;

    ProductWalk(const McDArray<McHandle<Resource>>& inResources, Order inOrder);

    size_t total() const { return mNodes.size(); }
    // Visits every resource through inVisit; a resource let go by inCycle goes through inForced.
    // True when every resource was visited, false when a visit or inCycle stopped the walk.
    bool run(const Visit& inVisit, const Cycle& inCycle, const Visit& inForced) const;

private:
    std::vector<Resource*> mNodes;
    // Per node: how many links tie it to a node that must go first, and the nodes that wait for
    // it (one entry per link).
    std::vector<int> mWaitsFor;
    std::vector<std::vector<int>> mWaitedForBy;
};
}
