// The client plugin: reading update.ini, the client's arguments, the version question on a
// console, and one activation in this process (what the client gets, what the log never holds).
#include "KsTestSupport.h"

#include "Configuration.h"
#include "Engine.h"
#include "PluginKestraClient.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
const QString sPassword = QStringLiteral("Pa55-w0rd=secret");

// Standard output of a block of code, read back from a file.
class StdoutCapture
{
public:
    StdoutCapture()
    {
        std::fflush(stdout);
        mSaved = dup(STDOUT_FILENO);
        mFile = std::tmpfile();
        dup2(fileno(mFile), STDOUT_FILENO);
    }
    ~StdoutCapture() { restore(); }
    std::string text()
    {
        restore();
        std::string out;
        std::rewind(mFile);
        char buffer[4096];
        size_t n = 0;
        while ((n = std::fread(buffer, 1, sizeof buffer, mFile)) > 0)
            out.append(buffer, n);
        return out;
    }

private:
    void restore()
    {
        if (mSaved < 0)
            return;
        std::fflush(stdout);
        dup2(mSaved, STDOUT_FILENO);
        close(mSaved);
        mSaved = -1;
    }
    int mSaved = -1;
    FILE* mFile = nullptr;
};

// The question is never asked of whoever runs the tests: no terminal on standard input.
class PluginKestraClientTest : public KsTest::EngineTest
{
protected:
    void SetUp() override
    {
        KsTest::EngineTest::SetUp();
        mStdin = dup(STDIN_FILENO);
        const int null = open("/dev/null", O_RDONLY);
        dup2(null, STDIN_FILENO);
        close(null);
        plugin().replyConfiguration().valueClearAll();
    }
    void TearDown() override
    {
        dup2(mStdin, STDIN_FILENO);
        close(mStdin);
        KsTest::EngineTest::TearDown();
    }
    static PluginKestraClient& plugin() { return PluginKestraClient::instance(); }
    void reply(std::initializer_list<std::pair<const char*, const char*>> inValues)
    {
        Configuration& reply = plugin().replyConfiguration();
        reply.valueClearAll();
        for (const auto& value : inValues)
            reply.valueSet(QString::fromLatin1(value.first), QString::fromLatin1(value.second), false);
    }
    int mStdin = -1;
};
}

TEST_F(PluginKestraClientTest, UpdateIniIsReadLineByLineWithCommentsAndTheFirstEqualsSign)
{
    Configuration reply;
    const QByteArray text = "\xEF\xBB\xBF# published with version 2\r\n"
                            "\n"
                            "  Product = Kestra \r\n"
                            "UpdateIsOptional=+1\n"
                            "UpdateMessage=a=b\\nc \xC3\xA4\n"
                            "VersionOfClientRecommended=2.0.0.0\n"
                            "VersionsOfClientSupportedByServer=";
    ASSERT_TRUE(PluginKestraClient::replyParse(text, QStringLiteral("update.ini"), reply).isOk());
    EXPECT_EQ(QStringLiteral("Kestra"), reply.value(QStringLiteral("Product")));
    EXPECT_EQ(QStringLiteral("+1"), reply.value(QStringLiteral("UpdateIsOptional")));
    EXPECT_EQ(QString::fromUtf8("a=b\\nc \xC3\xA4"), reply.value(QStringLiteral("UpdateMessage")));
    EXPECT_TRUE(reply.valueIsDefined(QStringLiteral("VersionsOfClientSupportedByServer")));
    EXPECT_EQ(5, reply.keys().size());
}

