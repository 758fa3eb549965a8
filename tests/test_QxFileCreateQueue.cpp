// The worker threads that create new files: jobs come back in the order they were added, only a
// file that was really created counts as created, and nothing is left half done at the end.
#include "KsTestSupport.h"
#include "QxFileCreateQueue.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using QxBase::File;
using QxBase::FileCreateQueue;

namespace
{
void writeFile(const QString& inPath, const QByteArray& inData)
{
    QFile f(inPath);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    ASSERT_EQ(inData.size(), f.write(inData));
}

QByteArray readFile(const QString& inPath)
{
    QFile f(inPath);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<none>");
}
}

TEST(QxFileCreateQueue, JobsComeBackInOrderAndOnlyNewFilesCountAsCreated)
{
    QTemporaryDir dir;
    const QString source = dir.filePath("source");
    writeFile(source, "content");
    ASSERT_TRUE(File::makePath(dir.filePath("new")));
    writeFile(dir.filePath("old"), "the user's own");

    // Targets in a folder this process made, one where something is already, one from a source
    // that is not there.
    const int n = 40;
    QStringList targets;
    for (int i = 0; i < n; ++i)
        targets << dir.filePath(QStringLiteral("new/f%1").arg(i));
    targets[7] = dir.filePath("old");
    {
        FileCreateQueue queue(3);
        for (int i = 0; i < n; ++i)
            queue.add(i == 11 ? dir.filePath("missing") : source, targets[i], reinterpret_cast<void*>(intptr_t(i)));
        for (int i = 0; i < n; ++i)
        {
            void* tag = nullptr;
            QString target;
            bool created = false;
            QxBase::FileStamp stamp;
            ASSERT_TRUE(queue.next(true, tag, target, created, stamp));
            EXPECT_EQ(i, static_cast<int>(reinterpret_cast<intptr_t>(tag)));
            EXPECT_EQ(targets[i], target);
            EXPECT_EQ(i != 7 && i != 11, created) << i;
            EXPECT_EQ(created ? 7 : -1, stamp.size) << i;
        }
        EXPECT_EQ(0u, queue.backlog());
    }
    EXPECT_EQ("the user's own", readFile(dir.filePath("old")));
    EXPECT_FALSE(QFile::exists(targets[11]));
    EXPECT_EQ("content", readFile(targets[39]));

    // Jobs not taken back are finished before the queue goes.
    {
        FileCreateQueue queue(2);
        for (int i = 0; i < 10; ++i)
            queue.add(source, dir.filePath(QStringLiteral("late%1").arg(i)), nullptr);
    }
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ("content", readFile(dir.filePath(QStringLiteral("late%1").arg(i))));
    EXPECT_EQ(13, QDir(dir.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden).size())
        << "no temporary file is left";
}
