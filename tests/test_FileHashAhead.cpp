// Hashing ahead of a walk: every digest handed to scanFile's memo belongs to its own file, and a
// file the workers could not hash is left for scanFile to read and report.
#include "Common.h"
#include "FileHashAhead.h"
#include "KsTestSupport.h"
#include "McCoder.h"

#include <QFile>
#include <QTemporaryDir>

#include <random>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
McLib::MD5 md5Of(const QByteArray& inData)
{
    McCoder coder;
    coder.crcMD5Update(reinterpret_cast<const unsigned char*>(inData.constData()),
                       static_cast<unsigned>(inData.size()));
    coder.crcMD5Final();
    McLib::MD5 out;
    coder.crcMD5Query(out.data());
    return out;
}

void writeFile(const QString& inPath, const QByteArray& inData)
{
    QFile f(inPath);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    ASSERT_EQ(inData.size(), f.write(inData));
}
}

TEST(FileHashAhead, EachFileGetsItsOwnDigestWhateverTheOrderOfTheWalk)
{
    QTemporaryDir dir;
    // Sizes around the read buffer's, so that workers finish out of order.
    const int n = 60;
    std::mt19937 rng(7);
    QStringList paths;
    std::vector<QByteArray> contents;
    for (int i = 0; i < n; ++i)
    {
        QByteArray data(static_cast<qsizetype>(i % 7 == 0 ? 1048576 * 2 + i : (rng() % 5000)), Qt::Uninitialized);
        for (char& c : data)
            c = static_cast<char>(rng());
        paths << dir.filePath(QStringLiteral("f%1").arg(i));
        writeFile(paths.back(), data);
        contents.push_back(data);
    }
    FileHashAhead ahead(paths, 3, 1);
    // The walk asks in its own order and may skip some; each answer is the file's own.
    for (int i = n - 1; i >= 0; --i)
    {
        if (i % 5 == 3)
            continue;
        ahead.record(i);
        EXPECT_EQ(md5Of(contents[static_cast<size_t>(i)]), scanFile(paths[i])) << i;
    }
    ahead.record(-1);
    ahead.record(n);
}

TEST(FileHashAhead, WhatTheWorkersCannotHashIsLeftToScanFile)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("file"), link = dir.filePath("link"), missing = dir.filePath("missing");
    writeFile(file, "the content");
    ASSERT_EQ(0, ::symlink(QFile::encodeName(file).constData(), QFile::encodeName(link).constData()));
    ASSERT_EQ(0, ::mkfifo(QFile::encodeName(dir.filePath("pipe")).constData(), 0600));
    // A pipe is not waited for, a link not followed, a missing file not invented.
    {
        FileHashAhead ahead(QStringList() << dir.filePath("pipe") << link << missing << dir.path(), 2, 1);
        for (int i = 0; i < 4; ++i)
            ahead.record(i);
    }
    QxBase::FileStamp stamp;
    McLib::MD5 md5;
    EXPECT_FALSE(scanFileSilently(link, md5, stamp));
    EXPECT_FALSE(scanFileSilently(missing, md5, stamp));
    EXPECT_FALSE(scanFileSilently(dir.path(), md5, stamp));
    ASSERT_TRUE(scanFileSilently(file, md5, stamp));
    EXPECT_EQ(md5Of("the content"), md5);
    EXPECT_EQ(11, stamp.size);
    // A file rewritten after it was hashed ahead is hashed again: the memo goes by the stamp.
    {
        FileHashAhead ahead(QStringList() << file, 1, 1);
        ahead.record(0);
    }
    writeFile(file, "another content, longer");
    EXPECT_EQ(md5Of("another content, longer"), scanFile(file));
}

TEST(FileHashAhead, WhatTheMemoKnowsIsNotHashedAgain)
{
    QTemporaryDir dir;
    QStringList paths;
    for (int i = 0; i < 4; ++i)
    {
        paths << dir.filePath(QStringLiteral("f%1").arg(i));
        writeFile(paths.back(), QByteArray("content ") + QByteArray::number(i));
    }
    // The memo says something else for two of them: an answer that did not come from hashing.
    const McLib::MD5 told = md5Of("what the run wrote");
    for (int i : {1, 3})
    {
        QxBase::FileStamp stamp;
        ASSERT_TRUE(QxBase::File::stampOf(paths[i], stamp));
        scanFileRemember(paths[i], told, stamp);
    }
    {
        FileHashAhead ahead(paths, 2, 1);
        for (int i = 0; i < 4; ++i)
            ahead.record(i);
    }
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(i % 2 ? told : md5Of(QByteArray("content ") + QByteArray::number(i)), scanFile(paths[i])) << i;
    // With every file known no worker is needed, and no walk waits for one.
    FileHashAhead known(QStringList() << paths[1] << paths[3], 2, 1);
    known.record(0);
    known.record(1);
    EXPECT_EQ(told, scanFile(paths[3]));
}
