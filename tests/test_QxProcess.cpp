// Started programs: held until resumed, detached from us, and command-line splitting.
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

TEST(QxProcessTest, SplitsCommandLinesByShellRules)
{
    using QxBase::Process;
    EXPECT_EQ(QStringList({"a", "b c", "d'e", "f\"g", "h i", "", "x\\y"}),
              Process::splitCommandLine("a 'b c' \"d'e\" f\\\"g h\\ i '' x\\\\y"));
    EXPECT_EQ(QStringList(), Process::splitCommandLine("   "));
    EXPECT_EQ(QStringList({"--product", "action=uninstall", "name=My App"}),
              Process::splitCommandLine("  --product action=uninstall \"name=My App\" "));
}
