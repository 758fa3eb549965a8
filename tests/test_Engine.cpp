// Engine life cycle, environment parsing, tracing and the two computed directories.
#include "ConsoleProgress.h"
#include "Engine.h"
#include "KsTestSupport.h"
#include "RegistryStore.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <unistd.h>

using KsDeploy::Engine;

namespace
{
// Captures what the process writes to standard output while alive.
class StdoutCapture
{
public:
    StdoutCapture()
    {
        std::fflush(stdout);
        mSaved = dup(1);
        mFile = std::tmpfile();
        dup2(fileno(mFile), 1);
    }
    std::string finish()
    {
        std::fflush(stdout);
        dup2(mSaved, 1);
        close(mSaved);
        std::string out;
        std::rewind(mFile);
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof(buf), mFile)) > 0)
            out.append(buf, n);
        std::fclose(mFile);
        return out;
    }

private:
    int mSaved = -1;
    FILE* mFile = nullptr;
};

class EngineCore : public KsTest::EngineTest
{
};

void initWith(std::vector<const char*> inEntries)
{
    inEntries.push_back(nullptr);
    Engine::instanceInit(const_cast<char**>(inEntries.data()));
}
}

TEST(EngineLifeCycle, EnvironmentParsing)
{
    KsTest::ContractRecorder contracts;
    initWith({"A=1", "B==2", "C=", "=x", "noequals", "A=3", "D=a=b"});
    const Engine& e = Engine::instance();
    EXPECT_EQ("3", e.environmentLookup("A"));
    EXPECT_EQ("=2", e.environmentLookup("B"));
    EXPECT_TRUE(e.environment().contains("C"));
    EXPECT_EQ("", e.environmentLookup("C"));
    EXPECT_EQ("a=b", e.environmentLookup("D"));
    EXPECT_EQ(4, e.environment().size());
    EXPECT_EQ(2u, contracts.count("posEq>0"));
    EXPECT_EQ(1u, contracts.count("!sInstance->mListOfEnvVal.contains(key)"));
    Engine::instanceTestReset();
}

// The environment serves the host; the registry store's file is what the host hands over.
TEST(EngineLifeCycle, RegistryLocationComesFromTheHostNotTheEnvironment)
{
    initWith({"KSDEPLOY_REGISTRY=/elsewhere/registry.sqlite"});
    const QString byDefault = KsDeploy::RegistryStore::location();
    EXPECT_NE("/elsewhere/registry.sqlite", byDefault);
    EXPECT_TRUE(byDefault.endsWith("/ksdeploy/registry.sqlite")) << byDefault.toStdString();
    KsDeploy::RegistryStore::locationSet("/chosen/registry.sqlite");
    EXPECT_EQ("/chosen/registry.sqlite", KsDeploy::RegistryStore::location());
    KsDeploy::RegistryStore::locationSet(QString());
    EXPECT_EQ(byDefault, KsDeploy::RegistryStore::location());
    Engine::instanceTestReset();
}

TEST_F(EngineCore, TraceWritesProgressAndLog)
{
    KsTest::LogRecorder log;
    StdoutCapture out;
    Engine& e = Engine::instance();
    e.trace(McResult());
    McResult bad;
    bad.makeBad(1);
    e.trace(bad);
    e.trace(McLogLevelWarning, "plain text");
    e.progress().taskStartNext("Download");
    e.progress().taskStartNext("");
    e.progress().print("");
    e.progress().progressSet(0.5f);
    e.progress().taskCountSet(3);
    e.progress().show();
    e.progress().reportUpdateFailure();
    EXPECT_EQ("...ok\n...failed\nplain text\nDownload ...\n ...\n\nAutomatic update has failed.\nPlease install "
              "manually.\n",
              out.finish());
    ASSERT_EQ(5u, log.lines().size());
    EXPECT_EQ(1, log.lines()[0].level);
    EXPECT_EQ(3, log.lines()[1].level);
    EXPECT_EQ(2, log.lines()[2].level);
    EXPECT_EQ("Download ...", log.lines()[3].text);
    EXPECT_EQ(1, log.lines()[3].level);
}

TEST_F(EngineCore, MaintenanceAndCacheDirectories)
{
    KsTest::ContractRecorder contracts;
    Engine& e = Engine::instance();
    QString maintenance;
    ASSERT_TRUE(e.pathOfMaintenanceDir(maintenance).isOk());
    EXPECT_EQ(QDir::tempPath() + "/Kestra Imaging/Auto Update", maintenance);
    EXPECT_TRUE(maintenance.startsWith(QString::fromLocal8Bit(qgetenv("TMPDIR"))));
    EXPECT_TRUE(QDir(maintenance).exists());

    QString cache;
    ASSERT_TRUE(e.pathToCache(cache).isOk());
    EXPECT_EQ(maintenance + "/Cache", cache);
    EXPECT_TRUE(QDir(cache).exists());

    QTemporaryDir dir;
    e.pathToCacheSet(dir.path() + "/x/y");
    ASSERT_TRUE(e.pathToCache(cache).isOk());
    EXPECT_EQ(dir.path() + "/x/y", cache);
    EXPECT_TRUE(QDir(cache).exists());
    EXPECT_TRUE(contracts.events().empty());
}
