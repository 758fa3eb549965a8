#include "Progress.h"

KsDeploy::Progress::~Progress() = default;
