// Folder exchange: atomic where the file system allows it, otherwise journaled renames that a
// later start finishes or undoes, whatever moment a kill -9 chose.
#include "FolderSwap.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
std::string scratch()
{
    static int sCounter = 0;
    const char* tmp = std::getenv("TMPDIR");
    const std::string dir =
        std::string(tmp ? tmp : "/tmp") + "/swap-test-" + std::to_string(getpid()) + "-" + std::to_string(++sCounter);
    mkdir(dir.c_str(), 0755);
    return dir;
}

bool exists(const std::string& inPath) { return access(inPath.c_str(), F_OK) == 0; }

std::string text(const std::string& inPath)
{
    std::ifstream in(inPath);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// app/ holds version "old", app.staging/ version "new"; both with a file in a subfolder.
struct Pair
{
    std::string root = scratch();
    std::string app = root + "/app";
    std::string staging = root + "/app.staging";
    std::string journal = root + "/app.exchange";
    Pair()
    {
        for (const auto& [dir, version] : {std::pair{app, "old"}, std::pair{staging, "new"}})
        {
            mkdir(dir.c_str(), 0755);
            mkdir((dir + "/bin").c_str(), 0755);
            std::ofstream(dir + "/bin/version") << version;
        }
    }
    // "old" or "new" for each name, "-" where nothing is.
    std::string state() const
    {
        auto v = [](const std::string& d) { return exists(d) ? text(d + "/bin/version") : std::string("-"); };
        return v(app) + "," + v(staging);
    }
    bool clean() const { return !exists(journal) && !exists(app + ".exchange-aside") && !exists(journal + ".tmp"); }
};

int sKillAt = 0;
void killAtStep(int inStep)
{
    if (inStep == sKillAt)
        raise(SIGKILL);
}

// Runs the fallback exchange in a child that is killed -9 right after rename inStep.
void exchangeKilledAfter(const Pair& inPair, int inStep)
{
    const pid_t child = fork();
    if (child == 0)
    {
        sKillAt = inStep;
        FolderSwap::atomicDisabledSet(true);
        FolderSwap::stepHookSet(&killAtStep);
        bool atomic = false;
        FolderSwap::exchange(inPair.app, inPair.staging, inPair.journal, atomic);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
}

class PlatformFolderSwap : public ::testing::Test
{
protected:
    void TearDown() override { FolderSwap::atomicDisabledSet(false); }
};
}

TEST_F(PlatformFolderSwap, BothWaysExchangeTheContentsAndLeaveNothingBehind)
{
    for (bool fallback : {false, true})
    {
        FolderSwap::atomicDisabledSet(fallback);
        Pair p;
        bool atomic = fallback;
        ASSERT_TRUE(FolderSwap::exchange(p.app, p.staging, p.journal, atomic).isOk());
        EXPECT_EQ("new,old", p.state());
        EXPECT_EQ(!fallback, atomic) << "this test's file system offers the atomic exchange";
        EXPECT_TRUE(p.clean());
        // And back again.
        ASSERT_TRUE(FolderSwap::exchange(p.app, p.staging, p.journal, atomic).isOk());
        EXPECT_EQ("old,new", p.state());
        EXPECT_TRUE(p.clean());
    }
}

TEST_F(PlatformFolderSwap, AFileSystemThatRefusesTheAtomicCallGetsTheJournaledWay)
{
    // The kernel's own refusal, injected into the real system call of a child run of this test.
    if (const char* dir = std::getenv("KS_SWAP_CHILD"))
    {
        Pair p;
        bool atomic = true;
        const Status s = FolderSwap::exchange(p.app, p.staging, p.journal, atomic);
        std::ofstream(std::string(dir) + "/result") << s.isOk() << atomic << p.state() << p.clean();
        return;
    }
    if (system("command -v strace >/dev/null") != 0)
        GTEST_SKIP() << "strace is not installed";
    const std::string dir = scratch();
    // A sanitizer's leak check needs ptrace itself, which strace holds.
    const std::string command =
        "ASAN_OPTIONS=detect_leaks=0 KS_SWAP_CHILD='" + dir +
        "' strace -f -o /dev/null -e inject=renameat2:error=EINVAL " + "/proc/" + std::to_string(getpid()) +
        "/exe --gtest_filter=" + "PlatformFolderSwap.AFileSystemThatRefusesTheAtomicCallGetsTheJournaledWay >/dev/null";
    ASSERT_EQ(0, system(command.c_str()));
    EXPECT_EQ("10new,old1", text(dir + "/result")) << "ok, not atomic, exchanged, clean";

    // Any other refusal is not a reason to go the long way: nothing changes.
    const std::string other =
        "ASAN_OPTIONS=detect_leaks=0 KS_SWAP_CHILD='" + dir +
        "' strace -f -o /dev/null -e inject=renameat2:error=EACCES " + "/proc/" + std::to_string(getpid()) +
        "/exe --gtest_filter=" + "PlatformFolderSwap.AFileSystemThatRefusesTheAtomicCallGetsTheJournaledWay >/dev/null";
    ASSERT_EQ(0, system(other.c_str()));
    EXPECT_EQ("00old,new1", text(dir + "/result"));
}

TEST_F(PlatformFolderSwap, AKillBetweenTheRenamesIsFinishedOrUndoneByRecover)
{
    // After the first rename the old version is only aside: undone. After the second the new one
    // has the name: finished. After the third only the journal is left.
    const struct
    {
        int step;
        std::string afterKill;
        FolderSwap::Recovery recovery;
        std::string afterRecover;
    } cases[] = {{1, "-,new", FolderSwap::Recovery::Undone, "old,new"},
                 {2, "new,-", FolderSwap::Recovery::Completed, "new,old"},
                 {3, "new,old", FolderSwap::Recovery::Nothing, "new,old"}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE("killed after rename " + std::to_string(c.step));
        Pair p;
        exchangeKilledAfter(p, c.step);
        EXPECT_EQ(c.afterKill, p.state());
        EXPECT_TRUE(exists(p.journal));
        bool atomic = false;
        EXPECT_TRUE(FolderSwap::exchange(p.app, p.staging, p.journal, atomic).isBad())
            << "no new exchange over an unfinished one";
        FolderSwap::Recovery r = FolderSwap::Recovery::Nothing;
        ASSERT_TRUE(FolderSwap::recover(p.journal, r).isOk());
        EXPECT_EQ(c.recovery, r);
        EXPECT_EQ(c.afterRecover, p.state());
        EXPECT_TRUE(p.clean());
        // Recovering twice does nothing more.
        ASSERT_TRUE(FolderSwap::recover(p.journal, r).isOk());
        EXPECT_EQ(FolderSwap::Recovery::Nothing, r);
    }
}

TEST_F(PlatformFolderSwap, AKillWhileTheJournalIsWrittenLeavesNothingAfterRecover)
{
    Pair p;
    std::ofstream(p.journal + ".tmp") << "ksdeploy folder exch";
    FolderSwap::Recovery r = FolderSwap::Recovery::Completed;
    ASSERT_TRUE(FolderSwap::recover(p.journal, r).isOk());
    EXPECT_EQ(FolderSwap::Recovery::Nothing, r);
    EXPECT_EQ("old,new", p.state());
    EXPECT_TRUE(p.clean());
}

TEST_F(PlatformFolderSwap, BadInputChangesNothing)
{
    Pair p;
    bool atomic = false;
    const Status missing = FolderSwap::exchange(p.app, p.root + "/nothing", p.journal, atomic);
    ASSERT_TRUE(missing.isBad());
    EXPECT_NE(std::string::npos, missing.text.find("No such file or directory")) << missing.text;
    std::ofstream(p.root + "/file") << "x";
    EXPECT_TRUE(FolderSwap::exchange(p.app, p.root + "/file", p.journal, atomic).isBad());
    FolderSwap::atomicDisabledSet(true);
    EXPECT_TRUE(FolderSwap::exchange(p.app, p.root + "/nothing", p.journal, atomic).isBad());
    EXPECT_EQ("old,new", p.state());
    EXPECT_TRUE(p.clean());

    std::ofstream(p.journal) << "something else\n";
    FolderSwap::Recovery r;
    EXPECT_TRUE(FolderSwap::recover(p.journal, r).isBad());
    EXPECT_EQ("old,new", p.state());
}
