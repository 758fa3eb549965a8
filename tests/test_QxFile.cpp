// File helpers on real folders: removal with include and exclude patterns (never through a
// link), whole writes, identity of paths, links and copies that replace their target in one step.
#include "KsTestSupport.h"
#include "QxFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using QxBase::File;

namespace
{
class QxFileTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(mDir.isValid()); }
    QString path(const QString& inName) const { return mDir.filePath(inName); }
    static QStringList tree(const QString& inRoot)
    {
        QStringList out;
        QDir dir(inRoot);
        for (const QFileInfo& fi :
             dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name))
        {
            out << fi.fileName();
            if (fi.isDir() && !fi.isSymLink())
                for (const QString& sub : tree(fi.absoluteFilePath()))
                    out << fi.fileName() + "/" + sub;
        }
        return out;
    }
    static ino_t inode(const QString& inPath)
    {
        struct stat st;
        return ::stat(QFile::encodeName(inPath).constData(), &st) == 0 ? st.st_ino : 0;
    }

    QTemporaryDir mDir;
};
}

TEST_F(QxFileTest, RemoveFileTakesFilesAndLinksButNotFolders)
{
    EXPECT_TRUE(File::removeFile(path("missing")).isOk());
    KsTest::writeFile(path("f"), "x");
    EXPECT_TRUE(File::removeFile(path("f")).isOk());
    EXPECT_FALSE(QFileInfo::exists(path("f")));

    QDir().mkpath(path("folder/inner"));
    KsTest::writeFile(path("folder/inner/keep"), "x");
    KsTest::FailureRecorder failures;
    const McResult r = File::removeFile(path("folder"));
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("'%1' is a directory, not a file").arg(path("folder")).toStdString(), r.text());

    // Links go, what they point to stays; a dangling link goes too.
    ASSERT_TRUE(QFile::link(path("folder"), path("dirlink")));
    ASSERT_TRUE(QFile::link(path("nowhere"), path("dangling")));
    EXPECT_TRUE(File::removeFile(path("dirlink")).isOk());
    EXPECT_TRUE(File::removeFile(path("dangling")).isOk());
    EXPECT_EQ(QStringList({"folder", "folder/inner", "folder/inner/keep"}), tree(mDir.path()));
}

TEST_F(QxFileTest, RemoveDirHonoursPatternsAndNeverFollowsLinks)
{
    const QString root = path("root");
    for (const char* f : {"a.log", "b.txt", "keep.log", "sub/c.log", "sub/d.txt", "only/e.log", ".hidden.log"})
        KsTest::writeFile(root + "/" + f, f);
    KsTest::writeFile(path("outside/x.log"), "x");
    ASSERT_TRUE(QFile::link(path("outside"), root + "/linked"));

    ASSERT_TRUE(File::removeDir(root, true, {"*.log"}, {"keep*"}).isOk());
    // Emptied folders go, folders with kept files stay; the link's folder is never entered.
    EXPECT_EQ(QStringList({"b.txt", "keep.log", "linked", "sub", "sub/d.txt"}), tree(root));
    EXPECT_TRUE(QFileInfo::exists(path("outside/x.log")));

    // Without recursion the sub-folder and thus the folder itself stay.
    ASSERT_TRUE(File::removeDir(root, false, {}, {}).isOk());
    EXPECT_EQ(QStringList({"sub", "sub/d.txt"}), tree(root));

    ASSERT_TRUE(File::removeDir(root, true, {}, {}).isOk());
    EXPECT_FALSE(QFileInfo::exists(root));
    EXPECT_EQ(QStringList({"outside", "outside/x.log"}), tree(mDir.path()));
    EXPECT_TRUE(File::removeDir(root, true, {}, {}).isOk());  // already gone: nothing to do
}

TEST_F(QxFileTest, WriteAllReportsAFullDevice)
{
    const QByteArray data(3 << 20, 'z');
    QFile full(QStringLiteral("/dev/full"));
    if (!full.open(QIODevice::WriteOnly))
        GTEST_SKIP() << "/dev/full is not available";
    KsTest::FailureRecorder failures;
    const McResult r = File::writeAll(full, data);
    ASSERT_TRUE(r.isBad());
    EXPECT_STREQ("failed to write '/dev/full': No space left on device", r.text());
}

