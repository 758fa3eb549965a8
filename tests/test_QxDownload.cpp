// Downloads against real servers on 127.0.0.1: nginx for the normal cases and connection reuse,
// the scripted fault server for errors, cut bodies and stalls.
#include "KsTestServers.h"
#include "KsTestSupport.h"
#include "QxDownload.h"

#include <QDir>
#include <QTemporaryDir>

#include <memory>
#include <random>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{
QByteArray bytes(int inSize, unsigned inSeed)
{
    std::mt19937 rng(inSeed);
    QByteArray out(inSize, Qt::Uninitialized);
    for (int i = 0; i < inSize; ++i)
        out[i] = static_cast<char>(rng() & 0xFF);
    return out;
}

class QxDownloadTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // A proxy from the environment would take loopback requests elsewhere.
        for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            qunsetenv(v);
        sWww.reset(new QTemporaryDir);
        for (int i = 0; i < 10; ++i)
            KsTest::writeFile(sWww->filePath(QStringLiteral("f%1").arg(i)), bytes(20000 + i * 1000, i));
        KsTest::writeFile(sWww->filePath(QStringLiteral("half")), bytes(10000, 99));
        KsTest::writeFile(sWww->filePath(QStringLiteral("empty")), QByteArray());
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
        ASSERT_TRUE(sNginx && sNginx->isRunning());
        ASSERT_TRUE(mOut.isValid());
    }
    QString out(const QString& inName) const { return mOut.filePath(inName); }
    QStringList outListing() const
    {
        return QDir(mOut.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    static int fetch(const QString& inUrl, const QString& inDestination, int inLimitMs = 20000, int* outMs = nullptr)
    {
        int ms = inLimitMs;
        const int r = QxDownload::createInstance()->download(inUrl, inDestination, &ms);
        if (outMs)
            *outMs = ms;
        return r;
    }
    static QString lastError() { return QxDownload::createInstance()->lastError(); }

    static std::unique_ptr<QTemporaryDir> sWww;
    static std::unique_ptr<KsTest::NginxServer> sNginx;
    QTemporaryDir mOut;
};
std::unique_ptr<QTemporaryDir> QxDownloadTest::sWww;
std::unique_ptr<KsTest::NginxServer> QxDownloadTest::sNginx;
}

TEST_F(QxDownloadTest, FetchesFilesAndKeepsOneConnectionThroughMissingOnes)
{
    const int logBefore = sNginx->requests().size();
    for (int i = 0; i < 10; ++i)
    {
        const QString name = QStringLiteral("f%1").arg(i);
        int ms = -1;
        ASSERT_EQ(QxDownload::ResultOk, fetch(sNginx->url() + "/" + name, out(name), 20000, &ms)) << lastError().toStdString();
        EXPECT_TRUE(KsTest::readFile(out(name)) == KsTest::readFile(sWww->filePath(name)));
        EXPECT_GE(ms, 0);
        // A missing file in between (as a missing ".lzma" copy is) must not cost the connection.
        EXPECT_EQ(QxDownload::ResultHttpError, fetch(sNginx->url() + "/missing" + name, out("missing" + name)));
        EXPECT_EQ("HTTP 404", lastError().toStdString());
    }
    ASSERT_EQ(QxDownload::ResultOk, fetch(sNginx->url() + "/empty", out("empty")));
    EXPECT_TRUE(QFileInfo(out("empty")).isFile());
    EXPECT_EQ(0, QFileInfo(out("empty")).size());

    const QList<KsTest::NginxServer::Request> log = sNginx->requests(logBefore + 21).mid(logBefore);
    ASSERT_EQ(21, log.size());
    QSet<long long> connections;
    for (const auto& r : log)
        connections.insert(r.connection);
    EXPECT_EQ(1, connections.size()) << "every request should reuse the first connection";
    EXPECT_EQ(21, log.last().number);
    // Failed downloads leave nothing, not even a temporary file.
    QStringList expected{"empty"};
    for (int i = 0; i < 10; ++i)
        expected << QStringLiteral("f%1").arg(i);
    expected.sort();
    EXPECT_EQ(expected, outListing());
}

TEST_F(QxDownloadTest, HttpErrorsFailWithTheirStatusAndKeepAnExistingDestination)
{
    KsTest::FaultServer server(sWww->path(), {"/f1=status:500", "/f2=status:403"});
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    const struct
    {
        const char* path;
        const char* error;
    } cases[] = {{"/f1", "HTTP 500"}, {"/f2", "HTTP 403"}, {"/nothing", "HTTP 404"}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.path);
        KsTest::writeFile(out("dst"), "previous content");
        EXPECT_EQ(QxDownload::ResultHttpError, fetch(server.url() + c.path, out("dst")));
        EXPECT_EQ(c.error, lastError().toStdString());
        EXPECT_EQ(QByteArray("previous content"), KsTest::readFile(out("dst")));
        EXPECT_EQ(QStringList({"dst"}), outListing());
    }
}

TEST_F(QxDownloadTest, CutBodyFailsAndWritesNothing)
{
    KsTest::FaultServer server(sWww->path(), {"/f3=truncate"});
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    EXPECT_EQ(QxDownload::ResultFailed, fetch(server.url() + "/f3", out("f3")));
    // f3 has 23000 bytes; the server sent half of them.
    EXPECT_EQ("transfer closed with 11500 bytes remaining to read", lastError().toStdString());
    EXPECT_TRUE(outListing().isEmpty());
}

TEST_F(QxDownloadTest, StallReportsTimeoutAndKeepsWhatArrived)
{
    KsTest::FaultServer server(sWww->path(), {"/half=stall:4000", "/f4=stall-complete"});
    ASSERT_TRUE(server.start()) << server.error().toStdString();
    int ms = 0;
    EXPECT_EQ(QxDownload::ResultTimeout, fetch(server.url() + "/half", out("half"), 1500, &ms));
    EXPECT_EQ(0u, lastError().toStdString().rfind("Operation timed out after ", 0)) << lastError().toStdString();
    EXPECT_NE(std::string::npos, lastError().toStdString().find(" with 4000 out of 10000 bytes received"))
        << lastError().toStdString();
    // The time taken is reported back, and it cannot be less than the limit that ran out.
    EXPECT_GE(ms, 1500);
    EXPECT_TRUE(KsTest::readFile(out("half")) == KsTest::readFile(sWww->filePath("half")).left(4000));

    // Every byte arrived, the end of the answer never did.
    EXPECT_EQ(QxDownload::ResultTimeout, fetch(server.url() + "/f4", out("f4"), 1500));
    EXPECT_TRUE(KsTest::readFile(out("f4")) == KsTest::readFile(sWww->filePath("f4")));
    EXPECT_EQ(QStringList({"f4", "half"}), outListing());
}
