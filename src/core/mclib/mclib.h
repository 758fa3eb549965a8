#pragma once
// Umbrella header of the base library.
#include "McCoder.h"
#include "McDArray.h"
#include "McDbC.h"
#include "McHandable.h"
#include "McHandle.h"
#include "McLogFile.h"
#include "McMD5.h"
#include "McMemory.h"
#include "McResult.h"
#include "McString.h"
#include "McUtil.h"