TEST_F(QxFileTest, PathsPointToTheSameFile)
{
    KsTest::writeFile(path("d/a"), "same");
    KsTest::writeFile(path("d/b"), "same");
    ASSERT_EQ(0, ::link(QFile::encodeName(path("d/a")).constData(), QFile::encodeName(path("hard")).constData()));
    ASSERT_TRUE(QFile::link(path("d/a"), path("soft")));
    EXPECT_TRUE(File::pathsPointToTheSameFile(path("d/a"), path("hard")));
    EXPECT_TRUE(File::pathsPointToTheSameFile(path("soft"), path("d/a")));
    EXPECT_FALSE(File::pathsPointToTheSameFile(path("d/a"), path("d/b")));  // equal content is not enough
    // Paths that do not exist compare by their cleaned absolute form.
    EXPECT_TRUE(File::pathsPointToTheSameFile(path("x/../y"), path("y")));
    EXPECT_FALSE(File::pathsPointToTheSameFile(path("d/a"), path("d/a-missing")));
}

TEST_F(QxFileTest, JunctionIsALinkThatNeverReplacesAnything)
{
    QDir().mkpath(path("target"));
    KsTest::writeFile(path("target/f"), "f");
    ASSERT_TRUE(File::junctionCreate(path("j"), path("target")).isOk());
    EXPECT_EQ(path("target"), QFileInfo(path("j")).symLinkTarget());
    EXPECT_TRUE(KsTest::readFile(path("j/f")) == "f");

    KsTest::FailureRecorder failures;
    McResult r = File::junctionCreate(path("j"), path("target"));
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("'%1' already exists; a link is never put over it").arg(path("j")).toStdString(),
              r.text());
    r = File::junctionCreate(path("j2"), path("target/f"));
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("link target '%1' is not a directory").arg(path("target/f")).toStdString(), r.text());
    EXPECT_FALSE(QFileInfo(path("j2")).isSymLink());
}

TEST_F(QxFileTest, CopyReplaceSwapsTheTargetInOneStep)
{
    QByteArray big(3 * 1048576 + 17, Qt::Uninitialized);
    for (int i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>((i * 131) >> 3);
    KsTest::writeFile(path("src"), big);
    ASSERT_TRUE(QFile::setPermissions(path("src"), QFile::permissions(path("src")) | QFile::ExeOwner));
    KsTest::writeFile(path("dst"), "old content");

    // A reader that had the old target open keeps reading the old bytes.
    QFile reader(path("dst"));
    ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
    const ino_t before = inode(path("dst"));
    ASSERT_TRUE(File::copyReplace(path("src"), path("dst")).isOk());
    EXPECT_NE(before, inode(path("dst")));
    EXPECT_TRUE(KsTest::readFile(path("dst")) == big);
    EXPECT_TRUE(QFile::permissions(path("dst")) & QFile::ExeOwner);
    EXPECT_EQ(QByteArray("old content"), reader.readAll());

    KsTest::FailureRecorder failures;
    McResult r = File::copyReplace(path("missing"), path("dst"));
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("failed to read '%1'").arg(path("missing")).toStdString(), r.text());
    r = File::copyReplace(path("src"), path("no/folder/dst"));
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("failed to write '%1'").arg(path("no/folder/dst")).toStdString(), r.text());
    EXPECT_TRUE(KsTest::readFile(path("dst")) == big);
    EXPECT_EQ(QStringList({"dst", "src"}), tree(mDir.path()));
}

