// The build-system plugin in the engine's plugin registry: its single instance, and the command it
// contributes when it is registered.
#include "KsTestSupport.h"
#include "PluginKestraClientBuildSystem.h"

using namespace KsDeploy;

namespace
{
class PluginKestraClientBuildSystemTest : public KsTest::EngineTest
{
};
}

TEST_F(PluginKestraClientBuildSystemTest, RegisteringAddsTheSingleInstanceAndItsCommand)
{
    Engine& e = Engine::instance();
    KsTest::FailureRecorder failures;
    // Names compare exactly.
    EXPECT_TRUE(e.pluginRegister("kestraclientbuildsystem").isBad());
    EXPECT_TRUE(failures.hasMessage("kestraclientbuildsystem"));
    EXPECT_FALSE(e.pluginIsRegistered("kestraclientbuildsystem"));

    ASSERT_TRUE(e.pluginRegister("KestraClientBuildSystem").isOk());
    const McHandle<Plugin> plugin = e.pluginLookup("KestraClientBuildSystem");
    ASSERT_TRUE(plugin.isNotNull());
    EXPECT_EQ(static_cast<Plugin*>(&PluginKestraClientBuildSystem::instance()), plugin.ptr());
    EXPECT_EQ(QStringLiteral("KestraClientBuildSystem"), plugin->name());
    EXPECT_TRUE(QxBase::Command::isRegistered("generateProductXML"));
    EXPECT_TRUE(QxBase::Command::attributeIsAccepted("generateProductXML", "previous"));
    EXPECT_FALSE(QxBase::Command::attributeIsAccepted("generateProductXML", "product"));
    // Activation has nothing to do; it may be asked for any number of times.
    EXPECT_TRUE(e.pluginActivate("KestraClientBuildSystem").isOk());
    EXPECT_TRUE(e.pluginActivate("KestraClientBuildSystem").isOk());
}