TEST_F(PluginKestraClientTest, ABrokenUpdateIniIsRefusedWholeWithItsLine)
{
    const struct
    {
        const char* text;
        const char* detail;
    } cases[] = {
        {"Product=K\nVersionOfClientRecommended\n",
         "update.ini, line 2: not a Key=Value line: VersionOfClientRecommended"},
        {"=2.0\n", "update.ini, line 1: not a Key=Value line: =2.0"},
        {"Product=K\n# x\nVersion=2\n", "update.ini, line 3: unknown key 'Version'"},
        {"VersionOfClientCurrent=1.0.0.0\n", "update.ini, line 1: unknown key 'VersionOfClientCurrent'"},
        {"Product=K\nProduct=L\n", "update.ini, line 2: 'Product' is given twice"},
        {"UpdateIsOptional=yes\n", "update.ini, line 1: UpdateIsOptional must be a decimal number, not 'yes'"},
        {"UpdateIsImpossible=1.5\n", "update.ini, line 1: UpdateIsImpossible must be a decimal number, not '1.5'"},
        {"UpdateIsImpossible=\n", "update.ini, line 1: UpdateIsImpossible must be a decimal number, not ''"},
        {"Product=\xFF\n", "update.ini: not UTF-8 text"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.text);
        Configuration reply;
        reply.valueSet(QStringLiteral("Product"), QStringLiteral("before"), false);
        const QList<QString> keysBefore = reply.keys();
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(PluginKestraClient::replyParse(c.text, QStringLiteral("update.ini"), reply).isBad());
        ASSERT_EQ(1u, failures.failures().size());
        EXPECT_EQ("the server's update.ini is not valid", failures.failures()[0].message);
        EXPECT_EQ(c.detail, failures.failures()[0].detail);
        // Nothing of a refused file is taken.
        EXPECT_EQ(QStringLiteral("before"), reply.value(QStringLiteral("Product")));
        EXPECT_EQ(keysBefore.size(), reply.keys().size());
    }
}

TEST_F(PluginKestraClientTest, TheLaunchersStartPairIsReplacedAndItsProgramNeverPassedOn)
{
    const QString creds = QStringLiteral("bob:%1@srv").arg(sPassword);
    auto args = [](const QStringList& inCollected) {
        return PluginKestraClient::clientArguments(inCollected, QStringLiteral("bob"), sPassword,
                                                   QStringLiteral("srv"));
    };
    EXPECT_EQ((QStringList{"--start", creds}), args({}));
    EXPECT_EQ((QStringList{"--start", creds}), args({"/opt/ksweblaunch.exe"}));
    EXPECT_EQ((QStringList{"--opt", "--start", creds}), args({"/opt/ksweblaunch.exe", "--start", "old:pw@x", "--opt"}));
    EXPECT_EQ((QStringList{"a b", "--start", creds}), args({"prog", "a b", "--start"}));
    EXPECT_EQ((QStringList{"x", "y", "--start", creds}), args({"prog", "--start", "--start", "x", "y"}));
    EXPECT_EQ((QStringList{"--start", ":@"}),
              PluginKestraClient::clientArguments({"prog"}, QString(), QString(), QString()));
}

TEST_F(PluginKestraClientTest, TheQuestionsTextHasItsBlocksInOrder)
{
    reply({{"VersionOfClientCurrent", "1.0.0.0"},
           {"VersionOfClientRecommended", "2.0.0.0"},
           {"UpdateMessage", "First\\nSecond"},
           {"VersionsOfClientSupportedByServer", "7"},
           {"VersionOfProtocolCurrent", "6"}});
    EXPECT_EQ(QStringLiteral("A new client version is available.\n\nFirst\nSecond\n\n"
                             "Current client version: 1.0.0.0\nRecommended client version: 2.0.0.0\n\n"
                             "Protocol version of client: 6\nProtocol version of server: 7\n\n"
                             "Do you want to update your client to version 2.0.0.0?"),
              plugin().updateQuestionText(true, false));
    reply({{"VersionOfClientCurrent", "1.0.0.0"}, {"VersionOfClientRecommended", "2.0.0.0"}});
    EXPECT_EQ(QStringLiteral("Your client version is not supported by this server.\n\n"
                             "Current client version: 1.0.0.0\nRecommended client version: 2.0.0.0"),
              plugin().updateQuestionText(false, true));
}

