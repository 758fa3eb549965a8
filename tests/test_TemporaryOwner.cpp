// Whether the writer of a temporary file may still be at work: a living writer is never taken
// for gone, a dead one or one whose id a later process took over is.
#include "TemporaryOwner.h"

#include <gtest/gtest.h>

#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsPlatform;

TEST(TemporaryOwnerTest, ALivingWriterIsNeverGone)
{
    const std::time_t now = std::time(nullptr);
    EXPECT_EQ(static_cast<long>(::getpid()), TemporaryOwner::self());
    EXPECT_FALSE(TemporaryOwner::isGone(TemporaryOwner::self(), now));
    // Another user's process (the system's first one here, or one we may not signal) runs too.
    EXPECT_FALSE(TemporaryOwner::isGone(1, now));
    // Not a process id at all: nothing is said to be gone.
    EXPECT_FALSE(TemporaryOwner::isGone(0, now));
}

TEST(TemporaryOwnerTest, ADeadWriterOrOneWhoseIdWasTakenOverIsGone)
{
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        ::_exit(0);
    const std::time_t written = std::time(nullptr);
    // Ended but not yet waited for: only its remains.
    siginfo_t info{};
    ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
    EXPECT_TRUE(TemporaryOwner::isGone(child, written));
    int status = 0;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_TRUE(TemporaryOwner::isGone(child, written));
    // A file last written long before this process started was written by another one with our id.
    EXPECT_TRUE(TemporaryOwner::isGone(TemporaryOwner::self(), written - 365 * 24 * 3600));
}
