// Waiting for a process that is not ours, and the start watch: a program that fails at once is
// told from one that comes up or ends well.
#include "ProcessWatch.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
ProcessStart shell(const std::string& inScript)
{
    ProcessStart s;
    s.program = "/bin/sh";
    s.arguments = {"-c", inScript};
    return s;
}
}

TEST(PlatformProcessWatch, WaitsForTheEndOfAProcessThatIsNotOurs)
{
    // Detached: the program is not our child, so only /proc tells when it has ended.
    Process p;
    ProcessStart s;
    s.program = "/bin/sleep";
    s.arguments = {"60"};
    ASSERT_TRUE(p.start(s, false).isOk());
    bool ended = true;
    ProcessWatch::waitForEnd(p.processId(), 50, ended);
    EXPECT_FALSE(ended) << "still running when the wait gave up";
    kill(static_cast<pid_t>(p.processId()), SIGKILL);
    ProcessWatch::waitForEnd(p.processId(), 60000, ended);
    EXPECT_TRUE(ended);

    // Our own child that has ended but was not reaped yet (a zombie) has ended too.
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ProcessWatch::waitForEnd(child, 60000, ended);
    EXPECT_TRUE(ended);
    waitpid(child, nullptr, 0);

    ProcessWatch::waitForEnd(0, 60000, ended);
    EXPECT_TRUE(ended);
}

TEST(PlatformProcessWatch, StartWatchTellsAFailedStart)
{
    ProcessWatch::StartOutcome o;
    ASSERT_TRUE(ProcessWatch::startWatched(shell("exit 3"), 60000, o).isOk());
    EXPECT_TRUE(o.endedInTime);
    EXPECT_EQ(3, o.exitCode);
    EXPECT_TRUE(o.failed());

    ASSERT_TRUE(ProcessWatch::startWatched(shell("kill -9 $$"), 60000, o).isOk());
    EXPECT_EQ(128 + SIGKILL, o.exitCode);
    EXPECT_TRUE(o.failed());

    ASSERT_TRUE(ProcessWatch::startWatched(shell("exit 0"), 60000, o).isOk());
    EXPECT_TRUE(o.endedInTime);
    EXPECT_FALSE(o.failed()) << "a client that did its work and ended well has not failed";

    // Still up when the watch ends: a start that worked, and the program keeps running.
    ASSERT_TRUE(ProcessWatch::startWatched(shell("exec sleep 60"), 100, o).isOk());
    EXPECT_FALSE(o.endedInTime);
    EXPECT_FALSE(o.failed());
    ASSERT_GT(o.pid, 0);
    EXPECT_EQ(0, kill(static_cast<pid_t>(o.pid), 0));
    kill(static_cast<pid_t>(o.pid), SIGKILL);
    waitpid(static_cast<pid_t>(o.pid), nullptr, 0);

    ProcessStart missing;
    missing.program = "/nonexistent/ksclient";
    EXPECT_TRUE(ProcessWatch::startWatched(missing, 100, o).isBad());
}