TEST_F(PluginKestraClientTest, WithoutATerminalTheDefaultButtonAnswers)
{
    // A word where a number belongs counts as 0: not optional, and with equal versions the
    // server's configuration error, which only has OK.
    reply({{"UpdateIsOptional", "word"}, {"VersionOfClientCurrent", "1.0"}, {"VersionOfClientRecommended", "1.0"}});
    StdoutCapture configError;
    EXPECT_FALSE(plugin().askUserIfHeWantsToUpdate());
    EXPECT_EQ("Configuration error.\nThe recommended client version is not supported by this server.\n"
              "Please contact your system administrator.\n",
              configError.text());

    // Mandatory: Yes is the default and the answer.
    reply({{"Product", "K"}, {"VersionOfClientCurrent", "1.0"}, {"VersionOfClientRecommended", "2.0"}});
    StdoutCapture mandatory;
    EXPECT_TRUE(plugin().askUserIfHeWantsToUpdate());
    const std::string asked = mandatory.text();
    EXPECT_EQ(0u, asked.find("K Client Version Mismatch\nYour client version is not supported by this server.\n"));
    EXPECT_NE(std::string::npos, asked.find("Answer: Yes (no terminal to ask, the default answer is taken)\n"));

    // Impossible: only OK, never a Yes.
    reply({{"UpdateIsImpossible", "1"}, {"VersionOfClientCurrent", "1.0"}, {"VersionOfClientRecommended", "2.0"}});
    StdoutCapture impossible;
    EXPECT_FALSE(plugin().askUserIfHeWantsToUpdate());
    EXPECT_EQ(std::string::npos, impossible.text().find("Do you want"));

    // Optional: the function returns at once; the update follows the client's start.
    reply({{"UpdateIsOptional", "1"}, {"VersionOfClientCurrent", "1.0"}, {"VersionOfClientRecommended", "2.0"}});
    StdoutCapture optional;
    EXPECT_FALSE(plugin().askUserIfHeWantsToUpdate());
    EXPECT_EQ(0u, optional.text().find(" Auto-Update\nA new client version is available.\n"));
}

