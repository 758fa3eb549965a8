// File utilities: MD5 of files against md5sum, whole-file LZMA against xz, the codec's
// handling of damaged streams, and the writability probe.
#include "Common.h"
#include "KsTestSupport.h"
#include "Lzma.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <grp.h>
#include <pwd.h>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
QByteArray randomBytes(qint64 inSize, unsigned inSeed)
{
    std::mt19937 rng(inSeed);
    QByteArray out(inSize, Qt::Uninitialized);
    for (qint64 i = 0; i < inSize; ++i)
        out[i] = static_cast<char>(rng() & 0xFF);
    return out;
}

QByteArray textBytes(qint64 inSize, unsigned inSeed)
{
    static const char* const sWords[] = {"cache ", "item ", "digest ", "lzma ", "\n", "0042 ", "resource "};
    std::mt19937 rng(inSeed);
    QByteArray out;
    out.reserve(inSize + 16);
    while (out.size() < inSize)
        out += sWords[rng() % 7];
    out.truncate(inSize);
    return out;
}

// Runs a tool; its standard output, or a failed test when it does not exit with 0.
QByteArray runTool(const QString& inProgram, const QStringList& inArgs, const QString& inStdinFile = QString())
{
    QProcess p;
    if (!inStdinFile.isEmpty())
        p.setStandardInputFile(inStdinFile);
    p.start(inProgram, inArgs);
    const bool done = p.waitForFinished(120000);
    EXPECT_TRUE(done && p.exitStatus() == QProcess::NormalExit && p.exitCode() == 0)
        << inProgram.toStdString() << ": " << p.readAllStandardError().toStdString();
    return p.readAllStandardOutput();
}

QByteArray lzmaOf(const QByteArray& inPlain)
{
    McDArray<unsigned char> out;
    EXPECT_TRUE(lzmaCompress(out, reinterpret_cast<const unsigned char*>(inPlain.constData()), inPlain.size()).isOk());
    return QByteArray(reinterpret_cast<const char*>(out.data()), out.size());
}

}

class CommonTest : public KsTest::EngineTest
{
protected:
    void SetUp() override
    {
        KsTest::EngineTest::SetUp();
        ASSERT_TRUE(mDir.isValid());
    }
    QString path(const QString& inName) const { return mDir.filePath(inName); }
    // Everything in the work folder, hidden files included (temporary files start with a dot).
    QStringList listing() const
    {
        return QDir(mDir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }

    QTemporaryDir mDir;
};

// ---------------------------------------------------------------- scanFile

TEST_F(CommonTest, ScanFileMatchesMd5sumAtBlockBoundaries)
{
    const qint64 mib = 1048576;
    for (qint64 size : {qint64(0), qint64(1), mib - 1, mib, mib + 1, 3 * mib + 7})
    {
        const QString file = path(QStringLiteral("f%1").arg(size));
        KsTest::writeFile(file, randomBytes(size, static_cast<unsigned>(size)));
        const QByteArray expected = runTool(QStringLiteral("md5sum"), {file}).left(32);
        EXPECT_EQ(expected.toStdString(), scanFile(file).toString().str()) << "size " << size;
    }
}

TEST_F(CommonTest, ScanFileOfUnreadablePathsIsAllZeroAndSaysWhere)
{
    KsTest::ContractRecorder contracts;
    KsTest::FailureRecorder failures;
    const QString missing = path(QStringLiteral("missing"));
    EXPECT_TRUE(scanFile(missing).isNull());
    EXPECT_TRUE(contracts.has("QFile::exists(inFilePath)"));
    EXPECT_TRUE(failures.hasCondition("cond[qFile.exists()]"));
    EXPECT_TRUE(failures.hasMessage(missing.toStdString()));
    EXPECT_TRUE(failures.hasCondition("cond[retVal.isValid()]"));

    // A folder exists but is no file to hash.
    failures.clear();
    EXPECT_TRUE(scanFile(mDir.path()).isNull());
    EXPECT_TRUE(failures.hasCondition("cond[qFile.open(QIODevice::ReadOnly)]"));
    EXPECT_TRUE(failures.hasMessage(mDir.path().toStdString()));
}

TEST_F(CommonTest, ScanFileSeesEveryRewriteOfAFile)
{
    // The per-run memo must never answer with the digest of an older content, even when the
    // file is rewritten in place at once with the same size.
    const QString file = path(QStringLiteral("f"));
    for (unsigned i = 0; i < 50; ++i)
    {
        const QByteArray content = randomBytes(4096, i);
        QFile f(file);
        ASSERT_TRUE(f.open(QIODevice::ReadWrite));  // in place: same inode
        ASSERT_EQ(4096, f.write(content));
        f.close();
        McCoder coder;
        coder.crcMD5Update(reinterpret_cast<const unsigned char*>(content.constData()), 4096);
        coder.crcMD5Final();
        McLib::MD5 expected;
        coder.crcMD5Query(expected.data());
        ASSERT_EQ(expected.toString().str(), scanFile(file).toString().str()) << "rewrite " << i;
    }
}

// ---------------------------------------------------------------- LZMA files

TEST_F(CommonTest, CompressRoundTripsAndInteroperatesWithXz)
{
    const struct
    {
        const char* name;
        QByteArray content;
    } cases[] = {{"empty", QByteArray()},
                 {"one", QByteArray("x")},
                 {"random", randomBytes(300000, 7)},
                 {"text", textBytes(3 * 1048576 + 5, 3)}};
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const QString plain = path(QStringLiteral("%1.bin").arg(c.name));
        const QString packed = plain + QStringLiteral(".lzma");
        const QString back = plain + QStringLiteral(".back");
        KsTest::writeFile(plain, c.content);
        ASSERT_TRUE(fileCompress(packed, plain).isOk());
        const QByteArray ours = KsTest::readFile(packed);
        // No framing of our own: the codec's header (lc=3 lp=0 pb=2, 8 MiB dictionary) comes first.
        ASSERT_GE(ours.size(), 13);
        EXPECT_EQ(QByteArray::fromHex("5d00008000"), ours.left(5));
        ASSERT_TRUE(fileUncompress(back, packed).isOk());
        EXPECT_TRUE(KsTest::readFile(back) == c.content);

        // Ours decodes with xz, and xz's own output is the same byte stream and decodes with ours.
        EXPECT_TRUE(runTool(QStringLiteral("xz"), {"--format=lzma", "-d", "-c", packed}) == c.content);
        const QByteArray theirs = runTool(QStringLiteral("xz"), {"--format=lzma", "-6", "-T1", "-c"}, plain);
        EXPECT_TRUE(theirs == ours);
        const QString theirsFile = plain + QStringLiteral(".xz.lzma");
        KsTest::writeFile(theirsFile, theirs);
        ASSERT_TRUE(fileUncompress(back, theirsFile).isOk());
        EXPECT_TRUE(KsTest::readFile(back) == c.content);
    }
}

