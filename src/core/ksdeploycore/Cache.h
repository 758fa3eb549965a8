#pragma once
#include "KsGlobal.h"

namespace KsDeploy
{
// Content cache keyed by MD5 (filled in by the cache unit).
class Cache
{
public:
    Cache();
    virtual ~Cache();
};
}
