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

TEST(ConfigurationTable, ConversionsAndInvalidInput)
{
    KsTest::ContractRecorder contracts;
    EXPECT_STREQ("WIN_PROGRAM_FILES", Configuration::AutoValue2String(Configuration::WIN_PROGRAM_FILES));
    EXPECT_EQ(38, Configuration::String2AutoValue("WIN_PROGRAM_FILES"));
    EXPECT_TRUE(contracts.events().empty());

    EXPECT_STREQ("AUTO_INVALID", Configuration::AutoValue2String(static_cast<Configuration::AutoValue>(15)));
    EXPECT_EQ(0, Configuration::String2AutoValue("win_windows"));
    EXPECT_EQ(2u, contracts.count("0"));

    Configuration::AutoValue v = Configuration::WIN_FONTS;
    EXPECT_TRUE(Configuration::Index2AutoValue(0, v));
    EXPECT_EQ(Configuration::WIN_ADMINTOOLS, v);
    EXPECT_TRUE(Configuration::Index2AutoValue(56, v));
    EXPECT_EQ(Configuration::WIN_WINDOWS, v);
    EXPECT_FALSE(Configuration::Index2AutoValue(57, v));
    EXPECT_EQ(0, v);
    v = Configuration::WIN_FONTS;
    EXPECT_FALSE(Configuration::Index2AutoValue(-1, v));
    EXPECT_EQ(0, v);

    // Every table entry round-trips through its name.
    for (int i = 0; i < Configuration::sAutoValueCount; ++i)
    {
        ASSERT_TRUE(Configuration::Index2AutoValue(i, v));
        EXPECT_EQ(v, Configuration::String2AutoValue(Configuration::AutoValue2String(v))) << i;
    }
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

TEST_F(ConfigurationTest, ValueOperations)
{
    config().valueSet("A", "1", false);
    config().valueSet("A", "2", false);
    EXPECT_EQ("2", config().value("A"));
    EXPECT_TRUE(config().valueIsDefined("A"));
    EXPECT_EQ(QString(), config().value("missing"));
    config().valueClear("missing");
    config().valueClear("A");
    EXPECT_FALSE(config().valueIsDefined("A"));
    EXPECT_TRUE(config().isResolved("$HOME {x} $ {"));
    EXPECT_FALSE(config().isResolved("a${b"));

    // Copies are independent once either changes.
    Configuration copy(config());
    copy.valueSet("ONLY_COPY", "x", false);
    EXPECT_FALSE(config().valueIsDefined("ONLY_COPY"));
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
    EXPECT_EQ(4 + 1001, g.size()); // "${G}" followed by one x per pass
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

TEST_F(ConfigurationTest, ResolveOneKey)
{
    KsTest::FailureRecorder failures;
    config().valueSet("K", "v", false);
    QString e = "${K}/${OTHER}";
    EXPECT_TRUE(config().resolve(e, "K").isOk());
    EXPECT_EQ("v/${OTHER}", e);

    QString untouched = "${OTHER}";
    EXPECT_TRUE(config().resolve(untouched, "UNDEFINED").isBad());
    EXPECT_EQ("${OTHER}", untouched);
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("key not registered", failures.failures()[0].message);
    EXPECT_EQ("cond[valueIsDefined(inTargetKey)]", failures.failures()[0].condition);

    failures.clear();
    QString resolved = "plain";
    EXPECT_TRUE(config().resolve(resolved, "UNDEFINED").isOk());

    // A value that is its own reference never goes away.
    config().valueSet("S", "${S}", false);
    QString self = "${S}";
    EXPECT_TRUE(config().resolve(self, "S").isBad());
    EXPECT_FALSE(failures.hasCondition("cond[maxLoop--]"));
    EXPECT_TRUE(failures.hasCondition("cond[!inoutExpression.contains(pattern)]"));
    failures.clear();
    config().valueSet("S", "x${S}", false);
    QString grow = "${S}";
    EXPECT_TRUE(config().resolve(grow, "S").isBad());
    EXPECT_TRUE(failures.hasCondition("cond[maxLoop--]"));
    EXPECT_TRUE(failures.hasCondition("cond[!inoutExpression.contains(pattern)]"));
}
