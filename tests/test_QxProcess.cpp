// Started programs: held until resumed, detached from us, and command-line splitting.
#include "KsTestSupport.h"
#include "QxProcess.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

namespace
{
bool waitForFile(const QString& inPath, int inMs = 10000)
{
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < inMs)
    {
        if (QFile::exists(inPath))
            return true;
        QThread::msleep(20);
    }
    return false;
}

QString script(const QTemporaryDir& inDir, const QByteArray& inBody)
{
    const QString path = inDir.path() + "/prog.sh";
    KsTest::writeFile(path, "#!/bin/sh\n" + inBody);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}
}

TEST(QxProcessTest, HeldProgramRunsOnlyAfterResume)
{
    QTemporaryDir dir;
    const QString marker = dir.path() + "/ran";
    QxBase::Process p;
    p.programSet(script(dir, "pwd > \"$1\"; echo \"$KS_VALUE\" >> \"$1\"\n"));
    p.workingDirectorySet(dir.path());
    p.argumentsAppend({marker});
    p.environmentSet({"KS_VALUE=passed on", "PATH=/usr/bin:/bin"});
    ASSERT_TRUE(p.start(false, false, false).isOk());
    QThread::msleep(300);
    EXPECT_FALSE(QFile::exists(marker)) << "a held program must not run before resume()";
    ASSERT_TRUE(p.resume().isOk());
    ASSERT_TRUE(waitForFile(marker));
    QThread::msleep(100);
    EXPECT_EQ(dir.path() + "\npassed on\n", QString::fromLocal8Bit(KsTest::readFile(marker)));
    EXPECT_TRUE(p.resume().isBad());
}

TEST(QxProcessTest, ProgramOutlivesTheProcessObject)
{
    QTemporaryDir dir;
    const QString marker = dir.path() + "/late";
    {
        QxBase::Process p;
        p.programSet(script(dir, "sleep 0.3; touch \"$1\"\n"));
        p.argumentsAppend({marker});
        ASSERT_TRUE(p.start(true, true, false).isOk());
    }
    EXPECT_FALSE(QFile::exists(marker));
    EXPECT_TRUE(waitForFile(marker));
}

TEST(QxProcessTest, FailuresAreReported)
{
    KsTest::FailureRecorder failures;
    QTemporaryDir dir;
    QxBase::Process missing;
    missing.programSet(dir.path() + "/nothing-here");
    EXPECT_TRUE(missing.start(true, false, false).isBad());
    EXPECT_TRUE(failures.hasMessage(("not an executable file: '" + dir.path() + "/nothing-here'").toStdString()));

    QxBase::Process failing;
    failing.programSet(script(dir, "exit 3\n"));
    EXPECT_TRUE(failing.start(true, false, true).isBad());
    EXPECT_TRUE(failures.hasMessage(("'" + dir.path() + "/prog.sh' ended with status 3").toStdString()));

    QxBase::Process badDir;
    badDir.programSet(script(dir, "exit 0\n"));
    badDir.workingDirectorySet(dir.path() + "/no/such/dir");
    EXPECT_TRUE(badDir.start(true, false, false).isBad());
}

TEST(QxProcessTest, SplitsCommandLinesByShellRules)
{
    using QxBase::Process;
    EXPECT_EQ(QStringList({"a", "b c", "d'e", "f\"g", "h i", "", "x\\y"}),
              Process::splitCommandLine("a 'b c' \"d'e\" f\\\"g h\\ i '' x\\\\y"));
    EXPECT_EQ(QStringList(), Process::splitCommandLine("   "));
    EXPECT_EQ(QStringList({"--product", "action=uninstall", "name=My App"}),
              Process::splitCommandLine("  --product action=uninstall \"name=My App\" "));
}
