// Copying a file's content by descriptor: every size arrives whole, whichever way the file
// system copies (a reflink, in the kernel, or through a buffer where the kernel cannot).
#include "FileCopy.h"
#include "KsTestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using KsPlatform::FileCopy;

namespace
{
QByteArray randomBytes(qint64 inSize, unsigned inSeed)
{
    std::mt19937 rng(inSeed);
    QByteArray out(inSize, Qt::Uninitialized);
    for (char& c : out)
        c = static_cast<char>(rng());
    return out;
}

// Copies inData from a file in inFrom to a new file in inTo (opened with inFlags), returning
// what the target holds afterwards.
QByteArray copied(const QString& inFrom, const QString& inTo, const QByteArray& inData, int inFlags)
{
    const QByteArray src = QFile::encodeName(inFrom + "/source"), dst = QFile::encodeName(inTo + "/target");
    ::unlink(dst.constData());
    {
        QFile f(QString::fromLocal8Bit(src));
        if (!f.open(QIODevice::WriteOnly) || f.write(inData) != inData.size())
            return "<source not written>";
    }
    const int in = ::open(src.constData(), O_RDONLY);
    const int out = ::open(dst.constData(), O_WRONLY | O_CREAT | O_EXCL | inFlags, 0644);
    struct stat st;
    const bool ok = in >= 0 && out >= 0 && ::fstat(in, &st) == 0 && FileCopy::content(in, st, out);
    ::close(in);
    ::close(out);
    if (!ok)
        return "<copy failed>";
    QFile f(QString::fromLocal8Bit(dst));
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<target not read>");
}
}

TEST(PlatformFileCopy, EverySizeArrivesWhole)
{
    QTemporaryDir dir;
    for (const qint64 size : {0LL, 1LL, 4097LL, 65536LL, 3LL * 1048576 + 17})
    {
        const QByteArray data = randomBytes(size, static_cast<unsigned>(size));
        EXPECT_EQ(data, copied(dir.path(), dir.path(), data, 0)) << size;
    }
}

TEST(PlatformFileCopy, WhereTheKernelCannotCopyABufferDoes)
{
    QTemporaryDir dir;
    // The kernel refuses to copy into a file opened for appending; the buffer's way then runs.
    const QByteArray data = randomBytes(1048576 * 2 + 5, 3);
    EXPECT_EQ(data, copied(dir.path(), dir.path(), data, O_APPEND));
    // Between two file systems (when this machine has a second one at hand).
    QTemporaryDir other(QStringLiteral("/dev/shm/ks-copy-XXXXXX"));
    if (other.isValid())
    {
        EXPECT_EQ(data, copied(other.path(), dir.path(), data, 0));
        EXPECT_EQ(data, copied(dir.path(), other.path(), data, 0));
    }
}
