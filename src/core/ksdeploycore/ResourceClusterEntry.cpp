#include "ResourceClusterEntry.h"

#include "ResourcePlaceholderBody.h"

using namespace KsDeploy;

ResourceClusterEntry::~ResourceClusterEntry() = default;
McResult ResourceClusterEntry::install() { return cannotBeCarriedOut(); }
McResult ResourceClusterEntry::uninstall() { return cannotBeCarriedOut(); }
McResult ResourceClusterEntry::verify() { return cannotBeCarriedOut(); }
