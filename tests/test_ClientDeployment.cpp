// The client update end to end on real folders: two published versions of a client whose program
// is a shell script, staged beside the installed one, exchanged, started and, when the new client
// fails at once, put back.
#include "Cache.h"
#include "ClientDeployment.h"
#include "Common.h"
#include "Generator.h"
#include "KsTestSupport.h"
#include "Process.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <csignal>
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
    QString p(const QString& inRel) const { return mDir.path() + "/" + inRel; }
    Engine& e() { return Engine::instance(); }
    QString app() const { return p("target/Vendor/App"); }

    // Source tree of a version; "lib/common.bin" is the same in every version.
    void source(const QString& inName, const QByteArray& inVersion, int inClientExit)
    {
        KsTest::writeFile(p(inName + "/bin/ksclient"), client(inVersion, inClientExit));
        QFile::setPermissions(p(inName + "/bin/ksclient"), QFile::permissions(p(inName + "/bin/ksclient")) | QFile::ExeOwner);
        KsTest::writeFile(p(inName + "/lib/common.bin"), QByteArray(300000, 'c'));
        KsTest::writeFile(p(inName + "/share/version.txt"), inVersion);
        KsTest::writeFile(p(inName + "/only-" + inVersion + ".txt"), "only in " + inVersion);
    }

    // The pool holds exactly product "Client" described from src; its items are published.
    void describeAndPublish(const QString& inSrc)
    {
        e().resourceUnregisterAll();
        McHandle<ResourceFileDirectory> root;
        McDArray<McHandle<Resource>> generated;
        ASSERT_TRUE(Generator::generateFromDirectory(root, generated, p(inSrc), true, {}, {}).isOk());
        root->nameSet("${DIR_TARGET}/${DIR_VENDOR}/${DIR_APPLICATION}");
        McHandle<ResourceProduct> product(new ResourceProduct);
        product->nameSet("Client");
        product->applicationDirectorySet(root);
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
        e().configuration().valueSet("DIR_TARGET", p("target"), false);
        e().configuration().valueSet("DIR_VENDOR", "Vendor", false);
        e().configuration().valueSet("DIR_APPLICATION", "App", false);
        e().pathToCacheSet(p("cache"));
        e().cache().httpUrlAdd("file://" + p("publish"));
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

    // What the clients wrote; waits for inLines lines (a client may run detached).
    QByteArray clientOutput(int inLines)
    {
        for (int i = 0; i < 6000 && KsTest::readFile(p("client.out")).count('\n') < inLines; ++i)
            QThread::msleep(10);
        return KsTest::readFile(p("client.out"));
    }
};
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
        saidRemoved = saidRemoved || l.text.find("removed: " + p("work/update-old.log").toStdString()) != std::string::npos;
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
    EXPECT_EQ(QStringList{"App"}, QDir(p("target/Vendor")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden));
    EXPECT_EQ("v1 --start user:pw@server\n", clientOutput(1)) << "the old client started";

    // A product that does not install into the given folder is refused before anything.
    ClientDeployment wrong;
    setUp(wrong);
    wrong.applicationDirSet(p("target/Vendor/Other"));
    QDir().mkpath(p("target/Vendor/Other"));
    wrong.failureHandlingSet(false);
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(wrong.run().isBad());
    EXPECT_TRUE(failures.hasMessage(("product 'Client' does not install into '" + p("target/Vendor/Other") + "'").toStdString()));
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
        EXPECT_TRUE(failures.hasMessage(QStringLiteral("the program that started the update did not end (pid %1)")
                                            .arg(parent)
                                            .toStdString()));
    }
    EXPECT_EQ(snapshot(p("v1")), snapshot(app()));
    kill(parent, SIGKILL);
    waitpid(parent, nullptr, 0);
    d.parentPidSet(parent, 60000);
    ASSERT_TRUE(d.run().isOk());
    EXPECT_EQ(snapshot(p("v2")), snapshot(app()));
}
