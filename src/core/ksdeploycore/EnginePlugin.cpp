// Plugin registry of the engine: a closed set of plugins, registered and activated by name.
#include "Engine.h"
#include "Plugin.h"
#include "PluginKestraClient.h"
#include "PluginKestraClientBuildSystem.h"

using namespace KsDeploy;

namespace
{
// The library's own plugins, each its single instance. Test code adds factories through
// Engine::pluginFactoryAdd, which the command line cannot reach.
QHash<QString, Engine::PluginFactory>& factories()
{
    static QHash<QString, Engine::PluginFactory> sFactories = {
        {QStringLiteral("KestraClient"), [] { return McHandle<Plugin>(&PluginKestraClient::instance()); }},
        {QStringLiteral("KestraClientBuildSystem"),
         [] { return McHandle<Plugin>(&PluginKestraClientBuildSystem::instance()); }},
    };
    return sFactories;
}
}

void Engine::pluginFactoryAdd(const QString& inPluginName, PluginFactory inFactory)
{
    factories().insert(inPluginName, inFactory);
}

McHandle<Plugin> Engine::pluginLookup(const QString& inPluginName) const
{
    for (int64_t i = mListOfPlugin.size() - 1; i >= 0; --i)
    {
        MC_ASSERT(mListOfPlugin[i].isNotNull());
        if (mListOfPlugin[i].isNotNull() && mListOfPlugin[i]->name() == inPluginName)
            return mListOfPlugin[i];
    }
    return McHandle<Plugin>();
}

bool Engine::pluginIsRegistered(const QString& inPluginName) const { return pluginLookup(inPluginName).isNotNull(); }

McResult Engine::pluginRegister(const QString& inPluginName) const
{
    MC_REQUIRE(!pluginIsRegistered(inPluginName));
    McResult retVal;
    McHandle<Plugin> plugin;
    auto it = factories().constFind(inPluginName);
    if (it != factories().constEnd())
        plugin = it.value()();
    if (MC_CHECK(retVal, plugin.isNotNull(), inPluginName))
        return retVal;
    // Registered before onRegister runs, so a failing onRegister leaves it registered.
    const_cast<Engine*>(this)->mListOfPlugin.append(plugin);
    retVal = plugin->onRegister();
    MC_ENSURE(retVal.isOk() == pluginIsRegistered(inPluginName));
    return retVal;
}

McResult Engine::pluginActivate(const QString& inPluginName) const
{
    MC_REQUIRE(pluginIsRegistered(inPluginName));
    McResult retVal;
    McHandle<Plugin> plugin = pluginLookup(inPluginName);
    if (MC_CHECK(retVal, plugin.isNotNull(), inPluginName))
        return retVal;
    return plugin->onActivate();
}
