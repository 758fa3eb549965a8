// The free-space reserve: how often it looks at the file system, and that a refusal is never
// taken for room.
#include "QxDiskReserve.h"

#include <gtest/gtest.h>

#include <QTemporaryFile>

using QxBase::DiskReserve;

TEST(QxDiskReserve, LooksOncePerIntervalOverAllWritersAndAfterEveryRefusal)
{
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    const int fd = file.handle();
    const long long interval = DiskReserve::checkInterval();
    QString why;

    // More than any disk holds: every look refuses, and a refusal is not remembered as room.
    const DiskReserve never(1ll << 62, 0);
    EXPECT_FALSE(never.checkBefore(fd, 1, why));
    EXPECT_TRUE(why.startsWith(QStringLiteral("No space left on device ("))) << why.toStdString();
    why.clear();
    EXPECT_FALSE(never.checkBefore(fd, 1, why));
    EXPECT_FALSE(why.isEmpty());

    // A descriptor whose file system cannot tell its space passes a look; the next writes,
    // whoever makes them, are not looked at again until an interval's bytes went through.
    const DiskReserve reserve(1ll << 62, 0);
    why.clear();
    EXPECT_TRUE(reserve.checkBefore(-1, 4096, why));
    EXPECT_TRUE(reserve.checkBefore(fd, 4096, why)) << "looked again before an interval was written";
    EXPECT_TRUE(reserve.checkBefore(fd, interval - 3 * 4096, why));
    EXPECT_TRUE(why.isEmpty());
    EXPECT_FALSE(reserve.checkBefore(fd, 4096, why)) << "an interval was written without a look";
    EXPECT_FALSE(why.isEmpty());
    why.clear();
    EXPECT_FALSE(reserve.checkBefore(fd, 1, why)) << "after a refusal every write looks";
}

TEST(QxDiskReserve, TheReserveIsTheLargerOfItsAmountAndItsShare)
{
    const DiskReserve reserve(1ll << 30, 5);
    EXPECT_EQ(1ll << 30, reserve.bytesFor(10ll << 30));
    EXPECT_EQ(100ll << 30, reserve.bytesFor(2000ll << 30));
}
