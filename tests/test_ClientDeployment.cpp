// The client update end to end on real folders: two published versions of a client whose program
// is a shell script, staged beside the installed one, exchanged, started and, when the new client
// fails at once, put back.
#include "Cache.h"
#include "ClientDeployment.h"
#include "Common.h"
#include "FolderSwap.h"
#include "Generator.h"
#include "KsTestSupport.h"
#include "Process.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <csignal>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
QMap<QString, QByteArray> snapshot(const QString& inRoot)
{
    QMap<QString, QByteArray> out;
    QDirIterator it(inRoot, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
    {
        const QString p = it.next();
        out.insert(p.mid(inRoot.size()), KsTest::readFile(p));
    }
    return out;
}

// The client: writes its version and arguments to $KS_OUT, then ends with inExit.
QByteArray client(const QByteArray& inVersion, int inExit)
{
    return "#!/bin/sh\necho \"" + inVersion + " $*\" >> \"$KS_OUT\"\nexit " + QByteArray::number(inExit) + "\n";
}

class ClientDeploymentTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    QString mRoot = mDir.path();
    QString p(const QString& inRel) const { return mRoot + "/" + inRel; }
    Engine& e() { return Engine::instance(); }
    QString app() const { return p("target/Vendor/App"); }

    // Source tree of a version; "lib/common.bin" is the same in every version.
    void source(const QString& inName, const QByteArray& inVersion, int inClientExit)
    {
        KsTest::writeFile(p(inName + "/bin/ksclient"), client(inVersion, inClientExit));
        QFile::setPermissions(p(inName + "/bin/ksclient"),
                              QFile::permissions(p(inName + "/bin/ksclient")) | QFile::ExeOwner);
        KsTest::writeFile(p(inName + "/lib/common.bin"), QByteArray(300000, 'c'));
        KsTest::writeFile(p(inName + "/share/version.txt"), inVersion);
        KsTest::writeFile(p(inName + "/only-" + inVersion + ".txt"), "only in " + inVersion);
    }

    // The configuration the client's engine has: the folders, the cache and the server.
    void configure()
    {
        e().configuration().valueSet("DIR_TARGET", p("target"), false);
        e().configuration().valueSet("DIR_VENDOR", "Vendor", false);
        e().configuration().valueSet("DIR_APPLICATION", "App", false);
        e().pathToCacheSet(p("cache"));
        e().cache().httpUrlAdd("file://" + p("publish"));
    }

    // The pool holds exactly product "Client" described from src.
    void describe(const QString& inSrc)
    {
        e().resourceUnregisterAll();
        McHandle<ResourceFileDirectory> root;
        McDArray<McHandle<Resource>> generated;
        ASSERT_TRUE(Generator::generateFromDirectory(root, generated, p(inSrc), true, {}, {}).isOk());
        root->nameSet("${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}");
        McHandle<ResourceProduct> product(new ResourceProduct);
        product->nameSet("Client");
        product->applicationDirectorySet(root);
    }

    // The same, and its items are published.
    void describeAndPublish(const QString& inSrc)
    {
        describe(inSrc);
        const QString cache = p("cache");
        e().pathToCacheSet(p("publish"));
        ASSERT_TRUE(e().cache().retrieveFromDirectory(p(inSrc), true, {}, true).isOk());
        e().pathToCacheSet(cache);
    }

    // Version 1 installed; version 2 (its client ending with inV2Exit) described and published;
    // a fresh cache, so whatever the update needs comes from the old folder or the server.
    void installV1AndPublishV2(int inV2Exit)
    {
        source("v1", "v1", 0);
        source("v2", "v2", inV2Exit);
        configure();
        describeAndPublish("v1");
        ASSERT_TRUE(e().productInstall("Client", false).isOk());
        ASSERT_EQ(snapshot(p("v1")), snapshot(app()));
        describeAndPublish("v2");
        QDir(p("cache")).removeRecursively();
        // The shared file is no longer on the server: only the installed folder has it.
        const QString common = BufferID(scanFile(p("v1/lib/common.bin"))).toString();
        ASSERT_TRUE(QFile::remove(p("publish/" + common + ".lzma")));
    }

    void setUp(ClientDeployment& inOut)
    {
        inOut.applicationDirSet(app());
        inOut.productKeySet("Client");
        inOut.clientSet(app() + "/bin/ksclient", {"--start", "user:pw@server"}, {"KS_OUT=" + p("client.out")});
        inOut.workDirSet(p("work"));
    }

    static QString sKillAt;
    static void killOnLine(McLogLevel, const McString& inText)
    {
        if (QString::fromLocal8Bit(inText.c_str()).contains(sKillAt))
            raise(SIGKILL);
    }
    static int sKillAtStep;
    static void killAtStep(int inStep)
    {
        if (inStep == sKillAtStep)
            raise(SIGKILL);
    }

    // What the clients wrote; waits for inLines lines (a client may run detached).
    QByteArray clientOutput(int inLines)
    {
        for (int i = 0; i < 6000 && KsTest::readFile(p("client.out")).count('\n') < inLines; ++i)
            QThread::msleep(10);
        return KsTest::readFile(p("client.out"));
    }
};
QString ClientDeploymentTest::sKillAt;
int ClientDeploymentTest::sKillAtStep = 0;
}

