#pragma once
#include "KsCommand.h"
#include "Plugin.h"

namespace KsDeploy
{
// The build system's side of the client: it contributes the command that turns a folder tree,
// generated from a build's output folder, into the product description the client installs.
class PluginKestraClientBuildSystem : public Plugin
{
public:
    static PluginKestraClientBuildSystem& instance();

    McResult onRegister() override;

    class Command_generateProductXML : public QxBase::Command
    {
        KS_COMMAND_CLASS_BODY(Command_generateProductXML)
    public:
        McResult execute() override;
    };

    // The folder every file of the client lies in, as the client's launch resolves it.
    static const char* const sApplicationFolder;
    // The client program and its launcher, which the start-menu shortcut starts.
    static const char* const sClientExe;
    static const char* const sLauncherExe;

private:
    PluginKestraClientBuildSystem();
    ~PluginKestraClientBuildSystem() override;
};
}
