// The client update end to end on real folders: two published versions of a client whose program
// is a shell script, staged beside the installed one, exchanged, started and, when the new client
// fails at once, put back; killed -9 at many moments; on a full file system.
#include "Cache.h"
#include "ClientDeployment.h"
#include "Common.h"
#include "FolderSwap.h"
#include "Generator.h"
#include "InterruptSignals.h"
#include "KsTestSupport.h"
#include "Plugin.h"
#include "Process.h"
#include "ResourceProduct.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <sys/stat.h>
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

bool hasFailure(const KsTest::FailureRecorder& inFailures, const std::string& inText)
{
    for (const KsTest::Failure& f : inFailures.failures())
        if ((f.message + " | " + f.detail).find(inText) != std::string::npos)
            return true;
    return false;
}

QString sKillAt;
void killOnLine(McLogLevel, const McString& inText)
{
    if (QString::fromLocal8Bit(inText.c_str()).contains(sKillAt))
        raise(SIGKILL);
}
int sKillAtStep = 0;
void killAtStep(int inStep)
{
    if (inStep == sKillAtStep)
        raise(SIGKILL);
}

// A plugin registered before the client plugin, so that it is called right after it at each
// step: it notes the step, the product and what is on disk at that moment.
QStringList sHookCalls;
std::function<QString()> sHookState;
std::function<void()> sHookOnInstall;
class HookRecorder : public Plugin
{
public:
    HookRecorder() : Plugin("HookRecorder") {}
    McResult onInstallPre(const McHandle<ResourceProduct>& inProduct) override
    {
        record("pre", inProduct);
        return McResult();
    }
    McResult onInstall(const McHandle<ResourceProduct>& inProduct) override
    {
        record("install", inProduct);
        if (sHookOnInstall)
            sHookOnInstall();
        return McResult();
    }
    void onInstallPost(const McHandle<ResourceProduct>& inProduct, bool inFailed) override
    {
        record(inFailed ? "post(failed)" : "post(ok)", inProduct);
    }

private:
    void record(const QString& inStep, const McHandle<ResourceProduct>& inProduct)
    {
        const QString line = inStep + " " + inProduct->name() + (sHookState ? " " + sHookState() : QString());
        sHookCalls << line;
        Engine::instance().trace(McLogLevelInfo, "recorder: " + line);
    }
};
McHandle<Plugin> hookRecorder() { return McHandle<Plugin>(new HookRecorder); }

class ClientDeploymentTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    QString mRoot = mDir.path();
    QString p(const QString& inRel) const { return mRoot + "/" + inRel; }
    Engine& e() { return Engine::instance(); }
    QString app() const { return p("target/Vendor/App"); }

    // A version's tree: its client writes version and arguments to $KS_OUT and ends with
    // inClientExit; "lib/common.bin" is the same in every version.
    void source(const QString& inVersion, int inClientExit)
    {
        const QString exe = p(inVersion + "/bin/ksclient");
        KsTest::writeFile(exe, "#!/bin/sh\necho \"" + inVersion.toLatin1() + " $*\" >> \"$KS_OUT\"\nexit " +
                                   QByteArray::number(inClientExit) + "\n");
        QFile::setPermissions(exe, QFile::permissions(exe) | QFile::ExeOwner);
        KsTest::writeFile(p(inVersion + "/lib/common.bin"), QByteArray(300000, 'c'));
        KsTest::writeFile(p(inVersion + "/only-" + inVersion + ".txt"), inVersion.toLatin1());
    }

    // The client's engine: its folders, cache and server.
    void configure()
    {
        e().configuration().valueSet("DIR_TARGET", p("target"), false);
        e().configuration().valueSet("DIR_VENDOR", "Vendor", false);
        e().configuration().valueSet("DIR_APPLICATION", "App", false);
        e().pathToCacheSet(p("cache"));
        e().cache().httpUrlAdd("file://" + p("publish"));
    }

    // The pool holds exactly product "Client" described from a version's tree; inPublish puts its
    // items on the server too.
    void describe(const QString& inVersion, bool inPublish)
    {
        e().resourceUnregisterAll();
        McHandle<ResourceFileDirectory> root;
        McDArray<McHandle<Resource>> generated;
        ASSERT_TRUE(Generator::generateFromDirectory(root, generated, p(inVersion), true, {}, {}).isOk());
        root->nameSet("${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}");
        McHandle<ResourceProduct> product(new ResourceProduct);
        product->nameSet("Client");
        product->applicationDirectorySet(root);
        if (!inPublish)
            return;
        e().pathToCacheSet(p("publish"));
        ASSERT_TRUE(e().cache().retrieveFromDirectory(p(inVersion), true, {}, true).isOk());
        e().pathToCacheSet(p("cache"));
    }

    // Version 1 installed, version 2 described and published, with a fresh cache and without the
    // shared file on the server: the update can take it only from the installed folder.
    void installV1AndPublishV2(int inV2Exit)
    {
        source("v1", 0);
        source("v2", inV2Exit);
        configure();
        describe("v1", true);
        ASSERT_TRUE(e().productInstall("Client", false).isOk());
        describe("v2", true);
        QDir(p("cache")).removeRecursively();
        ASSERT_TRUE(QFile::remove(p("publish/" + BufferID(scanFile(p("v1/lib/common.bin"))).toString() + ".lzma")));
    }

    // Runs an update that must fail; what it printed (the failure's two console lines).
    static std::string runFailing(ClientDeployment& inOut)
    {
        testing::internal::CaptureStdout();
        EXPECT_TRUE(inOut.run().isBad());
        return testing::internal::GetCapturedStdout();
    }

    static bool said(const KsTest::LogRecorder& inLog, const std::string& inPart)
    {
        for (const KsTest::LogLine& l : inLog.lines())
            if (l.text.find(inPart) != std::string::npos)
                return true;
        return false;
    }
    static ino_t inodeOf(const QString& inPath)
    {
        struct stat st;
        return ::stat(QFile::encodeName(inPath).constData(), &st) == 0 ? st.st_ino : 0;
    }
    static nlink_t linksOf(const QString& inPath)
    {
        struct stat st;
        return ::stat(QFile::encodeName(inPath).constData(), &st) == 0 ? st.st_nlink : 0;
    }

    void setUp(ClientDeployment& inOut)
    {
        inOut.applicationDirSet(app());
        inOut.productKeySet("Client");
        inOut.clientSet(app() + "/bin/ksclient", {"--start", "user:pw@server"}, {"KS_OUT=" + p("client.out")});
        inOut.workDirSet(p("work"));
    }

    // What the clients wrote, once inLines lines are there (a client may run detached).
    QByteArray clientOutput(int inLines)
    {
        for (int i = 0; i < 6000 && KsTest::readFile(p("client.out")).count('\n') < inLines; ++i)
            QThread::msleep(10);
        return KsTest::readFile(p("client.out"));
    }

    // A failure before the exchange: reported, the old client started, nothing changed.
    void expectUnchanged(const QMap<QString, QByteArray>& inBefore, const std::string& inReason)
    {
        ClientDeployment d;
        setUp(d);
        KsTest::FailureRecorder failures;
        const std::string out = runFailing(d);
        EXPECT_NE(std::string::npos, out.find("Automatic update has failed.\nPlease install manually.\n"));
        EXPECT_EQ(ClientDeployment::Outcome::Unchanged, d.outcome());
        EXPECT_TRUE(hasFailure(failures, inReason)) << inReason;
        EXPECT_EQ(inBefore, snapshot(p("target")));
        EXPECT_EQ(QStringList{"App"}, QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
        EXPECT_EQ("v1 --start user:pw@server\n", clientOutput(1)) << "the old client started";
    }

    // This test again in a child process, with inEnv set (and the same maintenance folder).
    static int childRun(const QString& inTest, const QStringList& inEnv, const QStringList& inWrapper = {})
    {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("KSDEPLOY_TEST_KEEP_HOME", "1");
        for (const QString& entry : inEnv)
            env.insert(entry.section('=', 0, 0), entry.section('=', 1));
        child.setProcessEnvironment(env);
        child.setStandardOutputFile(QProcess::nullDevice());
        child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList args = inWrapper;
        args << QCoreApplication::applicationFilePath() << "--gtest_filter=ClientDeploymentTest." + inTest;
        child.start(args.takeFirst(), args);
        if (!child.waitForFinished(120000))
            return -1;
        return child.exitStatus() == QProcess::CrashExit ? 128 + SIGKILL : child.exitCode();
    }
};
}