TEST_F(CommonTest, DamagedStreamsFailClearlyAndLeaveTheDestinationAlone)
{
    const QByteArray plain = textBytes(200000, 11);
    const QByteArray good = lzmaOf(plain);
    ASSERT_GT(good.size(), 100);

    QByteArray badFirstByte = good;
    badFirstByte[13] = '\xff';  // the range coder's first byte must be zero
    QByteArray badProperties = good;
    badProperties[0] = '\xff';
    QByteArray hugeDictionary = good;
    hugeDictionary.replace(1, 4, QByteArray::fromHex("ffffffff"));
    QByteArray absurdSize = good;
    absurdSize.replace(5, 8, QByteArray::fromHex("0000000000010000"));  // 2^40 bytes
    QByteArray longerThanItIs = good;
    const quint64 claimed = static_cast<quint64>(plain.size()) + 1000;
    for (int i = 0; i < 8; ++i)
        longerThanItIs[5 + i] = static_cast<char>((claimed >> (8 * i)) & 0xFF);
    QByteArray scrambled = good;
    for (int i = 40; i < scrambled.size() - 40; i += 7)
        scrambled[i] = static_cast<char>(scrambled[i] ^ 0x5A);

    const struct
    {
        const char* name;
        QByteArray stream;
        const char* message;
        const char* condition;
    } cases[] = {
        {"shorter than a header", good.left(10), "lzma decompression: truncated data", "cond[inSize >= 13]"},
        {"cut in the middle", good.left(good.size() / 2), "lzma decompression: truncated data",
         "cond[ret == LZMA_STREAM_END]"},
        {"last byte missing", good.left(good.size() - 1), "lzma decompression: truncated data",
         "cond[ret == LZMA_STREAM_END]"},
        {"bad first data byte", badFirstByte, "lzma decompression: corrupt data", "cond[ret == LZMA_STREAM_END]"},
        {"bad properties", badProperties, "lzma decompression: not in the lzma format",
         "cond[ret == LZMA_STREAM_END]"},
        {"4 GiB dictionary", hugeDictionary, "lzma decompression: needs more memory than allowed",
         "cond[ret == LZMA_STREAM_END]"},
        {"absurd size", absurdSize, "lzma decompression: the stream claims 1099511627776 bytes",
         "cond[claimedSize <= sMaxClaimedSize]"},
        {"claims more than it holds", longerThanItIs, "lzma decompression: corrupt data",
         "cond[ret == LZMA_STREAM_END]"},
        {"plain text", QByteArray("this is no lzma stream, just words in a file"), nullptr, nullptr},
        {"scrambled data", scrambled, nullptr, nullptr},
    };
    const QString dst = path(QStringLiteral("dst"));
    const QString src = path(QStringLiteral("src.lzma"));
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        KsTest::FailureRecorder failures;
        KsTest::writeFile(dst, "keep me");
        KsTest::writeFile(src, c.stream);
        const McResult r = fileUncompress(dst, src);
        ASSERT_TRUE(r.isBad());
        if (c.message)
        {
            EXPECT_STREQ(c.message, r.text());
            EXPECT_STREQ(c.condition, r.condition());
        }
        else
        {
            EXPECT_EQ(0, std::string(r.text()).rfind("lzma decompression: ", 0)) << r.text();
        }
        EXPECT_EQ(QByteArray("keep me"), KsTest::readFile(dst));
        EXPECT_EQ(QStringList({"dst", "src.lzma"}), listing());
    }
}

