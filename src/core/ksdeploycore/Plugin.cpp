#include "Plugin.h"

using namespace KsDeploy;

Plugin::~Plugin() = default;
McResult Plugin::onRegister() { return McResult(); }
McResult Plugin::onActivate() { return McResult(); }
McResult Plugin::onInstallPre(const McHandle<ResourceProduct>&) { return McResult(); }
McResult Plugin::onInstall(const McHandle<ResourceProduct>&) { return McResult(); }
void Plugin::onInstallPost(const McHandle<ResourceProduct>&, bool) {}