TEST_F(ClientDeploymentTest, UpdatesFromTheServerAndTheOldFolderAndKeepsThePrevious)
{
    installV1AndPublishV2(0);
    // Leftovers of earlier updates.
    KsTest::writeFile(p("work/update-old.log"), "old");
    KsTest::writeFile(p("work/product-old.xml"), "old");
    KsTest::writeFile(p("work/keep.txt"), "not ours");
    const QDateTime past = QDateTime::currentDateTime().addSecs(-3600);
    for (const QString& f : {p("work/update-old.log"), p("work/product-old.xml")})
    {
        QFile file(f);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(past, QFileDevice::FileModificationTime));
    }
    ASSERT_TRUE(QDir().mkpath(app() + ".staging-1234/bin"));

    ClientDeployment d;
    setUp(d);
    KsTest::LogRecorder log;
    ASSERT_TRUE(d.run().isOk());
    EXPECT_EQ(ClientDeployment::Outcome::Updated, d.outcome());
    EXPECT_EQ(snapshot(p("v2")), snapshot(app())) << "only-v1.txt is gone, the rest is version 2";
    EXPECT_EQ(snapshot(p("v1")), snapshot(app() + ".previous"));
    EXPECT_TRUE(QFileInfo(app() + "/bin/ksclient").isExecutable());
    EXPECT_EQ("v2 --start user:pw@server\n", clientOutput(1));
    EXPECT_FALSE(QFileInfo::exists(app() + ".staging"));
    EXPECT_FALSE(QFileInfo::exists(app() + ".staging-1234"));
    EXPECT_FALSE(QFileInfo::exists(ClientDeployment::exchangeJournal(app())));
    EXPECT_FALSE(e().productResource("Client.staging").isNotNull()) << "the staging product is gone from the pool";
    EXPECT_TRUE(e().productResource("Client").isNotNull());

    // What was cleared is said; this run's record stays.
    const QStringList records = QDir(p("work")).entryList(QDir::Files);
    ASSERT_EQ(2, records.size()) << records.join(",").toStdString();
    EXPECT_TRUE(records.contains("keep.txt"));
    bool saidRemoved = false;
    for (const KsTest::LogLine& l : log.lines())
        saidRemoved =
            saidRemoved || l.text.find("removed: " + p("work/update-old.log").toStdString()) != std::string::npos;
    EXPECT_TRUE(saidRemoved);

    // A second update keeps only the version it replaced as the previous one.
    describeAndPublish("v1");
    ClientDeployment again;
    setUp(again);
    ASSERT_TRUE(again.run().isOk());
    EXPECT_EQ(snapshot(p("v1")), snapshot(app()));
    EXPECT_EQ(snapshot(p("v2")), snapshot(app() + ".previous"));
}

TEST_F(ClientDeploymentTest, ANewClientThatFailsItsStartIsReplacedByTheOldOne)
{
    installV1AndPublishV2(3);
    ClientDeployment d;
    setUp(d);
    KsTest::FailureRecorder failures;
    testing::internal::CaptureStdout();
    const McResult r = d.run();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(r.isBad());
    EXPECT_EQ(ClientDeployment::Outcome::RolledBack, d.outcome());
    EXPECT_EQ(snapshot(p("v1")), snapshot(app()));
    EXPECT_FALSE(QFileInfo::exists(app() + ".staging"));
    EXPECT_FALSE(QFileInfo::exists(app() + ".previous"));
    EXPECT_EQ("v2 --start user:pw@server\nv1 --start user:pw@server\n", clientOutput(2));
    EXPECT_NE(std::string::npos, out.find("Automatic update has failed.\nPlease install manually.\n"));
    bool named = false;
    for (const KsTest::Failure& f : failures.failures())
        named = named || f.message.find("the new client failed to start") != std::string::npos;
    EXPECT_TRUE(named);
}

