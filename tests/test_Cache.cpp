// Writing cached items onto targets: content already right stays, other content is replaced only
// when allowed, and a missing item writes nothing.
#include "Cache.h"
#include "Common.h"
#include "KsTestSupport.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <random>
#include <sys/stat.h>

using namespace KsDeploy;

namespace
{
QByteArray content(int inSize, unsigned inSeed)
{
    std::mt19937 rng(inSeed);
    QByteArray out(inSize, Qt::Uninitialized);
    for (int i = 0; i < inSize; ++i)
        out[i] = static_cast<char>(rng() & 0xFF);
    return out;
}

BufferID idOf(const QByteArray& inContent)
{
    McCoder coder;
    coder.crcMD5Update(reinterpret_cast<const unsigned char*>(inContent.constData()),
                       static_cast<unsigned int>(inContent.size()));
    coder.crcMD5Final();
    McLib::MD5 md5;
    coder.crcMD5Query(md5.data());
    return BufferID(md5);
}

QString hexOf(const QByteArray& inContent) { return idOf(inContent).toString(); }

ino_t inodeOf(const QString& inPath)
{
    struct stat st;
    return ::stat(QFile::encodeName(inPath).constData(), &st) == 0 ? st.st_ino : 0;
}

QStringList listing(const QString& inDir)
{
    return QDir(inDir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

class CacheTest : public KsTest::EngineTest
{
protected:
    void SetUp() override
    {
        KsTest::EngineTest::SetUp();
        ASSERT_TRUE(mCacheDir.isValid() && mWork.isValid());
        Engine::instance().pathToCacheSet(mCacheDir.path());
    }
    Cache& cache() { return Engine::instance().cache(); }
    QString cacheDir() const { return mCacheDir.path(); }
    QString itemPath(const QByteArray& inContent) const { return mCacheDir.filePath(hexOf(inContent)); }
    QString work(const QString& inName) const { return mWork.filePath(inName); }

    QTemporaryDir mCacheDir;
    QTemporaryDir mWork;
};
}

TEST_F(CacheTest, WriteToFileRules)
{
    const QByteArray a = content(5000, 1), b = content(5000, 2);
    KsTest::writeFile(work("src"), a);
    ASSERT_TRUE(cache().retrieveFromFile(work("src"), false).isOk());
    const BufferID id = idOf(a);
    const QString target = work("out/target");
    QDir().mkpath(work("out"));

    // Absent target: written.
    ASSERT_TRUE(cache().itemWriteToFile(id, target, false).isOk());
    EXPECT_TRUE(KsTest::readFile(target) == a);
    // Already right: left as it is (the same file, not a fresh copy).
    const ino_t before = inodeOf(target);
    EXPECT_TRUE(cache().itemWriteToFile(id, target, false).isOk());
    EXPECT_EQ(before, inodeOf(target));

    // Different content without permission to overwrite: refused, untouched.
    KsTest::FailureRecorder failures;
    KsTest::writeFile(target, b);
    McResult r = cache().itemWriteToFile(id, target, false);
    ASSERT_TRUE(r.isBad());
    EXPECT_STREQ("a different file already exists", r.text());
    EXPECT_STREQ("cond[md5==inBufferId.md5()]", r.condition());
    EXPECT_TRUE(KsTest::readFile(target) == b);
    // With permission: replaced.
    ASSERT_TRUE(cache().itemWriteToFile(id, target, true).isOk());
    EXPECT_TRUE(KsTest::readFile(target) == a);

    // An item that is not cached cannot be written; the copy's reason comes second.
    const BufferID missing = idOf("not cached");
    const QString item = cacheDir() + "/" + missing.toString();
    r = cache().itemWriteToFile(missing, work("out/other"), true);
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(
        QStringLiteral("QFile::copy(\"%1\", \"%2\")\nfailed to read '%1'").arg(item, work("out/other")).toStdString(),
        r.text());
    EXPECT_STREQ("cond[b]", r.condition());
    EXPECT_EQ(QStringList({"target"}), listing(work("out")));
}

TEST_F(CacheTest, TheCacheKeepsItsFolderAndFindsItAgainOnceEmptied)
{
    KsTest::ContractRecorder contracts;
    const QByteArray a = content(100, 3);
    KsTest::writeFile(work("src"), a);

    // The folder set is the engine's and the cache's; another set later is taken at once.
    QString dir;
    ASSERT_TRUE(cache().path(dir).isOk());
    EXPECT_EQ(cacheDir(), dir);
    Engine::instance().pathToCacheSet(work("other/cache"));
    ASSERT_TRUE(Engine::instance().pathToCache(dir).isOk());
    EXPECT_EQ(work("other/cache"), dir);
    ASSERT_TRUE(cache().retrieveFromFile(work("src"), false).isOk());
    EXPECT_TRUE(QFileInfo::exists(work("other/cache/") + hexOf(a)));

    // Emptied, the folder is gone; the next item makes it again.
    cache().itemRemoveAll();
    EXPECT_FALSE(QFileInfo::exists(work("other/cache")));
    ASSERT_TRUE(cache().retrieveFromFile(work("src"), false).isOk());
    EXPECT_TRUE(cache().itemIsCached(idOf(a)));

    // Without a folder set, the default one.
    Engine::instance().pathToCacheSet(QString());
    QString maintenance;
    ASSERT_TRUE(Engine::instance().pathOfMaintenanceDir(maintenance).isOk());
    ASSERT_TRUE(cache().path(dir).isOk());
    EXPECT_EQ(maintenance + "/Cache", dir);
    EXPECT_TRUE(contracts.events().empty());
}
