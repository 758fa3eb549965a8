#pragma once
#include "KsGlobal.h"

namespace KsDeploy
{
// Base of every resource (filled in with the resource model).
class Resource : public McHandable
{
};
}
