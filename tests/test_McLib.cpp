// Base library: results, handles, arrays, MD5 and contract reports.
#include "KsTestSupport.h"
#include "mclib.h"
#include <cerrno>

#include <QCryptographicHash>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

namespace
{
struct Counted : McHandable
{
    static int sAlive;
    int value;
    explicit Counted(int v = 0) : value(v) { ++sAlive; }
    ~Counted() override { --sAlive; }
};
int Counted::sAlive = 0;

std::string md5Hex(const QByteArray& inData, unsigned int inChunk)
{
    McCoder c;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(inData.constData());
    for (qsizetype off = 0; off < inData.size(); off += inChunk)
        c.crcMD5Update(p + off, static_cast<unsigned int>(std::min<qsizetype>(inChunk, inData.size() - off)));
    c.crcMD5Final();
    McLib::MD5 d;
    c.crcMD5Query(d.data());
    McString hex;
    McCoder::dataToHexString(d.data(), 16, hex, true);
    return hex.str();
}
}

TEST(McResultTest, ChainingKeepsTheFirstReportAndBadness)
{
    McResult a;
    EXPECT_TRUE(a.isOk());
    a << McResult();
    EXPECT_TRUE(a.isOk());
    a << McResult(McResult::CodeFailMessage, 10, "F:f", "first", "cond[x]");
    a << McResult(McResult::CodeFailMessage, 11, "F:g", "second", "cond[y]");
    EXPECT_TRUE(a.isBad());
    EXPECT_STREQ("cond[x]", a.condition());
    EXPECT_NE(std::string(a.text()).find("first"), std::string::npos);
    EXPECT_NE(std::string(a.text()).find("second"), std::string::npos);
    a << McResult();
    EXPECT_TRUE(a.isBad());

    McResult b;
    b.makeBad(1);
    EXPECT_TRUE(b.isBad());
    EXPECT_EQ(McResult::CodeFail, b.code());
}

namespace
{
McResult checkedStep(bool inOk)
{
    McResult retVal;
    int maxLoop = inOk ? 1 : 0;
    if (MC_CHECK(retVal, maxLoop--, QStringLiteral("cyclic %1").arg("x")))
        return retVal;
    return retVal;
}
}

TEST(McResultTest, CheckMacroReportsConditionLocationAndMessage)
{
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(checkedStep(true).isOk());
    EXPECT_TRUE(failures.failures().empty());

    const McResult r = checkedStep(false);
    EXPECT_TRUE(r.isBad());
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("cyclic x", failures.failures()[0].message);
    EXPECT_EQ("cond[maxLoop--]", failures.failures()[0].condition);
    EXPECT_EQ("test_McLib:{anonymous}::checkedStep", failures.failures()[0].location);
}

TEST(McResultTest, DetailLineCarriesTheSystemReasonAndSurvivesChaining)
{
    KsTest::FailureRecorder failures;
    int detailsBuilt = 0;
    const auto detail = [&](int inErr) {
        ++detailsBuilt;
        return McLib::osDetail("/opt/app/bin", inErr);
    };
    McResult ok;
    errno = 0;
    EXPECT_FALSE(MC_CHECK_DETAIL(ok, true, "Internal Error", detail(errno)));
    EXPECT_EQ(0, detailsBuilt);  // nothing is formatted on the good path

    McResult bad;
    errno = EACCES;
    EXPECT_TRUE(MC_CHECK_DETAIL(bad, errno == 0, "Internal Error", detail(errno)));
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("Internal Error", failures.failures()[0].message);
    EXPECT_EQ("cond[errno == 0]", failures.failures()[0].condition);
    EXPECT_EQ("/opt/app/bin: Permission denied", failures.failures()[0].detail);

    McResult outer;
    outer << bad;
    EXPECT_STREQ("/opt/app/bin: Permission denied", outer.detail());
    EXPECT_STREQ("", McLib::detailTaken().c_str());  // the slot is empty again
}

TEST(McHandleTest, CountsFollowCopiesAssignmentsAndSelfAssignment)
{
    Counted::sAlive = 0;
    {
        McHandle<Counted> a(new Counted(7));
        EXPECT_EQ(1, a->refCount());
        {
            McHandle<Counted> b = a;
            EXPECT_EQ(2, a->refCount());
            b = b;
            EXPECT_EQ(2, a->refCount());
            McHandle<Counted>& alias = b;
            b = alias;
            EXPECT_EQ(2, a->refCount());
        }
        EXPECT_EQ(1, a->refCount());
        a = new Counted(8);
        EXPECT_EQ(1, Counted::sAlive);
        EXPECT_EQ(8, a->value);
    }
    EXPECT_EQ(0, Counted::sAlive);
}

TEST(McDArrayTest, SelfInsertCopiesTheRightElementsAndCounts)
{
    Counted::sAlive = 0;
    {
        McDArray<McHandle<Counted>> a;
        for (int i = 0; i < 4; ++i)
            a.append(McHandle<Counted>(new Counted(i)));
        EXPECT_EQ(4, a.capacity());
        // Duplicate the first two at the front: storage moves and the source shifts.
        a.insert(0, 2, &a[0]);
        ASSERT_EQ(6, a.size());
        const int expected[] = {0, 1, 0, 1, 2, 3};
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(expected[i], a[i]->value) << i;
        EXPECT_EQ(2, a[0]->refCount());
        EXPECT_EQ(2, a[1]->refCount());
        EXPECT_EQ(1, a[4]->refCount());

        // A source straddling the insertion point.
        a.insert(3, 2, &a[2]);
        const int expected2[] = {0, 1, 0, 0, 1, 1, 2, 3};
        ASSERT_EQ(8, a.size());
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(expected2[i], a[i]->value) << i;
        EXPECT_EQ(3, a[0]->refCount());

        a.remove(0, 4);
        EXPECT_EQ(4, a.size());
        EXPECT_EQ(2, a[0]->refCount());
        EXPECT_TRUE(a.data()[5].isNull());
        a.removeLast(2);
        EXPECT_EQ(2, a.size());
        EXPECT_EQ(1, Counted::sAlive);  // only element 1 is still held
    }
    EXPECT_EQ(0, Counted::sAlive);
}

TEST(McMD5Test, Rfc1321Vectors)
{
    const std::pair<const char*, const char*> vectors[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& v : vectors)
        for (unsigned chunk : {1u, 3u, 64u, 1000u})
            EXPECT_EQ(v.second, md5Hex(QByteArray(v.first), chunk)) << v.first << " chunk " << chunk;
}

TEST(McMD5Test, AgreesWithMd5sumOnAwkwardSizes)
{
    QTemporaryDir dir;
    for (int size : {0, 1, 55, 56, 63, 64, 65, 127, 128, 1000, (1 << 20) - 1, 1 << 20, (1 << 20) + 1})
    {
        QByteArray data(size, Qt::Uninitialized);
        for (int i = 0; i < size; ++i)
            data[i] = static_cast<char>(QRandomGenerator::global()->generate());
        const QString path = dir.path() + "/f" + QString::number(size);
        KsTest::writeFile(path, data);
        QProcess md5sum;
        md5sum.start("md5sum", {path});
        ASSERT_TRUE(md5sum.waitForFinished());
        const std::string peer = md5sum.readAllStandardOutput().left(32).toStdString();
        EXPECT_EQ(peer, md5Hex(data, 4096)) << size;
        EXPECT_EQ(peer, md5Hex(data, 1000)) << size;
    }
}
