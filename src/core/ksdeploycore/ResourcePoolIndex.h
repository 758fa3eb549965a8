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
    QHash<QUuid, std::vector<Resource*>> mByUuid;
    int64_t mHoles = 0;
};
}