TEST_F(ClientDeploymentTest, UpdatesFromTheOldFolderAndTheServerAndKeepsThePrevious)
{
    installV1AndPublishV2(0);
    // Leftovers of earlier updates, and a file that is no record.
    for (const char* f : {"work/update-old.log", "work/product-old.xml", "work/keep.txt"})
        KsTest::writeFile(p(f), "earlier");
    for (const char* f : {"work/update-old.log", "work/product-old.xml"})
    {
        QFile file(p(f));
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(QDateTime::currentDateTime().addSecs(-3600), QFileDevice::FileModificationTime));
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
    // The unchanged file is the previous version's file under a second name; the changed one
    // was written anew.
    EXPECT_EQ(inodeOf(app() + ".previous/lib/common.bin"), inodeOf(app() + "/lib/common.bin"));
    EXPECT_EQ(1u, linksOf(app() + "/bin/ksclient"));
    EXPECT_EQ("v2 --start user:pw@server\n", clientOutput(1));
    // The big unchanged file was tagged by the install that wrote it: taken without a read.
    EXPECT_TRUE(said(log, "(1 shared by links, 1 known without reading them)"));
    EXPECT_EQ(QStringList({"App", "App.previous"}),
              QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
    EXPECT_TRUE(e().productResource("Client.staging").isNull()) << "the staging product left the pool";
    // What was cleared is said; this run's record stays.
    const QStringList records = QDir(p("work")).entryList(QDir::Files);
    EXPECT_EQ(3, records.size()) << records.join(",").toStdString();
    EXPECT_TRUE(records.contains("keep.txt"));
    EXPECT_TRUE(records.contains("installed.digests"));
    bool cleared = false;
    for (const KsTest::LogLine& l : log.lines())
        cleared = cleared || l.text == "removed: " + p("work/update-old.log").toStdString();
    EXPECT_TRUE(cleared);

    // The next update keeps only the version it replaced, and does not read again the file the
    // last one proved.
    describe("v1", false);
    ClientDeployment again;
    setUp(again);
    KsTest::LogRecorder againLog;
    ASSERT_TRUE(again.run().isOk());
    EXPECT_EQ(snapshot(p("v1")), snapshot(app()));
    EXPECT_EQ(snapshot(p("v2")), snapshot(app() + ".previous"));
    EXPECT_TRUE(said(againLog, "(1 shared by links, 2 known without reading them)"));

    // A recorded file written over since, even at the same size, is read again and not taken:
    // the server has no copy of it, so the update fails and changes nothing.
    {
        QFile common(app() + "/lib/common.bin");
        ASSERT_TRUE(common.open(QIODevice::ReadWrite));
        const QByteArray bytes = common.readAll();
        common.seek(0);
        ASSERT_EQ(bytes.size(), common.write(QByteArray(bytes.size(), 'x')));
    }
    describe("v2", false);
    ClientDeployment third;
    setUp(third);
    KsTest::LogRecorder thirdLog;
    KsTest::FailureRecorder failures;
    runFailing(third);
    EXPECT_TRUE(said(thirdLog, "update: 0 unchanged files taken from"));
    EXPECT_EQ(QByteArray(QFileInfo(p("v1/lib/common.bin")).size(), 'x'), KsTest::readFile(app() + "/lib/common.bin"));
}

TEST_F(ClientDeploymentTest, ANewClientThatFailsItsStartIsReplacedByTheOldOne)
{
    installV1AndPublishV2(3);
    ClientDeployment d;
    setUp(d);
    KsTest::FailureRecorder failures;
    KsTest::LogRecorder log;
    EXPECT_NE(std::string::npos, runFailing(d).find("Automatic update has failed."));
    EXPECT_EQ(ClientDeployment::Outcome::RolledBack, d.outcome());
    EXPECT_TRUE(hasFailure(failures, "the new client failed to start: '" + app().toStdString() +
                                         "/bin/ksclient' ended with status 3 within 10000 ms"));
    EXPECT_EQ(snapshot(p("v1")), snapshot(app()));
    // The shared file was staged as a link; its content and mode are version 1's and nothing
    // else holds it any more.
    EXPECT_TRUE(said(log, "(1 shared by links,"));
    EXPECT_EQ(1u, linksOf(app() + "/lib/common.bin"));
    EXPECT_EQ(QFile::permissions(p("v1/lib/common.bin")), QFile::permissions(app() + "/lib/common.bin"));
    EXPECT_EQ(QStringList{"App"}, QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
    EXPECT_EQ("v2 --start user:pw@server\nv1 --start user:pw@server\n", clientOutput(2));
}

// A file whose content stays but whose mode changes cannot be shared: a chmod of it would change
// the previous version too. It is copied and the copy gets the new mode.
TEST_F(ClientDeploymentTest, AnUnchangedFileWithAnotherModeIsCopiedNotLinked)
{
    source("v1", 0);
    source("v2", 0);
    const QString common = p("v2/lib/common.bin");
    ASSERT_TRUE(QFile::setPermissions(common, QFile::permissions(common) | QFile::ExeOwner | QFile::ExeUser |
                                                  QFile::ExeGroup | QFile::ExeOther));
    configure();
    describe("v1", true);
    ASSERT_TRUE(e().productInstall("Client", false).isOk());
    describe("v2", true);
    QDir(p("cache")).removeRecursively();
    ASSERT_TRUE(QFile::remove(p("publish/" + BufferID(scanFile(p("v1/lib/common.bin"))).toString() + ".lzma")));

    ClientDeployment d;
    setUp(d);
    KsTest::LogRecorder log;
    ASSERT_TRUE(d.run().isOk());
    EXPECT_TRUE(said(log, "update: 1 unchanged files taken from")) << "not fetched: taken from the installed file";
    EXPECT_TRUE(said(log, "(0 shared by links,"));
    EXPECT_NE(inodeOf(app() + ".previous/lib/common.bin"), inodeOf(app() + "/lib/common.bin"));
    EXPECT_TRUE(QFileInfo(app() + "/lib/common.bin").isExecutable());
    EXPECT_FALSE(QFileInfo(app() + ".previous/lib/common.bin").isExecutable());
    EXPECT_EQ(snapshot(p("v1")), snapshot(app() + ".previous"));
}

TEST_F(ClientDeploymentTest, AFailureBeforeTheExchangeChangesNothing)
{
    installV1AndPublishV2(0);
    const QString lost = BufferID(scanFile(p("v2/only-v2.txt"))).toString();
    // Published as a copy, or plain where a copy would not pay.
    const QString published = QFileInfo::exists(p("publish/" + lost + ".lzma")) ? lost + ".lzma" : lost;
    ASSERT_TRUE(QFile::rename(p("publish/" + published), p("lost")));
    expectUnchanged(snapshot(p("target")),
                    "the new version could not be staged in '" + app().toStdString() + ".staging'");

    ClientDeployment wrong;
    setUp(wrong);
    wrong.applicationDirSet(p("target"));
    wrong.failureHandlingSet(false);
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(wrong.run().isBad());
    EXPECT_TRUE(hasFailure(failures, "product 'Client' does not install into '" + p("target").toStdString() + "'"));
}

// The staging folder fills its file system: a 1 MiB tmpfs holds the client's folders, mounted in
// a private mount namespace of a child run.
TEST_F(ClientDeploymentTest, ADiskFullInTheStagingFolderChangesNothing)
{
    if (const char* root = std::getenv("KS_DEPLOY_FULL_ROOT"))
    {
        mRoot = QString::fromLocal8Bit(root);
        source("v1", 0);
        source("v2", 0);
        QByteArray big(2 << 20, '\0');
        for (int i = 0; i < big.size(); ++i)
            big[i] = static_cast<char>((i * 7919) ^ (i >> 9));
        KsTest::writeFile(p("v2/big.bin"), big);
        configure();
        describe("v1", true);
        ASSERT_TRUE(e().productInstall("Client", false).isOk());
        describe("v2", true);
        expectUnchanged(snapshot(p("target")), "No space left on device");
        return;
    }
    if (geteuid() != 0 || std::system("command -v unshare >/dev/null") != 0)
        GTEST_SKIP() << "a private mount namespace needs root and unshare";
    ASSERT_TRUE(QDir().mkpath(p("full/target")));
    const int status = childRun("ADiskFullInTheStagingFolderChangesNothing", {"KS_DEPLOY_FULL_ROOT=" + p("full")},
                                {"unshare", "-m", "sh", "-c",
                                 "mount -t tmpfs -o size=1m kstarget \"$KS_DEPLOY_FULL_ROOT/target\" || exit 99; "
                                 "exec \"$@\"",
                                 "sh"});
    if (status == 99)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(0, status) << "the child run's checks failed";
}

TEST_F(ClientDeploymentTest, ProgramsInTheFolderAreAskedAboutOrFailTheUpdate)
{
    installV1AndPublishV2(0);
    KsPlatform::ProcessStart start;
    start.program = "/bin/sleep";
    start.arguments = {"60"};
    start.workingDirectory = (app() + "/bin").toStdString();
    start.detached = false;
    KsPlatform::Process holder;
    ASSERT_TRUE(holder.start(start, false).isOk());
    const QString listed = QStringLiteral("sleep (pid %1)").arg(holder.processId());
    const auto before = snapshot(p("target"));

    // Nobody to ask (no display) fails with the list; the user giving up fails alike.
    QList<QStringList> asked;
    for (bool ask : {false, true})
    {
        ClientDeployment d;
        setUp(d);
        d.failureHandlingSet(false);
        if (ask)
            d.inUseQuestionSet([&](const QStringList& inPrograms) {
                asked << inPrograms;
                return false;
            });
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(d.run().isBad());
        EXPECT_TRUE(hasFailure(failures, std::string(ask ? "the update was cancelled: " : "") +
                                             "the application folder '" + app().toStdString() + "' is in use | " +
                                             listed.toStdString()));
    }
    EXPECT_EQ(before, snapshot(p("target")));

    // The user closes the program and asks to look again: the update goes through.
    ClientDeployment d;
    setUp(d);
    d.inUseQuestionSet([&](const QStringList& inPrograms) {
        asked << inPrograms;
        kill(static_cast<pid_t>(holder.processId()), SIGKILL);
        int code = 0;
        holder.waitForExit(code);
        return true;
    });
    ASSERT_TRUE(d.run().isOk());
    EXPECT_EQ(QList<QStringList>({{listed}, {listed}}), asked);
    EXPECT_EQ(snapshot(p("v2")), snapshot(app()));
}

// The deploying engine killed -9 at many moments, from before the staging to after the exchange
// (in a child run): the next start leaves one whole version whose client runs, and the following
// update completes.
TEST_F(ClientDeploymentTest, AKillAtAnyMomentLeavesAWholeVersionAndTheNextUpdateCompletes)
{
    if (const char* root = std::getenv("KS_DEPLOY_KILL_ROOT"))
    {
        mRoot = QString::fromLocal8Bit(root);
        configure();
        describe("v2", false);
        const QString at = QString::fromLocal8Bit(std::getenv("KS_DEPLOY_KILL_AT"));
        sKillAt = at;
        sKillAtStep = at.startsWith("step ") ? at.mid(5).toInt() : 0;
        // The exchange's three renames are moments of their own.
        KsPlatform::FolderSwap::atomicDisabledSet(sKillAtStep > 0);
        KsPlatform::FolderSwap::stepHookSet(&killAtStep);
        getTheLogInstance().setWriteCallback(&killOnLine, McLogLevelInfo);
        ClientDeployment d;
        setUp(d);
        d.run();
        _exit(3);  // the moment never came
    }

    const QStringList moments = {"update: staging the new version",
                                 "update: 1 unchanged files taken from",
                                 "Transaction Begin",
                                 "Download",
                                 "download: ",
                                 "Installation",
                                 "install: %1/target/Vendor/App.staging/lib",
                                 "install: %1/target/Vendor/App.staging/bin/ksclient",
                                 "Transaction Commit",
                                 "verify: %1/target/Vendor/App.staging/lib/common.bin",
                                 "step 1",
                                 "step 2",
                                 "step 3",
                                 "update: exchanged",
                                 "update: started",
                                 "update: the previous version is kept",
                                 "removed: ",
                                 "update: done"};
    const QString base = mRoot;
    QMap<QString, int> versions;
    for (int i = 0; i < moments.size(); ++i)
    {
        mRoot = base + QStringLiteral("/k%1").arg(i);
        const QString at = QString(moments[i]).replace("%1", mRoot);
        SCOPED_TRACE(at.toStdString());
        Engine::instanceTestReset();
        Engine::instanceInit(nullptr);
        e().quietSet(true);
        installV1AndPublishV2(0);
        KsTest::writeFile(p("work/update-earlier.log"), "an earlier update's record");
        QFile earlier(p("work/update-earlier.log"));
        ASSERT_TRUE(earlier.open(QIODevice::ReadWrite));
        ASSERT_TRUE(earlier.setFileTime(QDateTime::currentDateTime().addSecs(-60), QFileDevice::FileModificationTime));
        earlier.close();
        ASSERT_EQ(128 + SIGKILL, childRun("AKillAtAnyMomentLeavesAWholeVersionAndTheNextUpdateCompletes",
                                          {"KS_DEPLOY_KILL_ROOT=" + mRoot, "KS_DEPLOY_KILL_AT=" + at}));

        // The next start: the engine's own recovery, then the exchange's.
        Engine::instanceTestReset();
        Engine::instanceInit(nullptr);
        e().quietSet(true);
        configure();
        ASSERT_TRUE(ClientDeployment::recoverInterrupted(app()).isOk());
        const auto now = snapshot(app());
        const QString version = now == snapshot(p("v1")) ? "v1" : now == snapshot(p("v2")) ? "v2" : "a mix";
        QProcess client;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("KS_OUT", p("started.out"));
        client.setProcessEnvironment(env);
        client.start(app() + "/bin/ksclient", {});
        EXPECT_TRUE(client.waitForFinished(60000) && client.exitCode() == 0);
        EXPECT_EQ(version.toLatin1() + " \n", KsTest::readFile(p("started.out")));
        versions[version] += 1;

        describe("v2", false);
        ClientDeployment next;
        setUp(next);
        EXPECT_TRUE(next.run().isOk());
        EXPECT_EQ(snapshot(p("v2")), snapshot(app()));
        EXPECT_EQ(QStringList({"App", "App.previous"}),
                  QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
    }
    EXPECT_EQ(0, versions.value("a mix"));
    std::printf("kill -9 at %d moments: %d left version 1, %d version 2, %d a mix\n", int(moments.size()),
                versions.value("v1"), versions.value("v2"), versions.value("a mix"));
}

// The update's steps are the client plugin's hooks around the staging install, in the order of
// the install: the in-use check before the snapshot and any download, the exchange after the
// files are written and before the commit, the new client's start after the install has ended.
TEST_F(ClientDeploymentTest, TheHooksDoTheUpdateInTheOrderOfTheInstall)
{
    installV1AndPublishV2(0);
    Engine::pluginFactoryAdd("HookRecorder", &hookRecorder);
    ASSERT_TRUE(e().pluginRegister("HookRecorder").isOk());
    const auto v1 = snapshot(p("v1"));
    const auto v2 = snapshot(p("v2"));
    sHookState = [&]() {
        const auto now = snapshot(app());
        return QStringLiteral("app=%1 staging=%2 client=%3")
            .arg(now == v1   ? "v1"
                 : now == v2 ? "v2"
                             : "other")
            .arg(QFileInfo::exists(app() + ".staging") ? "yes" : "no")
            .arg(QFileInfo::exists(p("client.out")) ? "started" : "no");
    };
    sHookCalls.clear();
    ClientDeployment d;
    setUp(d);
    // The client's own start ends at once: its output is there before the watch ends.
    KsTest::LogRecorder log;
    ASSERT_TRUE(d.run().isOk());
    sHookState = nullptr;
    EXPECT_EQ(QStringList({"pre Client.staging app=v1 staging=no client=no",
                           "install Client.staging app=v2 staging=no client=no",
                           "post(ok) Client.staging app=v2 staging=no client=started"})
                  .join(" | ")
                  .toStdString(),
              sHookCalls.join(" | ").toStdString());
    const QStringList steps = {"update: staging the new version",
                               "recorder: pre",
                               "Transaction Begin",
                               "Download",
                               "Installation",
                               "Verification",
                               "update: exchanged",
                               "recorder: install",
                               "Transaction Commit",
                               "update: started",
                               "update: done",
                               "recorder: post(ok)"};
    QStringList seen;
    for (const KsTest::LogLine& l : log.lines())
        for (const QString& step : steps)
            if (QString::fromStdString(l.text).startsWith(step))
                seen << step;
    EXPECT_EQ(steps.join(" | ").toStdString(), seen.join(" | ").toStdString());

    // With the plugin registered, an install of any other product is an ordinary one: in place,
    // no staging, no exchange, no client started.
    QFile::remove(p("client.out"));
    describe("v1", false);
    sHookCalls.clear();
    ASSERT_TRUE(e().productInstall("Client", false).isOk());
    EXPECT_EQ("pre Client | install Client | post(ok) Client", sHookCalls.join(" | ").toStdString());
    auto inPlace = v1;
    inPlace.insert("/only-v2.txt", "v2");  // not described, so an install in place keeps it
    EXPECT_EQ(inPlace, snapshot(app()));
    EXPECT_EQ(QStringList({"App", "App.previous"}),
              QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
    EXPECT_EQ(v1, snapshot(app() + ".previous")) << "the previous version is the update's, untouched";
    QThread::msleep(200);
    EXPECT_FALSE(QFileInfo::exists(p("client.out"))) << "no client was started";
}

// A program in the folder fails the in-use check: the install stops before its snapshot, before
// anything is fetched or copied into the cache, and only the hooks after it are called.
TEST_F(ClientDeploymentTest, AFailedInUseCheckStopsTheInstallBeforeAnyChange)
{
    installV1AndPublishV2(0);
    Engine::pluginFactoryAdd("HookRecorder", &hookRecorder);
    ASSERT_TRUE(e().pluginRegister("HookRecorder").isOk());
    KsPlatform::ProcessStart start;
    start.program = "/bin/sleep";
    start.arguments = {"60"};
    start.workingDirectory = app().toStdString();
    start.detached = false;
    KsPlatform::Process holder;
    ASSERT_TRUE(holder.start(start, false).isOk());
    const auto before = snapshot(p("target"));
    sHookCalls.clear();
    ClientDeployment d;
    setUp(d);
    KsTest::LogRecorder log;
    KsTest::FailureRecorder failures;
    EXPECT_NE(std::string::npos, runFailing(d).find("Automatic update has failed."));
    kill(static_cast<pid_t>(holder.processId()), SIGKILL);
    int code = 0;
    holder.waitForExit(code);

    EXPECT_EQ("pre Client.staging | post(failed) Client.staging", sHookCalls.join(" | ").toStdString());
    EXPECT_EQ(ClientDeployment::Outcome::Unchanged, d.outcome());
    EXPECT_FALSE(hasFailure(failures, "could not be staged")) << "nothing was staged";
    EXPECT_EQ(before, snapshot(p("target")));
    EXPECT_EQ(QStringList{"App"}, QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
    EXPECT_TRUE(QDir(p("cache")).entryList(QDir::Files | QDir::NoDotAndDotDot).isEmpty())
        << "nothing was fetched or copied into the cache";
    for (const KsTest::LogLine& l : log.lines())
        EXPECT_FALSE(QString::fromStdString(l.text).startsWith("Transaction Begin")) << "no snapshot was taken";
    EXPECT_EQ("v1 --start user:pw@server\n", clientOutput(1)) << "the old client started";
}

// A SIGTERM that comes after the exchange but before the staging install's commit rolls that
// install back: the rollback must not reach the replaced version, which goes back into place.
TEST_F(ClientDeploymentTest, AnInstallUndoneAfterTheExchangePutsTheOldVersionBack)
{
    installV1AndPublishV2(0);
    const auto before = snapshot(p("target"));
    Engine::pluginFactoryAdd("HookRecorder", &hookRecorder);
    ASSERT_TRUE(e().pluginRegister("HookRecorder").isOk());
    KsPlatform::InterruptSignals::install();
    sHookCalls.clear();
    sHookOnInstall = [] { raise(SIGTERM); };
    ClientDeployment d;
    setUp(d);
    KsTest::FailureRecorder failures;
    EXPECT_NE(std::string::npos, runFailing(d).find("Automatic update has failed."));
    sHookOnInstall = nullptr;
    EXPECT_EQ("pre Client.staging | install Client.staging | post(failed) Client.staging",
              sHookCalls.join(" | ").toStdString());
    EXPECT_EQ("install", e().interruptedOperation().toStdString());
    EXPECT_EQ(ClientDeployment::Outcome::Unchanged, d.outcome());
    EXPECT_EQ(before, snapshot(p("target")));
    EXPECT_EQ(QStringList{"App"}, QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
    EXPECT_EQ("v1 --start user:pw@server\n", clientOutput(1)) << "the old client started";
}