TEST_F(ClientDeploymentTest, AFailureBeforeTheExchangeChangesNothing)
{
    installV1AndPublishV2(0);
    // An item of version 2 that neither the server nor the old folder has.
    const QString lost = BufferID(scanFile(p("v2/share/version.txt"))).toString();
    ASSERT_TRUE(QFile::remove(p("publish/" + lost + ".lzma")));
    const auto before = snapshot(p("target"));
    ClientDeployment d;
    setUp(d);
    {
        KsTest::FailureRecorder failures;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(d.run().isBad());
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("Automatic update has failed."));
    }
    EXPECT_EQ(ClientDeployment::Outcome::Unchanged, d.outcome());
    EXPECT_EQ(before, snapshot(p("target")));
    EXPECT_EQ(QStringList{"App"},
              QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden));
    EXPECT_EQ("v1 --start user:pw@server\n", clientOutput(1)) << "the old client started";

    // A product that does not install into the given folder is refused before anything.
    ClientDeployment wrong;
    setUp(wrong);
    wrong.applicationDirSet(p("target/Vendor/Other"));
    QDir().mkpath(p("target/Vendor/Other"));
    wrong.failureHandlingSet(false);
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(wrong.run().isBad());
    EXPECT_TRUE(failures.hasMessage(
        ("product 'Client' does not install into '" + p("target/Vendor/Other") + "'").toStdString()));
}

TEST_F(ClientDeploymentTest, ProgramsInTheFolderAreAskedAboutOrFailTheUpdate)
{
    installV1AndPublishV2(0);
    KsPlatform::ProcessStart start;
    start.program = "/bin/sleep";
    start.arguments = {"60"};
    start.workingDirectory = (app() + "/bin").toStdString();
    start.detached = false;
    auto holder = std::make_unique<KsPlatform::Process>();
    ASSERT_TRUE(holder->start(start, false).isOk());
    const long long pid = holder->processId();
    const QString listed = QStringLiteral("sleep (pid %1)").arg(pid);

    // Nobody to ask: the update fails with the list, and nothing changed.
    const auto before = snapshot(p("target"));
    {
        ClientDeployment d;
        setUp(d);
        d.failureHandlingSet(false);
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(d.run().isBad());
        ASSERT_FALSE(failures.failures().empty());
        EXPECT_EQ("the application folder '" + app().toStdString() + "' is in use", failures.failures()[0].message);
        EXPECT_EQ(listed.toStdString(), failures.failures()[0].detail);
    }
    // The user gives up: nothing changed either.
    {
        ClientDeployment d;
        setUp(d);
        d.failureHandlingSet(false);
        QStringList offered;
        d.inUseQuestionSet([&](const QStringList& inPrograms) {
            offered = inPrograms;
            return false;
        });
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(d.run().isBad());
        EXPECT_EQ(ClientDeployment::Outcome::Unchanged, d.outcome());
        EXPECT_EQ(QStringList{listed}, offered);
        EXPECT_TRUE(failures.hasMessage("the update was cancelled: the application folder '" + app().toStdString() +
                                        "' is in use"));
    }
    EXPECT_EQ(before, snapshot(p("target")));

    // The user closes the program and asks to look again: the update goes through.
    ClientDeployment d;
    setUp(d);
    QList<QStringList> asked;
    d.inUseQuestionSet([&](const QStringList& inPrograms) {
        asked << inPrograms;
        kill(static_cast<pid_t>(pid), SIGKILL);
        int code = 0;
        holder->waitForExit(code);
        return true;
    });
    ASSERT_TRUE(d.run().isOk());
    ASSERT_EQ(1, asked.size());
    EXPECT_EQ(QStringList{listed}, asked[0]);
    EXPECT_EQ(snapshot(p("v2")), snapshot(app()));
}

