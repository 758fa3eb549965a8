// The content cache against the standard tools, same data, same run:
//   fileCompress / fileUncompress of 256 MiB of compressible data  vs  xz --format=lzma -6 -T1 / -d
//   precache of 10,000 files (1 GiB) into an empty cache  vs  md5sum over the tree + cp -r
//   publish 200 files (64 MiB) with compress=true  vs  xz --format=lzma -6 on each item in turn
//   retrieve of 1,000 items of 16 KiB from nginx  vs  curl --parallel --parallel-max 8 of the same URLs
//   the same with ".lzma" copies published  vs  curl of the ".lzma" files + xz -d of them
//   retrieve of one 512 MiB item  vs  the longer of curl writing it and md5sum of the file
// Sizes: KSDEPLOY_BENCH_QUICK=1 shrinks all; KSDEPLOY_BENCH_LZMA_MIB, _DIR_FILES, _PUBLISH_FILES,
// _ITEMS and _BIG_MIB set one each.
#include "BenchHarness.h"
#include "BenchNginx.h"
#include "Cache.h"
#include "Common.h"
#include "Engine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

using namespace KsDeploy;

namespace
{
std::string q(const std::string& inPath) { return "'" + inPath + "'"; }

// Our side prints a trace line per step; keep it off the report.
class QuietStdout
{
public:
    QuietStdout()
    {
        std::fflush(stdout);
        mSaved = ::dup(1);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::close(null);
    }
    ~QuietStdout()
    {
        std::fflush(stdout);
        ::dup2(mSaved, 1);
        ::close(mSaved);
    }

private:
    int mSaved;
};

void fail(const std::string& inWhat)
{
    std::fprintf(stderr, "bench_cache: %s\n", inWhat.c_str());
    std::exit(2);
}

void check(const McResult& inResult, const std::string& inWhat)
{
    if (inResult.isBad())
        fail(inWhat + ": " + inResult.text());
}

std::string md5Hex(const std::string& inPath)
{
    const McLib::MD5 md5 = scanFile(QString::fromStdString(inPath));
    return md5.toString().str();
}

// An empty cache folder for one measurement (the old one is removed outside the timing).
void freshCache(const std::string& inDir)
{
    KsBench::run("rm -rf " + q(inDir));
    QDir().mkpath(QString::fromStdString(inDir));
    Engine::instance().pathToCacheSet(QString::fromStdString(inDir));
}

// A curl configuration that fetches every URL into the folder, in one process.
void writeCurlList(const std::string& inList, const std::vector<std::string>& inUrls, const std::string& inOutDir,
                   const std::string& inSuffix)
{
    std::ofstream list(inList);
    for (const std::string& u : inUrls)
    {
        const std::string name = u.substr(u.rfind('/') + 1);
        list << "url = \"" << u << inSuffix << "\"\noutput = \"" << inOutDir << "/" << name << inSuffix << "\"\n";
    }
}

std::vector<KsBench::Result> benchCompression(const std::string& inDir, unsigned long long inBytes, bool inTimeCompress)
{
    const std::string src = inDir + "/data.txt";
    KsBench::makeFile(src, inBytes, true);
    const std::string ours = inDir + "/ours.lzma", back = inDir + "/ours.back";
    const std::string theirs = inDir + "/theirs.lzma", theirsBack = inDir + "/theirs.back";
    const QString qsrc = QString::fromStdString(src);
    const std::string mib = std::to_string(inBytes >> 20) + " MiB";
    std::vector<KsBench::Result> rows;
    if (inTimeCompress)
    {
        KsBench::Comparison c;
        c.row = "fileCompress " + mib;
        c.target = 1.0 / 0.95;
        c.peerName = "xz --format=lzma -6 -T1";
        c.prepare = [&] { KsBench::run("rm -f " + q(ours) + " " + q(theirs)); };
        c.ours = KsBench::call([&] { check(fileCompress(QString::fromStdString(ours), qsrc), "fileCompress"); });
        c.peer = KsBench::command("xz --format=lzma -6 -T1 -c " + q(src) + " > " + q(theirs));
        rows.push_back(KsBench::compare(c));
        // The last round's outputs stay for the decoding row.
        check(fileCompress(QString::fromStdString(ours), qsrc), "fileCompress");
        KsBench::run("xz --format=lzma -6 -T1 -c " + q(src) + " > " + q(theirs));
        if (KsBench::run("cmp -s " + q(ours) + " " + q(theirs)) != 0)
            fail("our .lzma differs from xz's");
    }
    else
        KsBench::run("xz --format=lzma -6 -T0 -c " + q(src) + " > " + q(theirs) + " && cp " + q(theirs) + " " +
                     q(ours));
    KsBench::Comparison d;
    d.row = "fileUncompress " + mib;
    d.target = 1.0 / 0.95;
    d.peerName = "xz --format=lzma -d";
    d.prepare = [&] { KsBench::run("rm -f " + q(back) + " " + q(theirsBack)); };
    d.ours = KsBench::call(
        [&] { check(fileUncompress(QString::fromStdString(back), QString::fromStdString(ours)), "fileUncompress"); });
    d.oursCheck = [&] { return KsBench::run("cmp -s " + q(src) + " " + q(back)) == 0; };
    d.peer = KsBench::command("xz --format=lzma -d -c " + q(theirs) + " > " + q(theirsBack));
    rows.push_back(KsBench::compare(d));
    KsBench::run("rm -rf " + q(inDir));
    return rows;
}

// A tree of inFiles files, log-uniform from 1 KiB to 4 MiB scaled to inBytes in all, every third
// one text-like.
void makeMixedTree(const std::string& inTree, int inFiles, unsigned long long inBytes)
{
    std::mt19937_64 rng(5);
    std::vector<double> weights(inFiles);
    double sum = 0;
    for (double& w : weights)
    {
        w = std::exp(std::uniform_real_distribution<double>(std::log(1024.0), std::log(4194304.0))(rng));
        sum += w;
    }
    for (int i = 0; i < inFiles; ++i)
    {
        const unsigned long long size =
            static_cast<unsigned long long>(weights[i] / sum * static_cast<double>(inBytes));
        KsBench::makeFile(inTree + "/d" + std::to_string(i % 100) + "/f" + std::to_string(i), size, i % 3 == 0,
                          static_cast<unsigned>(i + 1));
    }
}

std::string ksdeploy(const std::string& inTmp, const std::string& inArgs)
{
    const std::string bin = QCoreApplication::applicationDirPath().toStdString() + "/ksdeploy";
    return "TMPDIR=" + q(inTmp) + " " + q(bin) + " --flags quiet=true " + inArgs + " > /dev/null";
}

int filesIn(const std::string& inDir) { return QDir(QString::fromStdString(inDir)).entryList(QDir::Files).size(); }

// Our precache of a tree into an empty cache, by the program as a user runs it (the digest memo
// lives no longer than a process), against md5sum over the tree followed by cp -r.
KsBench::Result benchDirectory(const std::string& inDir, int inFiles, unsigned long long inBytes)
{
    const std::string tree = inDir + "/tree", copy = inDir + "/copy", tmp = inDir + "/tmp";
    makeMixedTree(tree, inFiles, inBytes);
    const std::string cache = tmp + "/Kestra Imaging/Auto Update/Cache";
    KsBench::Comparison c;
    c.row = "precache " + std::to_string(inFiles) + " files, " + std::to_string(inBytes >> 20) + " MiB";
    c.target = 1.2;
    c.peerName = "md5sum + cp -r";
    c.prepare = [&] { KsBench::run("rm -rf " + q(copy) + " " + q(tmp) + " && mkdir " + q(tmp)); };
    c.ours = KsBench::command(ksdeploy(tmp, "--cache action=precache dir=" + q(tree)));
    c.oursCheck = [&] { return filesIn(cache) == inFiles; };
    c.peer = KsBench::command("find " + q(tree) + " -type f -exec md5sum {} + > /dev/null && cp -r " + q(tree) + " " +
                              q(copy));
    const KsBench::Result r = KsBench::compare(c);
    KsBench::run("rm -rf " + q(inDir));
    return r;
}

// Publishing with compress=true against xz run on each item in turn, as a user would script it.
KsBench::Result benchPublish(const std::string& inDir, int inFiles, unsigned long long inBytes)
{
    const std::string tree = inDir + "/tree", pub = inDir + "/publish", peer = inDir + "/peer", tmp = inDir + "/tmp";
    makeMixedTree(tree, inFiles, inBytes);
    KsBench::run("mkdir -p " + q(tmp));
    KsBench::Comparison c;
    c.row = "publish " + std::to_string(inFiles) + " files, " + std::to_string(inBytes >> 20) + " MiB, compress=true";
    c.target = 0.5;
    c.peerName = "xz --format=lzma -6 per item";
    c.prepare = [&] { KsBench::run("rm -rf " + q(pub) + " " + q(peer) + " && mkdir " + q(pub) + " " + q(peer)); };
    c.ours = KsBench::command(
        ksdeploy(tmp, "--cache action=precache dir=" + q(tree) + " compress=true targetdir=" + q(pub)));
    c.oursCheck = [&] { return filesIn(pub) > 0; };
    c.peer = KsBench::command("for f in " + q(tree) + "/*/*; do xz --format=lzma -6 -T1 -c \"$f\" > " + q(peer) +
                              "/\"${f##*/}\".lzma || exit 1; done");
    const KsBench::Result r = KsBench::compare(c);
    KsBench::run("rm -rf " + q(inDir));
    return r;
}

std::vector<KsBench::Result> benchHttpItems(const std::string& inDir, int inItems)
{
    const std::string www = inDir + "/www";
    std::vector<std::string> ids;
    KsBench::run("mkdir -p " + q(www + "/plain") + " " + q(www + "/lzma"));
    for (int i = 0; i < inItems; ++i)
    {
        const std::string tmp = inDir + "/item";
        KsBench::makeFile(tmp, 16384, i % 2 == 0, static_cast<unsigned>(1000 + i));
        const std::string hex = md5Hex(tmp);
        ids.push_back(hex);
        std::rename(tmp.c_str(), (www + "/plain/" + hex).c_str());
        check(fileCompress(QString::fromStdString(www + "/lzma/" + hex + ".lzma"),
                           QString::fromStdString(www + "/plain/" + hex)),
              "fileCompress");
    }
    KsBench::BenchNginx nginx(www);
    std::vector<KsBench::Result> rows;
    for (const std::string kind : {"plain", "lzma"})
    {
        const std::string base = nginx.url() + "/" + kind;
        std::vector<std::string> urls;
        for (const std::string& h : ids)
            urls.push_back(base + "/" + h);
        const bool packed = kind == "lzma";
        Cache& cache = Engine::instance().cache();
        cache.httpUrlClearAll();
        cache.httpUrlAdd(QString::fromStdString(base));
        // Every run writes into a folder of its own, and nothing is deleted until the row is
        // done: this file system searches past inodes freed in the last seconds whenever it
        // creates one, which would charge one side for what the other removed.
        int run = 0;
        std::string out;
        // After the rows before, or this row's last kind, removed their files.
        KsBench::settleRemovedFiles();
        KsBench::Comparison c;
        c.row = "retrieve " + std::to_string(inItems) + " x 16 KiB, " + (packed ? ".lzma published" : "plain only");
        c.target = 1.0;
        c.peerName = packed ? "curl --parallel (.lzma) + xz -d" : "curl --parallel --parallel-max 8";
        c.prepare = [&] {
            out = inDir + "/run-" + kind + "-" + std::to_string(run++);
            QDir().mkpath(QString::fromStdString(out));
            Engine::instance().pathToCacheSet(QString::fromStdString(out));
            writeCurlList(out + ".curl", urls, out, packed ? ".lzma" : "");
        };
        c.ours = [&] {
            QuietStdout quiet;
            return KsBench::timeOf([&] {
                // As an install fetches its items.
                std::vector<BufferID> wanted;
                for (const std::string& h : ids)
                    wanted.push_back(BufferID::fromString(QString::fromStdString(h)));
                check(cache.retrieveAll(wanted), "retrieve");
            });
        };
        c.oursCheck = [&] { return filesIn(out) == inItems; };
        c.peer = [&] {
            std::string peer = "curl -s --no-progress-meter --fail --parallel --parallel-max 8 -K " + q(out + ".curl");
            if (packed)
                peer += " && xz --format=lzma -d " + q(out) + "/*.lzma";
            return KsBench::timeCommand(peer);
        };
        rows.push_back(KsBench::compare(c));
        KsBench::run("rm -rf " + q(inDir) + "/run-*");
        if (packed)
            continue;
        // A folder of plain files only must not cost a miss of its ".lzma" copy per item. Each
        // round starts knowing nothing of the server, as a new program would.
        long long before = 0;
        rows.push_back(KsBench::limit(
            "requests per item, " + std::to_string(inItems) + " items, plain only", 1.02, "requests",
            [&] {
                QuietStdout quiet;
                before = nginx.requests();
                std::vector<BufferID> wanted;
                for (const std::string& h : ids)
                    wanted.push_back(BufferID::fromString(QString::fromStdString(h)));
                check(cache.retrieveAll(wanted), "retrieve");
                return static_cast<double>(nginx.requests() - before) / inItems;
            },
            [&] {
                cache.httpUrlClearAll();
                cache.httpUrlAdd(QString::fromStdString(base));
                KsBench::run("rm -rf " + q(inDir + "/count"));
                QDir().mkpath(QString::fromStdString(inDir + "/count"));
                Engine::instance().pathToCacheSet(QString::fromStdString(inDir + "/count"));
            }));
    }
    return rows;
}

KsBench::Result benchBigItem(const std::string& inDir, unsigned long long inBytes)
{
    const std::string www = inDir + "/www";
    const std::string tmp = www + "/big.tmp";
    KsBench::makeFile(tmp, inBytes, false, 77);
    const std::string hex = md5Hex(tmp);
    std::rename(tmp.c_str(), (www + "/" + hex).c_str());
    KsBench::BenchNginx nginx(www);
    const std::string url = nginx.url() + "/" + hex;
    const std::string out = inDir + "/curl.out";
    Cache& cache = Engine::instance().cache();
    cache.httpUrlClearAll();
    cache.httpUrlAdd(QString::fromStdString(nginx.url()));
    KsBench::Comparison c;
    c.row = "retrieve one " + std::to_string(inBytes >> 20) + " MiB item";
    c.target = 1.1;
    // The digest check reads every byte and MD5 runs on one core: the longer of the transfer
    // and the digest of what it wrote is the floor under any checked download.
    c.peerName = "max(curl -o, md5sum of it)";
    c.prepare = [&] {
        KsBench::run("rm -f " + q(out));
        freshCache(inDir + "/cache");
    };
    c.ours = [&] {
        QuietStdout quiet;
        return KsBench::timeOf(
            [&] { check(cache.retrieve(BufferID::fromString(QString::fromStdString(hex))), "retrieve"); });
    };
    c.oursCheck = [&] { return filesIn(inDir + "/cache") == 1; };
    c.peer = [&] {
        const double transfer = KsBench::timeCommand("curl -s --fail -o " + q(out) + " " + q(url));
        const double digest = KsBench::timeCommand("md5sum " + q(out) + " > /dev/null");
        return std::max(transfer, digest);
    };
    const KsBench::Result r = KsBench::compare(c);
    KsBench::run("rm -rf " + q(inDir + "/cache") + " " + q(out));
    return r;
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qunsetenv(v);
    Engine::instanceInit(nullptr);
    Engine::instance().quietSet(true);
    const bool small = KsBench::quick();
    std::vector<KsBench::Result> rows;
    // KSDEPLOY_BENCH_ONLY: compress (both directions), decode (decoding alone), directory, publish,
    // items, big.
    if (KsBench::wanted("compress") || KsBench::wanted("decode"))
    {
        const long long mib = KsBench::sizeFromEnv("KSDEPLOY_BENCH_LZMA_MIB", 256, 4);
        for (const auto& r : benchCompression(KsBench::scratchDir("cache-lzma"),
                                              static_cast<unsigned long long>(mib) << 20, KsBench::wanted("compress")))
            rows.push_back(r);
    }
    if (KsBench::wanted("directory"))
        rows.push_back(benchDirectory(KsBench::scratchDir("cache-dir"),
                                      static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_DIR_FILES", 10000, 300)),
                                      (small ? 32ull : 1024ull) << 20));
    if (KsBench::wanted("publish"))
        rows.push_back(benchPublish(KsBench::scratchDir("cache-publish"),
                                    static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_PUBLISH_FILES", 200, 20)),
                                    (small ? 4ull : 64ull) << 20));
    if (KsBench::wanted("items"))
        for (const auto& r : benchHttpItems(KsBench::scratchDir("cache-items"),
                                            static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_ITEMS", 1000, 200))))
            rows.push_back(r);
    if (KsBench::wanted("big"))
        rows.push_back(benchBigItem(
            KsBench::scratchDir("cache-big"),
            static_cast<unsigned long long>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_BIG_MIB", 512, 32)) << 20));
    const bool ok = KsBench::report(rows, "content cache (ratio = ours / peer, time)");
    Engine::instanceShutdown();
    return ok ? 0 : 1;
}
