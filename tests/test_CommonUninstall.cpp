// Finding the product installed in a folder through the uninstall entries of the registry, and
// running its uninstaller until the entry has gone.
#include "Common.h"
#include "KsTestSupport.h"
#include "RegistryStore.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace KsDeploy;

namespace
{
const std::string sUninstall = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";

class UninstallTest : public KsTest::RegistryEngineTest
{
protected:
    void SetUp() override
    {
        KsTest::RegistryEngineTest::SetUp();
        QDir().mkpath(p("app"));
    }
    // An uninstall entry with string values (name, text pairs).
    void entry(KsPlatform::RegistryRoot inRoot, const std::string& inName,
               const std::vector<std::pair<std::string, QString>>& inValues)
    {
        const std::string key = sUninstall + "\\" + inName;
        ASSERT_TRUE(registry().keyCreate(inRoot, key).isOk());
        for (const auto& v : inValues)
            ASSERT_TRUE(registry().valueSet(inRoot, key, v.first, 1, v.second.toLatin1().toStdString()).isOk());
    }
    bool entryExists(KsPlatform::RegistryRoot inRoot, const std::string& inName)
    {
        return registry().keyOpen(inRoot, sUninstall + "\\" + inName).isOk();
    }
    // A script that records its arguments, then deletes its own uninstall entry with sqlite3,
    // at once or (inLater) from a process it leaves behind.
    QString uninstaller(const QString& inName, const QString& inEntry, bool inLater)
    {
        const QString sql = QStringLiteral("DELETE FROM registry_value WHERE key IN (SELECT id FROM registry_key WHERE "
                                           "name='%1'); DELETE FROM registry_key WHERE name='%1';")
                                .arg(inEntry);
        const QString remove = QStringLiteral("sqlite3 \"$KSDEPLOY_REGISTRY\" \"%1\"").arg(sql);
        const QString script = QStringLiteral("#!/bin/sh\nprintf '%s\\n' \"$@\" > '%1'\n%2\n")
                                   .arg(p("arguments.txt"), inLater ? "( sleep 1; " + remove + " ) &" : remove);
        const QString path = p(inName);
        KsTest::writeFile(path, script.toUtf8());
        QFile::setPermissions(path, QFile::permissions(path) | QFile::ExeOwner);
        return path;
    }
};

TEST_F(UninstallTest, InfoFindsTheOneEntryOfTheFolder)
{
    using KsPlatform::RegistryRoot;
    entry(RegistryRoot::CurrentUser, "Other", {{"InstallLocation", p("elsewhere")}, {"UninstallString", "/bin/true"}});
    entry(RegistryRoot::CurrentUser, "App", {{"installlocation", p("app") + "/"}});
    const int64_t poolBefore = Engine::instance().resourceCount();

    bool perMachine = true;
    bool hasUninstaller = true;
    // Another spelling of the same folder names it too.
    ASSERT_TRUE(productInfoByAppDir(p("app/../app"), perMachine, hasUninstaller).isOk());
    EXPECT_FALSE(perMachine);
    EXPECT_FALSE(hasUninstaller);
    EXPECT_EQ(poolBefore, Engine::instance().resourceCount()) << "the resources read are temporary";

    entry(RegistryRoot::CurrentUser, "App", {{"QuietUninstallString", "/bin/true"}});
    ASSERT_TRUE(productInfoByAppDir(p("app"), perMachine, hasUninstaller).isOk());
    EXPECT_TRUE(hasUninstaller);

    ASSERT_TRUE(registry().keyDelete(RegistryRoot::CurrentUser, sUninstall + "\\App").isOk());
    entry(RegistryRoot::LocalMachine, "App", {{"InstallLocation", p("app")}, {"UninstallString", "/bin/true"}});
    ASSERT_TRUE(productInfoByAppDir(p("app"), perMachine, hasUninstaller).isOk());
    EXPECT_TRUE(perMachine);
    EXPECT_TRUE(hasUninstaller);
}

TEST_F(UninstallTest, NoneOrTwoEntriesFail)
{
    using KsPlatform::RegistryRoot;
    bool perMachine = false;
    bool hasUninstaller = false;
    {
        // Not even the uninstall keys exist yet.
        KsTest::FailureRecorder failures;
        KsTest::LogRecorder log;
        EXPECT_TRUE(productInfoByAppDir(p("app"), perMachine, hasUninstaller).isBad());
        EXPECT_TRUE(uninstallWhatsOnThisAppDir(p("app")).isBad());
        EXPECT_TRUE(failures.hasCondition("cond[listOfProductKeyPath.size()==1]"));
        EXPECT_TRUE(failures.hasMessage(p("app").toStdString()));
    }
    entry(RegistryRoot::LocalMachine, "App", {{"InstallLocation", p("app")}, {"UninstallString", "/bin/true"}});
    entry(RegistryRoot::CurrentUser, "App2", {{"InstallLocation", p("app")}, {"UninstallString", "/bin/true"}});
    KsTest::FailureRecorder failures;
    KsTest::LogRecorder log;
    EXPECT_TRUE(productInfoByAppDir(p("app"), perMachine, hasUninstaller).isBad());
    EXPECT_TRUE(uninstallWhatsOnThisAppDir(p("app")).isBad());
    EXPECT_TRUE(failures.hasCondition("cond[listOfProductKeyPath.size()==1]"));
    bool listed = false;
    for (const auto& line : log.lines())
        listed = listed || line.text.find("2 uninstall entries have the InstallLocation '" + p("app").toStdString() +
                                          "': HKEY_LOCAL_MACHINE\\" + sUninstall + "\\App, HKEY_CURRENT_USER\\" +
                                          sUninstall + "\\App2") != std::string::npos;
    EXPECT_TRUE(listed);
    EXPECT_TRUE(entryExists(RegistryRoot::LocalMachine, "App"));
}

TEST_F(UninstallTest, RunsTheUninstallerWithShellQuotingAndWaitsForTheEntryToGo)
{
    using KsPlatform::RegistryRoot;
    QDir().mkpath(p("with space"));
    const QString script = uninstaller("with space/uninstall.sh", "App", false);
    entry(RegistryRoot::CurrentUser, "App",
          {{"InstallLocation", p("app")}, {"UninstallString", "'" + script + "' --all \"two words\" back\\ slash"}});
    ASSERT_TRUE(uninstallWhatsOnThisAppDir(p("app")).isOk());
    EXPECT_FALSE(entryExists(RegistryRoot::CurrentUser, "App"));
    EXPECT_EQ(QByteArray("--all\ntwo words\nback slash\n"), KsTest::readFile(p("arguments.txt")));
}

}
