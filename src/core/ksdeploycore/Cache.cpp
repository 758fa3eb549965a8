#include "Cache.h"

using namespace KsDeploy;

Cache::Cache() = default;
Cache::~Cache() = default;
