#pragma once

namespace KsDeploy
{
// Indexes of the resource pool (filled in with the pool).
class ResourcePoolIndex
{
};
}