TEST_F(PluginKestraClientTest, ActivationStartsTheClientAndNeverLogsThePassword)
{
    QTemporaryDir dir;
    const QString app = dir.path() + "/target/Vendor/App";
    const QString report = dir.path() + "/report.txt";
    // A client of builtins only: it gets no PATH from an engine without an environment.
    KsTest::writeFile(app + "/ksclient.exe", "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$KSCLIENT_REPORT.part\"\n"
                                             "printf '%s\\n' \"$KSCLIENT_COLOR\" >> \"$KSCLIENT_REPORT.part\"\n"
                                             "mv \"$KSCLIENT_REPORT.part\" \"$KSCLIENT_REPORT\" 2>/dev/null || "
                                             "cat \"$KSCLIENT_REPORT.part\" > \"$KSCLIENT_REPORT\"\n");
    QFile(app + "/ksclient.exe")
        .setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    KsTest::writeFile(dir.path() + "/www/product.xml",
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Deploy>\n"
                      "<ResourceFileDirectory UUID=\"{f3367421-1bcd-4b0a-91a5-c0d5809ca780}\" Absence=\"false\" "
                      "DeleteOnUninstall=\"true\" Name=\"${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}\"/>\n"
                      "<ResourceFileEntry UUID=\"{d3cb3c0c-5ee6-4158-8b50-23a1b073e7cc}\" "
                      "MD5=\"0535ee6eb7acc1563af7ebf6619aa368\" Absence=\"false\" DeleteOnUninstall=\"true\" "
                      "Name=\"ksclient.exe\" Executable=\"true\"/>\n"
                      "<Link Source=\"{d3cb3c0c-5ee6-4158-8b50-23a1b073e7cc}\" "
                      "Target=\"{f3367421-1bcd-4b0a-91a5-c0d5809ca780}\" Name=\"Container\"/>\n</Deploy>\n");

    Engine& e = Engine::instance();
    Configuration& config = e.configuration();
    config.valueSet("KSC_DIR_APP", app, false);
    config.valueSet("KSC_URL", dir.path() + "/www/", false);
    config.valueSet("KSC_USER", "ann", false);
    config.valueSet("KSC_PASS", sPassword, false);
    config.valueSet("KSC_SERVER", "srv", false);
    config.valueSet("KSC_ARG_0", "/somewhere/ksweblaunch.exe", false);
    config.valueSet("KSC_ARG_1", "--start", false);
    config.valueSet("KSC_ARG_2", "ann:old@srv", false);
    config.valueSet("KSC_ARG_3", "--project", false);
    config.valueSet("KSC_ENV_0", "KSCLIENT_REPORT=" + report, false);
    config.valueSet("KSC_ENV_1", "KSCLIENT_COLOR=blue", false);

    KsTest::LogRecorder log;
    StdoutCapture console;
    const McResult activated = e.pluginRegister("KestraClient") << e.pluginActivate("KestraClient");
    const std::string printed = console.text();
    ASSERT_TRUE(activated.isOk()) << printed;

    QElapsedTimer waited;
    waited.start();
    while (!QFileInfo::exists(report) && waited.elapsed() < 60000)
        QThread::msleep(20);
    EXPECT_EQ(QByteArray("--project\n--start\nann:" + sPassword.toLatin1() + "@srv\nblue\n"), KsTest::readFile(report));

    // The launch values are gone; the configuration names the installation.
    EXPECT_FALSE(config.valueIsDefined("KSC_PASS"));
    EXPECT_EQ(QDir(dir.path() + "/target").canonicalPath(), config.value("DIR_TARGET"));
    EXPECT_EQ(QStringLiteral("Vendor"), config.value("DIR_VENDOR"));
    EXPECT_EQ(QStringLiteral("App"), config.value("DIR_APPLICATION"));
    // No update.ini: no question, and the reply holds nothing.
    EXPECT_TRUE(plugin().replyConfiguration().keys().isEmpty());

    EXPECT_FALSE(log.lines().empty());
    for (const KsTest::LogLine& line : log.lines())
        EXPECT_EQ(std::string::npos, line.text.find(sPassword.toStdString())) << line.text;
    EXPECT_EQ(std::string::npos, printed.find(sPassword.toStdString())) << printed;
}

TEST_F(PluginKestraClientTest, TranslationsAreLoadedOnlyForALanguageAndAMissingOneIsOnlyLogged)
{
    Configuration& config = Engine::instance().configuration();
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/share/translations/");
    auto translationLines = [](const KsTest::LogRecorder& inLog) {
        std::vector<std::string> found;
        for (const KsTest::LogLine& line : inLog.lines())
            if (line.text.find("translation") != std::string::npos)
                found.push_back(line.text);
        return found;
    };
    ASSERT_TRUE(Engine::instance().pluginRegister("KestraClient").isOk());
    {
        // Activations without an application folder stop after the translations.
        KsTest::LogRecorder log;
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(Engine::instance().pluginActivate("KestraClient").isBad());
        EXPECT_TRUE(translationLines(log).empty());
    }
    config.valueSet("KSC_LANGUAGE", "xx", false);
    KsTest::LogRecorder log;
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(Engine::instance().pluginActivate("KestraClient").isBad());
    EXPECT_TRUE(failures.hasMessage("the application folder does not exist"));
    const std::vector<std::string> lines = translationLines(log);
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                     "Failed to load Qt translation file " + (folder + "kestra_xx.qm").toStdString()));
    EXPECT_NE(lines.end(), std::find(lines.begin(), lines.end(),
                                     "Failed to load Qt translation file " + (folder + "qt_xx.qm").toStdString()));
}
