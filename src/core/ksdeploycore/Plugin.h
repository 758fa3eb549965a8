#pragma once
#include "KsGlobal.h"

namespace KsDeploy
{
// Base of the plugins (filled in with the plugin registry).
class Plugin : public McHandable
{
};
}
