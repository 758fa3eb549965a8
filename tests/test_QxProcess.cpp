// The Qt face of the launcher: held starts, waiting for an exit status, its messages, and
// command-line splitting.
#include "KsTestSupport.h"
#include "QxProcess.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

namespace
{

QString script(const QTemporaryDir& inDir, const QByteArray& inBody)
{
    const QString path = inDir.path() + "/prog.sh";
    KsTest::writeFile(path, "#!/bin/sh\n" + inBody);
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    return path;
}
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

TEST(QxProcessTest, AHeldProgramRunsWithItsSettingsOnlyAfterResume)
{
    KsTest::FailureRecorder failures;
    QTemporaryDir dir;
    QxBase::Process held;
    held.programSet(script(dir, "cat go > out; pwd >> out; echo \"$KS_MARK\" >> out\n"));
    held.workingDirectorySet(dir.path());
    held.environmentSet({"KS_MARK=marked", "PATH=/usr/bin:/bin"});
    ASSERT_TRUE(held.start(false, true, false).isOk());
    EXPECT_GT(held.processId(), 0);
    KsTest::writeFile(dir.path() + "/go", "resumed\n");
    ASSERT_TRUE(held.resume().isOk());
    EXPECT_TRUE(held.resume().isBad());
    const QString out = dir.path() + "/out";
    // The program is detached: nothing to wait for but its output.
    for (int i = 0; i < 10000 && KsTest::readFile(out).count('\n') < 3; ++i)
        QThread::msleep(1);
    EXPECT_EQ("resumed\n" + dir.path().toUtf8() + "\nmarked\n", KsTest::readFile(out));

    // A held program that cannot run is reported when it is let go.
    QxBase::Process garbage;
    const QString path = dir.path() + "/garbage";
    KsTest::writeFile(path, "\x7f"
                            "ELF garbage");
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    garbage.programSet(path);
    ASSERT_TRUE(garbage.start(false, false, false).isOk());
    EXPECT_TRUE(garbage.resume().isBad());
    EXPECT_TRUE(failures.hasMessage(("failed to start '" + path + "': Exec format error").toStdString()));
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
