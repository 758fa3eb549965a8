// Programs started by the platform layer: held until resumed, detached from us or waited for.
#include "Process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
std::string scratch()
{
    static int sCounter = 0;
    const char* tmp = std::getenv("TMPDIR");
    const std::string dir = std::string(tmp ? tmp : "/tmp") + "/process-test-" + std::to_string(++sCounter);
    mkdir(dir.c_str(), 0755);
    return dir;
}

std::string fileText(const std::string& inPath)
{
    std::ifstream in(inPath);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void waitUntilEnded(const Process& inProcess)
{
    while (inProcess.isRunning())
        usleep(1000);
}

long long parentOf(long long inPid)
{
    std::ifstream in("/proc/" + std::to_string(inPid) + "/stat");
    std::string line;
    std::getline(in, line);
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    char state;
    long long ppid = -1;
    fields >> state >> ppid;
    return ppid;
}
}

TEST(PlatformProcess, AHeldProgramStartsOnlyOnResumeAndIsNotOurChild)
{
    const std::string dir = scratch();
    const std::string out = dir + "/out";
    ProcessStart start;
    start.program = "/bin/sh";
    // The program reads a file that exists only once we resume it.
    start.arguments = {"-c", "cat go > out; pwd >> out; echo \"$KS_MARK\" >> out"};
    start.workingDirectory = dir;
    start.environment = {"KS_MARK=marked", "PATH=/usr/bin:/bin"};
    Process p;
    ASSERT_TRUE(p.start(start, true).isOk());
    EXPECT_TRUE(p.isHeld());
    EXPECT_GT(p.processId(), 0);
    EXPECT_TRUE(p.isRunning());
    EXPECT_NE(static_cast<long long>(getpid()), parentOf(p.processId()));
    std::ofstream(dir + "/go") << "resumed\n";
    ASSERT_TRUE(p.resume().isOk());
    EXPECT_FALSE(p.isHeld());
    waitUntilEnded(p);
    EXPECT_EQ("resumed\n" + dir + "\nmarked\n", fileText(out));
    EXPECT_TRUE(p.resume().isBad());
    EXPECT_TRUE(p.start(start, false).isBad());  // one program per object
}

TEST(PlatformProcess, ProgramsThatCannotRunAreReported)
{
    const std::string dir = scratch();
    ProcessStart start;
    start.program = dir + "/missing";
    Process missing;
    Status s = missing.start(start, false);
    EXPECT_EQ(ENOENT, s.code);
    EXPECT_NE(std::string::npos, s.text.find(start.program)) << s.text;

    // Executable bits but no program inside: the exec itself fails, at once or on resume.
    start.program = dir + "/garbage";
    std::ofstream(start.program) << "\x7f"
                                    "ELF garbage";
    chmod(start.program.c_str(), 0755);
    Process direct;
    s = direct.start(start, false);
    EXPECT_EQ(ENOEXEC, s.code) << s.text;
    Process held;
    ASSERT_TRUE(held.start(start, true).isOk());
    s = held.resume();
    EXPECT_EQ(ENOEXEC, s.code) << s.text;
    waitUntilEnded(held);

    start.program = "/bin/true";
    start.workingDirectory = dir + "/no-such-folder";
    Process badDir;
    s = badDir.start(start, false);
    EXPECT_EQ(ENOENT, s.code) << s.text;
}

TEST(PlatformProcess, AnAttachedProgramIsOurChildAndReportsHowItEnded)
{
    const std::string dir = scratch();
    ProcessStart start;
    start.program = "/bin/sh";
    start.arguments = {"-c", "cat go > out; exit 7"};
    start.workingDirectory = dir;
    start.detached = false;
    Process held;
    ASSERT_TRUE(held.start(start, true).isOk());
    EXPECT_EQ(static_cast<long long>(getpid()), parentOf(held.processId()));
    std::ofstream(dir + "/go") << "resumed\n";
    int code = -1;
    ASSERT_TRUE(held.waitForExit(code).isOk());  // resumes the held program first
    EXPECT_EQ(7, code);
    EXPECT_EQ("resumed\n", fileText(dir + "/out"));
    EXPECT_FALSE(held.isRunning());
    EXPECT_TRUE(held.waitForExit(code).isBad());  // reaped once only

    start.arguments = {"-c", "kill -TERM $$"};
    Process killed;
    ASSERT_TRUE(killed.start(start, false).isOk());
    ASSERT_TRUE(killed.waitForExit(code).isOk());
    EXPECT_EQ(128 + SIGTERM, code);

    // An attached program whose exec fails is reported and reaped, not left a zombie.
    start.program = dir + "/garbage";
    std::ofstream(start.program) << "\x7f"
                                    "ELF garbage";
    chmod(start.program.c_str(), 0755);
    Process failing;
    EXPECT_EQ(ENOEXEC, failing.start(start, false).code);
    EXPECT_FALSE(std::ifstream("/proc/" + std::to_string(failing.processId()) + "/stat").good());

    // Only an attached program can be waited for.
    start.program = "/bin/true";
    start.detached = true;
    Process detached;
    ASSERT_TRUE(detached.start(start, false).isOk());
    EXPECT_TRUE(detached.waitForExit(code).isBad());
}
