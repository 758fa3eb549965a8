#pragma once
// Shared includes of the engine library.
#include "QxGlobal.h"
