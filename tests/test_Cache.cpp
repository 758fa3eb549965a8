// The content cache: item rules, pre-caching from files, folders and resources, and retrieval
// over HTTP from nginx (normal cases, ".lzma" first, connection reuse) and from the scripted
// fault server (every fault leaves no item and a message that says why).
#include "Cache.h"
#include "Common.h"
#include "KsTestServers.h"
#include "KsTestSupport.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <memory>
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

// ---------------------------------------------------------------- items and URLs

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
    EXPECT_EQ(QStringLiteral("QFile::copy(\"%1\", \"%2\")\nfailed to read '%1'")
                  .arg(item, work("out/other"))
                  .toStdString(),
              r.text());
    EXPECT_STREQ("cond[b]", r.condition());
    EXPECT_EQ(QStringList({"target"}), listing(work("out")));
}

// ---------------------------------------------------------------- pre-caching

// ---------------------------------------------------------------- HTTP from nginx

namespace
{
// One nginx for the suite, serving a folder each test publishes its own items to.
class CacheHttpTest : public CacheTest
{
protected:
    static void SetUpTestSuite()
    {
        for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            qunsetenv(v);
        sWww.reset(new QTemporaryDir);
        sNginx.reset(new KsTest::NginxServer(sWww->path()));
        if (!sNginx->start())
            FAIL() << sNginx->error().toStdString();
    }
    static void TearDownTestSuite()
    {
        sNginx.reset();
        sWww.reset();
    }
    void SetUp() override
    {
        CacheTest::SetUp();
        ASSERT_TRUE(sNginx && sNginx->isRunning());
        mLogStart = sNginx->requests().size();
    }
    // Publishes a content under sub-folder inBase: plain, ".lzma" or both.
    static void publish(const QString& inBase, const QByteArray& inContent, bool inPlain, bool inLzma)
    {
        const QString path = sWww->filePath(inBase + "/" + hexOf(inContent));
        KsTest::writeFile(path + ".src", inContent);
        if (inPlain)
        {
            ASSERT_TRUE(QFile::copy(path + ".src", path));
        }
        if (inLzma)
        {
            ASSERT_TRUE(fileCompress(path + ".lzma", path + ".src").isOk());
        }
        QFile::remove(path + ".src");
    }
    static QString base(const QString& inBase) { return sNginx->url() + "/" + inBase; }
    // "path status" of this test's requests; waits for inExpected of them to be logged.
    QStringList requestsSinceStart(int inExpected = 0) const
    {
        QStringList out;
        for (const auto& r : sNginx->requests(mLogStart + inExpected).mid(mLogStart))
            out << QStringLiteral("%1 %2").arg(r.path).arg(r.status);
        return out;
    }
    int connectionsSinceStart() const
    {
        QSet<long long> seen;
        for (const auto& r : sNginx->requests().mid(mLogStart))
            seen.insert(r.connection);
        return seen.size();
    }

    static std::unique_ptr<QTemporaryDir> sWww;
    static std::unique_ptr<KsTest::NginxServer> sNginx;
    int mLogStart = 0;
};
std::unique_ptr<QTemporaryDir> CacheHttpTest::sWww;
std::unique_ptr<KsTest::NginxServer> CacheHttpTest::sNginx;
}

TEST_F(CacheHttpTest, TheLzmaCopyIsPreferredAndThePlainFileThenNeverAsked)
{
    const QByteArray text = QByteArray("compressible item\n").repeated(3000);
    const QByteArray other = content(30000, 7);
    publish("both", text, true, true);
    publish("both", other, false, true);
    cache().httpUrlAdd(base("both"));
    ASSERT_TRUE(cache().retrieve(idOf(text)).isOk());
    ASSERT_TRUE(cache().retrieve(idOf(other)).isOk());
    EXPECT_TRUE(KsTest::readFile(itemPath(text)) == text);
    EXPECT_TRUE(KsTest::readFile(itemPath(other)) == other);
    EXPECT_EQ(QStringList({"/both/" + hexOf(text) + ".lzma 200", "/both/" + hexOf(other) + ".lzma 200"}),
              requestsSinceStart(2));
    QStringList names{hexOf(text), hexOf(other)};
    names.sort();
    EXPECT_EQ(names, listing(cacheDir()));
}

