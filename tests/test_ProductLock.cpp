// The per-product lock: one holder at a time, the holder named, and nothing left held by the dead.
#include "ProductLock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
std::string lockPath()
{
    const char* tmp = std::getenv("TMPDIR");
    const std::string dir = std::string(tmp ? tmp : "/tmp") + "/productlock-test-" + std::to_string(getpid());
    ::mkdir(dir.c_str(), 0700);
    return dir + "/App.lock";
}

// A child that takes the lock, says so through a pipe and then waits to be killed.
pid_t holder(const std::string& inPath)
{
    int ready[2];
    if (::pipe(ready) != 0)
        return -1;
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        ProductLock lock;
        long owner = 0;
        const char ok = lock.acquire(inPath, owner).isOk() ? '1' : '0';
        ssize_t ignored = ::write(ready[1], &ok, 1);
        (void)ignored;
        for (;;)
            ::pause();
    }
    char ok = '0';
    ssize_t got = ::read(ready[0], &ok, 1);
    ::close(ready[0]);
    ::close(ready[1]);
    return got == 1 && ok == '1' ? pid : -1;
}
}

TEST(ProductLock, ASecondHolderIsRefusedWithTheOwnersIdAndGetsItOnceTheOwnerIsKilled)
{
    const std::string path = lockPath();
    const pid_t child = holder(path);
    ASSERT_GT(child, 0);

    ProductLock second;
    long owner = 0;
    const Status refused = second.acquire(path, owner);
    EXPECT_EQ(EWOULDBLOCK, refused.code) << refused.text;
    EXPECT_EQ(static_cast<long>(child), owner);
    EXPECT_FALSE(second.isHeld());

    // SIGKILL runs no code of ours: the lock must go with the process all the same.
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    const Status taken = second.acquire(path, owner);
    EXPECT_TRUE(taken.isOk()) << taken.text;
    EXPECT_TRUE(second.isHeld());

    // Released, the file goes; the next holder makes a new one.
    second.release();
    struct stat st;
    EXPECT_NE(0, ::stat(path.c_str(), &st));
    ProductLock third;
    EXPECT_TRUE(third.acquire(path, owner).isOk());
}

TEST(ProductLock, AFolderThatCannotHoldTheLockIsReportedWithThePath)
{
    ProductLock lock;
    long owner = 0;
    const Status s = lock.acquire("/nonexistent-folder/App.lock", owner);
    EXPECT_EQ(ENOENT, s.code);
    EXPECT_NE(std::string::npos, s.text.find("/nonexistent-folder/App.lock: No such file or directory")) << s.text;
}