TEST_F(ClientDeploymentTest, WaitsForTheEngineThatStartedIt)
{
    installV1AndPublishV2(0);
    const pid_t parent = fork();
    if (parent == 0)
    {
        pause();
        _exit(0);
    }
    ClientDeployment d;
    setUp(d);
    d.failureHandlingSet(false);
    d.parentPidSet(parent, 50);
    {
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(d.run().isBad());
        EXPECT_TRUE(failures.hasMessage(
            QStringLiteral("the program that started the update did not end (pid %1)").arg(parent).toStdString()));
    }
    EXPECT_EQ(snapshot(p("v1")), snapshot(app()));
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    d.parentPidSet(parent, 60000);
    ASSERT_TRUE(d.run().isOk());
    EXPECT_EQ(snapshot(p("v2")), snapshot(app()));
}

// The deploying engine killed -9 at many moments, from before the staging to after the
// exchange: the next start leaves one whole version in the application folder whose client runs,
// and the following update completes.
TEST_F(ClientDeploymentTest, AKillAtAnyMomentLeavesAWholeVersionAndTheNextUpdateCompletes)
{
    // The child run: this test in a process of its own, killed at the moment named.
    if (const char* root = std::getenv("KS_DEPLOY_KILL_ROOT"))
    {
        mRoot = QString::fromLocal8Bit(root);
        configure();
        describe("v2");
        const QString at = QString::fromLocal8Bit(std::getenv("KS_DEPLOY_KILL_AT"));
        if (at.startsWith("step "))
        {
            sKillAtStep = at.mid(5).toInt();
            KsPlatform::FolderSwap::atomicDisabledSet(true);
            KsPlatform::FolderSwap::stepHookSet(&killAtStep);
        }
        else
        {
            sKillAt = at;
            getTheLogInstance().setWriteCallback(&killOnLine, McLogLevelInfo);
        }
        ClientDeployment d;
        setUp(d);
        d.run();
        _exit(3);  // not killed: the moment never came
    }

    const QString base = mDir.path();
    const QStringList moments = {
        "update: staging the new version",
        "caching: " + base + "/%1/target/Vendor/App/lib/common.bin",
        "Transaction Begin",
        "Download",
        "download: ",
        "Installation",
        "install: " + base + "/%1/target/Vendor/App.staging/lib",
        "install: " + base + "/%1/target/Vendor/App.staging/bin/ksclient",
        "Transaction Commit",
        "verify: " + base + "/%1/target/Vendor/App.staging/lib/common.bin",
        "step 1",
        "step 2",
        "step 3",
        "update: exchanged",
        "update: started",
        "update: the previous version is kept",
        "removed: ",
        "update: done",
    };
    int whole = 0, completed = 0, killed = 0;
    QStringList report;
    for (int i = 0; i < moments.size(); ++i)
    {
        const QString name = QStringLiteral("k%1").arg(i);
        const QString at = QString(moments[i]).replace("%1", name);
        SCOPED_TRACE(at.toStdString());
        mRoot = base + "/" + name;
        Engine::instanceTestReset();
        Engine::instanceInit(nullptr);
        e().quietSet(true);
        installV1AndPublishV2(0);
        KsTest::writeFile(p("work/update-earlier.log"), "an earlier update's record");
        QFile earlier(p("work/update-earlier.log"));
        ASSERT_TRUE(earlier.open(QIODevice::ReadWrite));
        ASSERT_TRUE(earlier.setFileTime(QDateTime::currentDateTime().addSecs(-60), QFileDevice::FileModificationTime));
        earlier.close();

        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("KS_DEPLOY_KILL_ROOT", mRoot);
        env.insert("KS_DEPLOY_KILL_AT", at);
        env.insert("KSDEPLOY_TEST_KEEP_HOME", "1");  // the same maintenance folder, with its journals
        child.setProcessEnvironment(env);
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        child.setStandardOutputFile(QProcess::nullDevice());
        child.start(
            QCoreApplication::applicationFilePath(),
            {"--gtest_filter=ClientDeploymentTest.AKillAtAnyMomentLeavesAWholeVersionAndTheNextUpdateCompletes"});
        ASSERT_TRUE(child.waitForFinished(120000));
        if (child.exitStatus() == QProcess::CrashExit)
            ++killed;

        // The next start: the engine's own recovery, then the exchange's.
        Engine::instanceTestReset();
        Engine::instanceInit(nullptr);
        e().quietSet(true);
        configure();
        ASSERT_TRUE(ClientDeployment::recoverInterrupted(app()).isOk());
        const auto now = snapshot(app());
        const QString version = now == snapshot(p("v1")) ? "v1" : now == snapshot(p("v2")) ? "v2" : "a mix";
        QFile::remove(p("client.out"));
        QProcess client;
        QProcessEnvironment clientEnv = QProcessEnvironment::systemEnvironment();
        clientEnv.insert("KS_OUT", p("client.out"));
        client.setProcessEnvironment(clientEnv);
        client.start(app() + "/bin/ksclient", {});
        const bool runs = client.waitForFinished(60000) && client.exitCode() == 0 &&
                          KsTest::readFile(p("client.out")) == version.toLatin1() + " \n";
        if (version != "a mix" && runs)
            ++whole;

        describe("v2");
        ClientDeployment next;
        setUp(next);
        const bool done = next.run().isOk() && snapshot(app()) == snapshot(p("v2")) &&
                          QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden) ==
                              QStringList({"App", "App.previous"});
        if (done)
            ++completed;
        EXPECT_TRUE(version != "a mix" && runs && done) << version.toStdString();
        report << QStringLiteral("%1: %2").arg(at.mid(at.lastIndexOf('/') + 1), version);
    }
    EXPECT_EQ(moments.size(), killed) << "every moment came";
    EXPECT_EQ(moments.size(), whole);
    EXPECT_EQ(moments.size(), completed);
    std::printf("kill -9 at %d moments: %d killed, %d left a whole version with a working client, "
                "%d updated afterwards (%s)\n",
                int(moments.size()), killed, whole, completed, report.join(", ").toLocal8Bit().constData());
}