TEST_F(CacheHttpTest, BaseUrlsAreTriedInOrderUntilOneHasTheItem)
{
    const QByteArray c = content(2000, 4);
    publish("second", c, true, false);
    const QString dead = QStringLiteral("http://127.0.0.1:9/items");  // the discard port: nothing listens
    cache().httpUrlAdd(dead);
    cache().httpUrlAdd(base("first"));
    cache().httpUrlAdd(base("second") + "/");  // a trailing slash is tolerated
    ASSERT_TRUE(cache().retrieve(idOf(c)).isOk());
    EXPECT_TRUE(KsTest::readFile(itemPath(c)) == c);
    const QString h = hexOf(c);
    EXPECT_EQ(QStringList({"/first/" + h + ".lzma 404", "/first/" + h + " 404", "/second/" + h + ".lzma 404",
                           "/second/" + h + " 200"}),
              requestsSinceStart(4));

    // When none has it, each base URL's reason is in the message.
    const BufferID missing = idOf("nowhere");
    const QString m = missing.toString();
    cache().httpUrlClearAll();
    cache().httpUrlAdd(base("first"));
    cache().httpUrlAdd(base("second"));
    KsTest::FailureRecorder failures;
    const McResult r = cache().retrieve(missing);
    ASSERT_TRUE(r.isBad());
    EXPECT_EQ(QStringLiteral("item %1 could not be fetched from %2, %3 (Failed to download %2/%1: HTTP 404; "
                             "Failed to download %3/%1: HTTP 404)")
                  .arg(m, base("first"), base("second"))
                  .toStdString(),
              r.text());
    EXPECT_TRUE(failures.hasMessage(QStringLiteral("Failed to download %1/%2: HTTP 404").arg(base("first"), m).toStdString()));
    EXPECT_TRUE(failures.hasCondition("cond[download]"));
    EXPECT_FALSE(cache().itemIsCached(missing));
}

// ---------------------------------------------------------------- faults

namespace
{
// The fault server with a short download time limit, so that stalls end quickly.
class CacheFaultTest : public CacheTest
{
protected:
    void SetUp() override
    {
        CacheTest::SetUp();
        for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            qunsetenv(v);
        qputenv("KSDEPLOY_DOWNLOAD_TIMEOUT_MS", "1500");
        ASSERT_TRUE(mWww.isValid());
    }
    void TearDown() override
    {
        qunsetenv("KSDEPLOY_DOWNLOAD_TIMEOUT_MS");
        CacheTest::TearDown();
    }
    // Writes an item's plain file and ".lzma" copy into the served folder.
    QString put(const QByteArray& inContent, bool inPlain = true, bool inLzma = false)
    {
        const QString h = hexOf(inContent);
        KsTest::writeFile(mWww.filePath(h), inContent);
        if (inLzma)
        {
            EXPECT_TRUE(fileCompress(mWww.filePath(h + ".lzma"), mWww.filePath(h)).isOk());
        }
        if (!inPlain)
            QFile::remove(mWww.filePath(h));
        return h;
    }
    QTemporaryDir mWww;
};
}

