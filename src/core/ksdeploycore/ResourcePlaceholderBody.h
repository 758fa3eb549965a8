#pragma once
#include "KsGlobal.h"

namespace KsDeploy
{
// The one shared body of the kinds that cannot be carried out: nothing is done, and the
// failure carries no message.
inline McResult cannotBeCarriedOut() { return McResult(McResult::CodeFail, "", ""); }
}