// A staging folder that fills its file system (a 1 MiB tmpfs holding the client's folders, in a
// mount namespace of a child run): the update fails clearly, the old client starts, and nothing is
// left beside the application folder.
TEST_F(ClientDeploymentTest, ADiskFullInTheStagingFolderChangesNothing)
{
    if (const char* root = std::getenv("KS_DEPLOY_FULL_ROOT"))
    {
        mRoot = QString::fromLocal8Bit(root);
        source("v1", "v1", 0);
        source("v2", "v2", 0);
        QByteArray big(2 << 20, '\0');
        for (int i = 0; i < big.size(); ++i)
            big[i] = static_cast<char>((i * 7919) ^ (i >> 9));
        KsTest::writeFile(p("v2/share/big.bin"), big);
        configure();
        describeAndPublish("v1");
        ASSERT_TRUE(e().productInstall("Client", false).isOk());
        describeAndPublish("v2");
        const auto before = snapshot(p("target"));
        ClientDeployment d;
        setUp(d);
        KsTest::FailureRecorder failures;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(d.run().isBad());
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(std::string::npos, out.find("Automatic update has failed.")) << out;
        EXPECT_EQ(ClientDeployment::Outcome::Unchanged, d.outcome());
        bool said = false;
        for (const KsTest::Failure& f : failures.failures())
            said = said || (f.message + f.detail).find("No space left on device") != std::string::npos;
        EXPECT_TRUE(said) << "the reason is named";
        EXPECT_EQ(before, snapshot(p("target")));
        EXPECT_EQ(QStringList{"App"},
                  QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden));
        EXPECT_EQ("v1 --start user:pw@server\n", clientOutput(1));
        return;
    }
    if (geteuid() != 0 || std::system("command -v unshare >/dev/null") != 0)
        GTEST_SKIP() << "a private mount namespace needs root and unshare";
    ASSERT_TRUE(QDir().mkpath(p("full/target")));
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KS_DEPLOY_FULL_ROOT", p("full"));
    env.insert("KSDEPLOY_TEST_KEEP_HOME", "1");
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::ForwardedChannels);
    child.start("unshare",
                {"-m", "sh", "-c",
                 "mount -t tmpfs -o size=1m kstarget \"$KS_DEPLOY_FULL_ROOT/target\" || exit 99; exec \"$0\" "
                 "--gtest_filter=ClientDeploymentTest.ADiskFullInTheStagingFolderChangesNothing",
                 QCoreApplication::applicationFilePath()});
    ASSERT_TRUE(child.waitForFinished(120000));
    if (child.exitCode() == 99)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(0, child.exitCode()) << "the child run's checks (its failures are printed above)";
}