TEST_F(CacheFaultTest, EveryServerFaultLeavesNoItemAndSaysWhy)
{
    // One content per fault; a 23000-byte content is cut at 11500 bytes by "truncate" and "stall".
    const QByteArray c404 = content(23000, 11), c500 = content(23000, 12), cCut = content(23000, 13),
                     cWrong = content(23000, 14), cCorrupt = content(23000, 15), cLzmaWrong = content(23000, 16),
                     cStall = content(23000, 17), cLzmaStall = content(23000, 18);
    const QString h404 = hexOf(c404);
    const QString h500 = put(c500), hCut = put(cCut), hWrong = put(cWrong), hCorrupt = put(cCorrupt, false, true),
                  hLzmaWrong = put(cLzmaWrong, false, true), hStall = put(cStall),
                  hLzmaStall = put(cLzmaStall, false, true);
    KsTest::FaultServer server(mWww.path(), {"/" + h500 + "=status:500", "/" + hCut + "=truncate",
                                             "/" + hWrong + "=wrong", "/" + hCorrupt + ".lzma=corrupt-lzma",
                                             "/" + hLzmaWrong + ".lzma=lzma-of-wrong", "/" + hStall + "=stall",
                                             "/" + hLzmaStall + ".lzma=stall"});
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    const QString u = server.url();
    cache().httpUrlAdd(u);

    const struct
    {
        const char* fault;
        QString hex;
        QString why;  // a regular expression for the reason in parentheses
    } cases[] = {
        {"missing", h404, QRegularExpression::escape("Failed to download " + u + "/" + h404 + ": HTTP 404")},
        {"500", h500, QRegularExpression::escape("Failed to download " + u + "/" + h500 + ": HTTP 500")},
        {"cut", hCut,
         QRegularExpression::escape("Failed to download " + u + "/" + hCut +
                                    ": transfer closed with 11500 bytes remaining to read")},
        {"wrong bytes", hWrong, QRegularExpression::escape(u + "/" + hWrong + ": the content does not match its digest")},
        {"corrupt .lzma", hCorrupt,
         QRegularExpression::escape("Failed to download " + u + "/" + hCorrupt + ": HTTP 404; " + u + "/" + hCorrupt +
                                    ".lzma: lzma decompression: corrupt data")},
        {".lzma of other bytes", hLzmaWrong,
         QRegularExpression::escape(u + "/" + hLzmaWrong + ": the content does not match its digest")},
        {"stall", hStall,
         QRegularExpression::escape(u + "/" + hStall + ": the content does not match its digest (") +
             "Operation timed out after \\d+ milliseconds with 11500 out of 23000 bytes received\\)"},
        {"stalled .lzma", hLzmaStall,
         QRegularExpression::escape("Failed to download " + u + "/" + hLzmaStall + ": HTTP 404; " + u + "/" +
                                    hLzmaStall + ".lzma: lzma decompression: truncated data")},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.fault);
        KsTest::FailureRecorder failures;
        KsTest::LogRecorder log;
        const McResult r = cache().retrieve(BufferID::fromString(c.hex));
        ASSERT_TRUE(r.isBad());
        const QString expected = "^" + QRegularExpression::escape("item " + c.hex + " could not be fetched from " + u) +
                                 " \\(" + c.why + "\\)$";
        EXPECT_TRUE(QRegularExpression(expected).match(QString::fromLatin1(r.text())).hasMatch())
            << r.text() << "\n  expected: " << expected.toStdString();
        EXPECT_STREQ("cond[itemIsCached(inBufferId)]", r.condition());
        EXPECT_FALSE(cache().itemIsCached(BufferID::fromString(c.hex)));
        EXPECT_TRUE(listing(cacheDir()).isEmpty()) << listing(cacheDir()).join(' ').toStdString();
        // A failed download is also traced as a failure.
        bool tracedFailure = false;
        for (const auto& l : log.lines())
            tracedFailure = tracedFailure || (l.level == McLogLevelError &&
                                              l.text == ("Failed to download " + u + "/" + c.hex).toStdString());
        EXPECT_EQ(c.why.startsWith("Failed"), tracedFailure);
    }
}

TEST_F(CacheFaultTest, ABadLzmaCopyFallsBackToThePlainFile)
{
    const QByteArray cCorrupt = content(20000, 21), c500 = content(20000, 22), cCut = content(20000, 23);
    const QString hCorrupt = put(cCorrupt, true, true), h500 = put(c500, true, true), hCut = put(cCut, true, true);
    KsTest::FaultServer server(mWww.path(), {"/" + hCorrupt + ".lzma=corrupt-lzma", "/" + h500 + ".lzma=status:500",
                                             "/" + hCut + ".lzma=truncate"});
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    cache().httpUrlAdd(server.url());
    for (const QByteArray& c : {cCorrupt, c500, cCut})
    {
        ASSERT_TRUE(cache().retrieve(idOf(c)).isOk());
        EXPECT_TRUE(KsTest::readFile(itemPath(c)) == c);
    }
    EXPECT_EQ(QStringList({"GET /" + hCorrupt + ".lzma 200 corrupt-lzma", "GET /" + hCorrupt + " 200 -",
                           "GET /" + h500 + ".lzma 500 status:500", "GET /" + h500 + " 200 -",
                           "GET /" + hCut + ".lzma 200 truncate", "GET /" + hCut + " 200 -"}),
              server.requests());
    QStringList names{hCorrupt, h500, hCut};
    names.sort();
    EXPECT_EQ(names, listing(cacheDir()));
}