// ---------------------------------------------------------------- probeFileUpdate

namespace
{
struct ProbeOutcome
{
    bool ran = false;
    bool ok = false;
    std::string message;
    std::string condition;
};

// Runs the probe in a child process under another user (root passes every permission check).
ProbeOutcome probeAs(uid_t inUid, gid_t inGid, const QString& inDir)
{
    ProbeOutcome out;
    int fds[2];
    if (::pipe(fds) != 0)
        return out;
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        ::close(fds[0]);
        int status = 3;
        if (::setgroups(0, nullptr) == 0 && ::setgid(inGid) == 0 && ::setuid(inUid) == 0)
        {
            const McResult r = probeFileUpdate(inDir);
            const std::string text = std::string(r.text()) + "\n" + r.condition();
            (void)!::write(fds[1], text.data(), text.size());
            status = r.isOk() ? 0 : 1;
        }
        ::close(fds[1]);
        ::_exit(status);
    }
    ::close(fds[1]);
    std::string text;
    char buf[512];
    ssize_t n;
    while ((n = ::read(fds[0], buf, sizeof(buf))) > 0)
        text.append(buf, static_cast<size_t>(n));
    ::close(fds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1)
        return out;
    out.ran = true;
    out.ok = WEXITSTATUS(status) == 0;
    const size_t nl = text.find('\n');
    out.message = text.substr(0, nl);
    out.condition = nl == std::string::npos ? std::string() : text.substr(nl + 1);
    return out;
}
}

TEST_F(CommonTest, ProbeOfAReadOnlyFolderFailsAtOpenAndLeavesNothing)
{
    // The folder must be reachable by the unprivileged user: not inside our private temp folder.
    QTemporaryDir dir(QStringLiteral("/tmp/ksdeploy-probe-XXXXXX"));
    ASSERT_TRUE(dir.isValid());
    const QString canonical = QFileInfo(dir.path()).canonicalFilePath();
    ProbeOutcome outcome;
    if (::geteuid() != 0)
    {
        ASSERT_TRUE(QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::ExeOwner | QFile::ReadOther |
                                                          QFile::ExeOther | QFile::ReadGroup | QFile::ExeGroup));
        const McResult r = probeFileUpdate(dir.path());
        outcome = {true, r.isOk(), r.text(), r.condition()};
        QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    else
    {
        const passwd* nobody = ::getpwnam("nobody");
        if (!nobody)
            GTEST_SKIP() << "running as root and there is no user 'nobody' to run the probe as: root may write "
                            "into any folder, so a read-only folder cannot be tested";
        // Owned by root, mode 0755: nobody may enter and read, not write.
        ASSERT_TRUE(QFile::setPermissions(dir.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                                          QFile::ReadOther | QFile::ExeOther | QFile::ReadGroup |
                                                          QFile::ExeGroup));
        outcome = probeAs(nobody->pw_uid, nobody->pw_gid, dir.path());
        if (!outcome.ran)
            GTEST_SKIP() << "could not switch to user 'nobody' to run the probe";

        // The same user can write a folder that is open to everybody: the probe itself works there.
        QTemporaryDir open(QStringLiteral("/tmp/ksdeploy-probe-XXXXXX"));
        ASSERT_TRUE(QFile::setPermissions(open.path(), QFileDevice::Permissions(0x7777)));
        const ProbeOutcome writable = probeAs(nobody->pw_uid, nobody->pw_gid, open.path());
        ASSERT_TRUE(writable.ran);
        EXPECT_TRUE(writable.ok) << writable.message << " " << writable.condition;
        EXPECT_TRUE(QDir(open.path()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
    }
    ASSERT_TRUE(outcome.ran);
    EXPECT_FALSE(outcome.ok);
    EXPECT_EQ("cond[file.open( QIODevice::ReadWrite )]", outcome.condition);
    // The message names the probe file: the folder's canonical path and a braced UUID.
    const std::string prefix = canonical.toStdString() + "/{";
    EXPECT_EQ(0u, outcome.message.rfind(prefix, 0)) << outcome.message;
    EXPECT_EQ(prefix.size() + 37, outcome.message.size()) << outcome.message;
    EXPECT_TRUE(QDir(dir.path()).isEmpty(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
}
