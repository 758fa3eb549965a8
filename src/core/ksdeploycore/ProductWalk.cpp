#include "ProductWalk.h"

#include "Link.h"
#include "Resource.h"

#include <QHash>

using namespace KsDeploy;

ProductWalk::ProductWalk(const McDArray<McHandle<Resource>>& inResources, Order inOrder)
{
    QHash<const Resource*, int> index;
    index.reserve(static_cast<int>(inResources.size()));
    mNodes.reserve(static_cast<size_t>(inResources.size()));
    for (int64_t i = 0; i < inResources.size(); ++i)
    {
        index.insert(inResources[i].ptr(), static_cast<int>(i));
        mNodes.push_back(inResources[i].ptr());
    }
    mWaitsFor.assign(mNodes.size(), 0);
    mWaitedForBy.resize(mNodes.size());
    for (size_t i = 0; i < mNodes.size(); ++i)
    {
        const McDArray<McHandle<Link>>& links = mNodes[i]->links();
        for (int64_t l = 0; l < links.size(); ++l)
        {
            // Links that leave the product do not order anything.
            auto it = index.constFind(&links[l]->target());
            if (it == index.constEnd())
                continue;
            const size_t source = i;
            const size_t target = static_cast<size_t>(it.value());
            const size_t first = inOrder == Order::TargetsFirst ? target : source;
            const size_t second = inOrder == Order::TargetsFirst ? source : target;
            ++mWaitsFor[second];
            mWaitedForBy[first].push_back(static_cast<int>(second));
        }
    }
}

bool ProductWalk::run(const Visit& inVisit, const Cycle& inCycle, const Visit& inForced) const
{
    const size_t total = mNodes.size();
    std::vector<int> waitsFor = mWaitsFor;
    std::vector<int> pending(total);
    for (size_t i = 0; i < total; ++i)
        pending[i] = static_cast<int>(i);
    std::vector<char> done(total, 0);
    size_t left = total;
    const auto take = [&](int inIndex) {
        done[static_cast<size_t>(inIndex)] = 1;
        --left;
        for (int w : mWaitedForBy[static_cast<size_t>(inIndex)])
            --waitsFor[static_cast<size_t>(w)];
    };

    while (!pending.empty())
    {
        const size_t numLeft0 = pending.size();
        for (size_t k = pending.size(); k-- > 0;)
        {
            const int idx = pending[k];
            if (waitsFor[static_cast<size_t>(idx)] > 0)
                continue;
            const bool go = inVisit(*mNodes[static_cast<size_t>(idx)], left);
            take(idx);
            if (!go)
                return false;
        }
        std::vector<int> rest;
        rest.reserve(left);
        for (int idx : pending)
            if (!done[static_cast<size_t>(idx)])
                rest.push_back(idx);
        pending.swap(rest);
        const size_t numLeft1 = pending.size();
        if (numLeft1 == 0 || numLeft1 < numLeft0)
            continue;
        if (!inCycle(numLeft0, numLeft1))
            return false;
        const int idx = pending.back();
        const bool go = inForced(*mNodes[static_cast<size_t>(idx)], left);
        take(idx);
        pending.pop_back();
        if (!go)
            return false;
    }
    return true;
}
