// Variable store: automatic values, resolution chains, cycles and undefined keys.
#include "Configuration.h"
#include "KsTestSupport.h"

#include <QDir>

using KsDeploy::Configuration;

namespace
{
class ConfigurationTest : public KsTest::EngineTest
{
protected:
    Configuration& config() { return KsDeploy::Engine::instance().configuration(); }
};
}

TEST_F(ConfigurationTest, AutomaticValuesFollowTheUserFolders)
{
    const QString home = QDir::homePath();
    EXPECT_EQ(home, config().value("WIN_PROFILE"));
    EXPECT_EQ(home + "/Desktop", config().value("WIN_DESKTOPDIRECTORY"));
    EXPECT_EQ(home + "/Documents", config().value("WIN_PERSONAL"));
    EXPECT_EQ(home + "/.local/share", config().value("WIN_LOCAL_APPDATA"));
    EXPECT_EQ(home + "/.config", config().value("WIN_APPDATA"));
    EXPECT_EQ(home + "/.local/share/applications", config().value("WIN_PROGRAMS"));
    EXPECT_EQ(home + "/.config/autostart", config().value("WIN_STARTUP"));
    EXPECT_EQ(home + "/.cache", config().value("WIN_INTERNET_CACHE"));
    // Virtual folders and Windows-only places have no equivalent here.
    EXPECT_FALSE(config().valueIsDefined("WIN_DRIVES"));
    EXPECT_FALSE(config().valueIsDefined("WIN_WINDOWS"));
    EXPECT_FALSE(config().valueIsDefined("WIN_BITBUCKET"));

    // The user-dirs file is honoured, with $HOME expanded.
    KsTest::writeFile(home + "/.config/user-dirs.dirs", "# comment\nXDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n");
    Configuration fresh;
    EXPECT_EQ(home + "/Schreibtisch", fresh.value("WIN_DESKTOPDIRECTORY"));
    QFile::remove(home + "/.config/user-dirs.dirs");

    config().valueClearAll();
    EXPECT_TRUE(config().keys().isEmpty());
    config().autodetect();
    EXPECT_EQ(home, config().value("WIN_PROFILE"));
}

TEST_F(ConfigurationTest, ResolvesChains)
{
    KsTest::FailureRecorder failures;
    config().valueSet("A", "${B}/x", false);
    config().valueSet("B", "C:/p", false);
    QString e = "${A}";
    EXPECT_TRUE(config().resolve(e).isOk());
    EXPECT_EQ("C:/p/x", e);

    QString plain = "$HOME/{x}";
    EXPECT_TRUE(config().resolve(plain).isOk());
    EXPECT_EQ("$HOME/{x}", plain);

    config().valueSet("WIN_WINDOWS", "W", false);
    QString lower = "${win_windows}";
    EXPECT_TRUE(config().resolve(lower).isBad());
    EXPECT_EQ("${win_windows}", lower);

    QString deep = "${L0}";
    for (int i = 0; i < 50; ++i)
        config().valueSet(QString("L%1").arg(i), QString("${L%1}+").arg(i + 1), false);
    config().valueSet("L50", "end", false);
    EXPECT_TRUE(config().resolve(deep).isOk());
    EXPECT_EQ("end" + QString(50, '+'), deep);
}

TEST_F(ConfigurationTest, CyclesAndUndefinedKeysFailWithBothTraces)
{
    KsTest::FailureRecorder failures;
    KsTest::LogRecorder log;
    // Two keys naming each other settle into a fixed point that still holds a reference.
    config().valueSet("A", "${B}", false);
    config().valueSet("B", "${A}", false);
    QString e = "${A}";
    EXPECT_TRUE(config().resolve(e).isBad());
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("Internal Error", failures.failures()[0].message);
    EXPECT_EQ("cond[isResolved(inoutExpression)]", failures.failures()[0].condition);
    EXPECT_EQ("Configuration:KsDeploy::Configuration::resolve", failures.failures()[0].location);
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_EQ("resolve(): unable to resolve: [${A}]", log.lines()[0].text);
    EXPECT_EQ(3, log.lines()[0].level);

    // A self-growing value ends after 1001 passes, with both reports and both traces.
    failures.clear();
    const size_t linesBefore = log.lines().size();
    config().valueSet("G", "${G}x", false);
    QString g = "${G}";
    EXPECT_TRUE(config().resolve(g).isBad());
    EXPECT_EQ(4 + 1001, g.size());  // "${G}" followed by one x per pass
    ASSERT_EQ(2u, failures.failures().size());
    EXPECT_EQ("cyclic variable substitution", failures.failures()[0].message);
    EXPECT_EQ("cond[maxLoop--]", failures.failures()[0].condition);
    EXPECT_EQ("cond[isResolved(inoutExpression)]", failures.failures()[1].condition);
    ASSERT_EQ(linesBefore + 2, log.lines().size());
    EXPECT_EQ("resolve(): recursion detected in [${G}]", log.lines()[linesBefore].text);
    EXPECT_EQ("resolve(): unable to resolve: [${G}]", log.lines()[linesBefore + 1].text);

    failures.clear();
    QString undefined = "a/${NOPE}/b";
    EXPECT_TRUE(config().resolve(undefined).isBad());
    EXPECT_EQ("a/${NOPE}/b", undefined);
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("cond[isResolved(inoutExpression)]", failures.failures()[0].condition);
}
