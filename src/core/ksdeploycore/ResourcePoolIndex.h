#pragma once
#include <QHash>
#include <QUuid>

#include <cstdint>
#include <vector>

namespace KsDeploy
{
class Resource;

// Indexes kept beside the pool array so that look-up by identity and removal stay
// near-constant time. The array may hold null holes left by removals; they are squeezed
// out once they make up half of it, keeping registration order.
class ResourcePoolIndex
{
public:
    // One resource per identity; a plain pointer, since nearly every identity is held by one
    // resource and a load enters one per element.
    QHash<QUuid, Resource*> mByUuid;
    // The further resources of an identity held by several (a product and its clone while a
    // transaction runs, a file loaded twice); empty in the common case.
    QHash<QUuid, std::vector<Resource*>> mShared;
    int64_t mHoles = 0;
};
}
