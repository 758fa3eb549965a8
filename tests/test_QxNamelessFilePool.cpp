// Files made ahead without a name: each one handed out is a new writable file of the pool's
// folder that gets its name only when linked, and none is left behind by the pool.
#include "KsTestSupport.h"
#include "QxFile.h"
#include "QxNamelessFilePool.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <set>
#include <unistd.h>
#include <vector>

using QxBase::File;
using QxBase::NamelessFilePool;

namespace
{
int openDescriptors() { return static_cast<int>(QDir("/proc/self/fd").entryList(QDir::Files | QDir::System).size()); }

// The pool fills on its own thread: the first file may take a moment.
int takeSoon(NamelessFilePool& inPool)
{
    for (int i = 0; i < 500; ++i)
    {
        const int fd = inPool.take();
        if (fd >= 0)
            return fd;
        QThread::msleep(2);
    }
    return -1;
}
}

TEST(QxNamelessFilePool, HandsOutNewFilesThatAreNamedOnlyWhenLinked)
{
    QTemporaryDir dir;
    const int before = openDescriptors();
    {
        NamelessFilePool pool(dir.path(), 4);
        // Taken all at once, so that no inode is freed and used again meanwhile.
        std::vector<int> fds;
        std::set<ino_t> inodes;
        for (int i = 0; i < 10; ++i)
        {
            fds.push_back(takeSoon(pool));
            ASSERT_GE(fds.back(), 0) << i;
            struct stat st;
            ASSERT_EQ(0, ::fstat(fds.back(), &st));
            EXPECT_TRUE(inodes.insert(st.st_ino).second) << "a file handed out twice";
            EXPECT_EQ(0, st.st_size);
        }
        for (int i = 0; i < 10; ++i)
        {
            const QByteArray text = "file " + QByteArray::number(i);
            ASSERT_EQ(text.size(), ::write(fds[i], text.constData(), static_cast<size_t>(text.size())));
            // Only the even ones are kept: the odd ones vanish with their descriptor.
            if (i % 2 == 0)
                ASSERT_TRUE(File::linkNameless(fds[i], dir.filePath(QStringLiteral("f%1").arg(i)), false));
            else
                ::close(fds[i]);
        }
        EXPECT_EQ(QStringList({"f0", "f2", "f4", "f6", "f8"}),
                  QDir(dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::System, QDir::Name));
        QFile f(dir.filePath("f4"));
        ASSERT_TRUE(f.open(QIODevice::ReadOnly));
        EXPECT_EQ("file 4", f.readAll());
    }
    // The files made ahead and never taken were closed with the pool, and left no name.
    EXPECT_EQ(before, openDescriptors());
    EXPECT_EQ(5, QDir(dir.path()).entryList(QDir::Files | QDir::Hidden | QDir::System).size());
}

TEST(QxNamelessFilePool, AFolderThatCannotHaveFilesHandsOutNone)
{
    QTemporaryDir dir;
    NamelessFilePool missing(dir.filePath("missing"), 4);
    QThread::msleep(50);
    EXPECT_EQ(-1, missing.take());
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("missing")));
}