TEST_F(QxFileTest, CopyCreateWritesOnlyWhereNothingIsAndLeavesNothingWhenItFails)
{
    QByteArray big(2 * 1048576 + 5, Qt::Uninitialized);
    for (int i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>((i * 7) >> 2);
    KsTest::writeFile(path("small"), "tiny");
    KsTest::writeFile(path("big"), big);
    for (const QString& name : {QStringLiteral("small"), QStringLiteral("big")})
    {
        bool existed = true;
        QxBase::FileStamp stamp, onDisk;
        ASSERT_TRUE(File::copyCreate(path(name), path(name + ".copy"), existed, &stamp).isOk());
        EXPECT_FALSE(existed);
        EXPECT_TRUE(KsTest::readFile(path(name + ".copy")) == KsTest::readFile(path(name)));
        // The stamp handed back is the file as it stays on disk.
        ASSERT_TRUE(File::stampOf(path(name + ".copy"), onDisk));
        EXPECT_TRUE(stamp == onDisk);
    }

    // Whatever is already there stays as it was: a file, a folder, a link to nowhere; also in a
    // folder made empty by this process and filled behind its back.
    ASSERT_TRUE(File::makePath(path("made/deeper")));
    for (const QString& at : {QString(), QStringLiteral("made/deeper/")})
    {
        KsTest::writeFile(path(at + "there"), "keep me");
        ASSERT_TRUE(QDir().mkdir(path(at + "folder")));
        ASSERT_EQ(0, ::symlink(QFile::encodeName(path(at + "nowhere")).constData(),
                               QFile::encodeName(path(at + "link")).constData()));
        for (const QString& name : {QStringLiteral("there"), QStringLiteral("folder"), QStringLiteral("link")})
        {
            bool existed = false;
            EXPECT_TRUE(File::copyCreate(path("small"), path(at + name), existed).isOk());
            EXPECT_TRUE(existed) << (at + name).toStdString();
        }
        EXPECT_EQ(QByteArray("keep me"), KsTest::readFile(path(at + "there")));
        EXPECT_FALSE(QFileInfo::exists(path(at + "nowhere")));
    }

    KsTest::FailureRecorder failures;
    bool existed = true;
    McResult r = File::copyCreate(path("missing"), path("new"), existed);
    ASSERT_TRUE(r.isBad());
    EXPECT_FALSE(existed);
    EXPECT_EQ(QStringLiteral("failed to read '%1'").arg(path("missing")).toStdString(), r.text());
    EXPECT_FALSE(QFileInfo::exists(path("new")));
    r = File::copyCreate(path("small"), path("no/folder/new"), existed);
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("failed to write '%1'").arg(path("no/folder/new")).toStdString(), r.text());
    EXPECT_EQ(QStringList({"big", "big.copy", "folder", "link", "made", "made/deeper", "made/deeper/folder",
                           "made/deeper/link", "made/deeper/there", "small", "small.copy", "there"}),
              tree(mDir.path()));
}

TEST_F(QxFileTest, LinkNamelessNamesAFileOnlyOnceAndReplacesOnlyWhenAsked)
{
    auto nameless = [this](const QByteArray& inBytes) {
        const int fd = ::open(QFile::encodeName(mDir.path()).constData(), O_TMPFILE | O_WRONLY, 0644);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(static_cast<ssize_t>(inBytes.size()), ::write(fd, inBytes.constData(), inBytes.size()));
        return fd;
    };
    ASSERT_TRUE(File::linkNameless(nameless("first"), path("item"), false));
    EXPECT_EQ(QByteArray("first"), KsTest::readFile(path("item")));

    errno = 0;
    EXPECT_FALSE(File::linkNameless(nameless("second"), path("item"), false));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ(QByteArray("first"), KsTest::readFile(path("item")));

    ASSERT_TRUE(File::linkNameless(nameless("third"), path("item"), true));
    EXPECT_EQ(QByteArray("third"), KsTest::readFile(path("item")));
    // No second name is left behind, and a file never named is gone with its descriptor.
    EXPECT_EQ(QStringList({"item"}), tree(mDir.path()));
}

TEST_F(QxFileTest, MakePathNamesWhatStoodInTheWay)
{
    QFile blocker(path("file"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    QString failed;
    errno = 0;
    EXPECT_FALSE(File::makePath(path("file/sub/deeper"), &failed));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(path("file"), failed) << "the file in the way, not the folder that could not be looked at";
    errno = 0;
    EXPECT_FALSE(File::makePath(path("file"), &failed));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(path("file"), failed);

    // A folder that may not be written: the folder that could not be made is named.
    ASSERT_TRUE(QDir().mkpath(path("closed")));
    ASSERT_EQ(0, ::chmod(QFile::encodeName(path("closed")).constData(), 0500));
    const bool bites = ::access(QFile::encodeName(path("closed")).constData(), W_OK) != 0;
    if (bites)
    {
        EXPECT_FALSE(File::makePath(path("closed/a/b"), &failed));
        EXPECT_EQ(EACCES, errno);
        EXPECT_EQ(path("closed/a"), failed);
    }
    ::chmod(QFile::encodeName(path("closed")).constData(), 0700);
    EXPECT_TRUE(File::makePath(path("closed/a/b"), &failed));
}
