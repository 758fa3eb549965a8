#include "ResourceCOMObject.h"

#include "ResourcePlaceholderBody.h"

using namespace KsDeploy;

ResourceCOMObject::~ResourceCOMObject() = default;
McResult ResourceCOMObject::install() { return cannotBeCarriedOut(); }
McResult ResourceCOMObject::uninstall() { return cannotBeCarriedOut(); }
McResult ResourceCOMObject::verify() { return cannotBeCarriedOut(); }
