#include "ResourceCommand.h"

#include "ResourcePlaceholderBody.h"

using namespace KsDeploy;

ResourceCommand::~ResourceCommand() = default;
McResult ResourceCommand::install() { return cannotBeCarriedOut(); }
McResult ResourceCommand::uninstall() { return cannotBeCarriedOut(); }
McResult ResourceCommand::verify() { return cannotBeCarriedOut(); }
