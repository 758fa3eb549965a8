// The content cache against the standard tools, same data, same run:
//   fileCompress / fileUncompress of 256 MiB of compressible data  vs  xz --format=lzma -6 -T1 / -d
//   retrieveFromDirectory of 10,000 files (1 GiB) into an empty cache  vs  md5sum over the tree + cp -r
//   retrieve of 1,000 items of 16 KiB from nginx  vs  one curl fetching the same URLs (reused connection)
//   the same with ".lzma" copies published  vs  curl of the ".lzma" files + xz -d of them
//   retrieve of one 512 MiB item  vs  curl
// Usage: bench_cache [divisor]   (sizes and counts divided by divisor for a quick run; default 1)
#include "BenchHarness.h"
#include "Cache.h"
#include "Common.h"
#include "Engine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>

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

class Nginx
{
public:
    explicit Nginx(const std::string& inRoot)
    {
        QByteArray src = qgetenv("KSDEPLOY_SOURCE_DIR");
        const QString script = src.isEmpty()
                                   ? QFileInfo(QStringLiteral(__FILE__)).absolutePath() + "/../tests/servers/nginx_server.py"
                                   : QString::fromLocal8Bit(src) + "/tests/servers/nginx_server.py";
        mProcess.start(QStringLiteral("python3"), {"-u", script, "--root", QString::fromStdString(inRoot)});
        QByteArray out;
        while (mProcess.waitForReadyRead(30000))
        {
            out += mProcess.readAllStandardOutput();
            const int at = out.indexOf("PORT ");
            if (at >= 0 && out.indexOf('\n', at) > 0)
            {
                mPort = out.mid(at + 5, out.indexOf('\n', at) - at - 5).toInt();
                break;
            }
        }
        if (mPort <= 0)
            fail("nginx did not start: " + mProcess.readAllStandardError().toStdString());
    }
    ~Nginx()
    {
        mProcess.closeWriteChannel();
        if (!mProcess.waitForFinished(10000))
            mProcess.kill();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(mPort); }

private:
    QProcess mProcess;
    int mPort = 0;
};

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

std::vector<KsBench::Row> benchCompression(const std::string& inDir, unsigned long long inBytes, bool inTimeCompress)
{
    const std::string src = inDir + "/data.txt";
    KsBench::makeFile(src, inBytes, true);
    KsBench::run("cat " + q(src) + " > /dev/null");
    const std::string ours = inDir + "/ours.lzma", back = inDir + "/ours.back";
    const std::string theirs = inDir + "/theirs.lzma", theirsBack = inDir + "/theirs.back";
    const QString qsrc = QString::fromStdString(src);

    // Rounds in turn, best of each: neither side always runs on a machine the other has just
    // warmed or loaded.
    double tCompress = 1e9, tXz = 1e9;
    for (int round = 0; round < (inTimeCompress ? 2 : 0); ++round)
    {
        const auto oursOnce = [&] {
            tCompress = std::min(tCompress, KsBench::timeBest([&] { check(fileCompress(QString::fromStdString(ours), qsrc), "fileCompress"); }, 1));
        };
        const auto peerOnce = [&] {
            tXz = std::min(tXz, KsBench::timeCommand("xz --format=lzma -6 -T1 -c " + q(src) + " > " + q(theirs), 1));
        };
        if (round == 0)
            oursOnce(), peerOnce();
        else
            peerOnce(), oursOnce();
    }
    if (!inTimeCompress)
        KsBench::run("xz --format=lzma -6 -T0 -c " + q(src) + " > " + q(theirs) + " && cp " + q(theirs) + " " + q(ours));
    double tUncompress = 1e9, tXzD = 1e9;
    for (int round = 0; round < 4; ++round)
    {
        const auto oursOnce = [&] {
            tUncompress = std::min(tUncompress, KsBench::timeBest([&] { check(fileUncompress(QString::fromStdString(back), QString::fromStdString(ours)), "fileUncompress"); }, 1));
        };
        const auto peerOnce = [&] {
            tXzD = std::min(tXzD, KsBench::timeCommand("xz --format=lzma -d -c " + q(theirs) + " > " + q(theirsBack), 1));
        };
        if (round % 2 == 0)
            oursOnce(), peerOnce();
        else
            peerOnce(), oursOnce();
    }
    if (KsBench::run("cmp -s " + q(ours) + " " + q(theirs)) != 0)
        fail("our .lzma differs from xz's");
    if (KsBench::run("cmp -s " + q(src) + " " + q(back)) != 0 || KsBench::run("cmp -s " + q(src) + " " + q(theirsBack)) != 0)
        fail("decompressed data differs");
    const std::string mib = std::to_string(inBytes >> 20) + " MiB";
    std::vector<KsBench::Row> rows;
    if (inTimeCompress)
        rows.push_back({"fileCompress " + mib + " (throughput >= 0.95 of xz)", tCompress, tXz, "xz --format=lzma -6 -T1", 1.0 / 0.95});
    rows.push_back({"fileUncompress " + mib + " (throughput >= 0.95 of xz)", tUncompress, tXzD, "xz --format=lzma -d", 1.0 / 0.95});
    return rows;
}

std::vector<KsBench::Row> benchDirectory(const std::string& inDir, int inFiles, unsigned long long inBytes)
{
    // Mixed sizes: log-uniform from 1 KiB to 4 MiB, scaled to the total.
    std::mt19937_64 rng(5);
    std::vector<double> weights(inFiles);
    double sum = 0;
    for (double& w : weights)
    {
        w = std::exp(std::uniform_real_distribution<double>(std::log(1024.0), std::log(4194304.0))(rng));
        sum += w;
    }
    const std::string tree = inDir + "/tree";
    for (int i = 0; i < inFiles; ++i)
    {
        const unsigned long long size = static_cast<unsigned long long>(weights[i] / sum * static_cast<double>(inBytes));
        KsBench::makeFile(tree + "/d" + std::to_string(i % 100) + "/f" + std::to_string(i), size, i % 3 == 0,
                          static_cast<unsigned>(i + 1));
    }
    KsBench::run("cat " + q(tree) + "/*/* > /dev/null");
    const std::string copy = inDir + "/copy", cache = inDir + "/cache";

    // The digest memo lasts a run, so ours is measured once, on its first pass over the tree.
    KsBench::run("rm -rf " + q(copy));
    const double tPeer = KsBench::timeCommand(
        "find " + q(tree) + " -type f -exec md5sum {} + > /dev/null && cp -r " + q(tree) + " " + q(copy), 1);
    KsBench::run("rm -rf " + q(copy));
    freshCache(cache);
    double tOurs;
    {
        QuietStdout quiet;
        tOurs = KsBench::timeBest(
            [&] { check(Engine::instance().cache().retrieveFromDirectory(QString::fromStdString(tree), true, {}, false), "retrieveFromDirectory"); },
            1);
    }
    const int items = QDir(QString::fromStdString(cache)).entryList(QDir::Files).size();
    if (items != inFiles)
        fail("the cache holds " + std::to_string(items) + " items, expected " + std::to_string(inFiles));
    return {{"retrieveFromDirectory " + std::to_string(inFiles) + " files, " + std::to_string(inBytes >> 20) + " MiB",
             tOurs, tPeer, "md5sum + cp -r", 1.2}};
}

std::vector<KsBench::Row> benchHttpItems(const std::string& inDir, int inItems)
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
        check(fileCompress(QString::fromStdString(www + "/lzma/" + hex + ".lzma"), QString::fromStdString(www + "/plain/" + hex)),
              "fileCompress");
    }
    Nginx nginx(www);
    std::vector<KsBench::Row> rows;
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
        // Every round writes into folders of its own, and nothing is deleted until the row is
        // done: this file system searches past inodes freed in the last seconds whenever it
        // creates one, which would charge one side for what the other (or the setup) removed.
        KsBench::run("sync");
        KsBench::run("sleep 11");
        double best = 1e30, tPeer = 1e30;
        for (int rep = 0; rep < 5; ++rep)
        {
            const std::string round = kind + "-" + std::to_string(rep);
            const std::string list = inDir + "/curl-" + round + ".txt", out = inDir + "/curl-out-" + round;
            writeCurlList(list, urls, out, packed ? ".lzma" : "");
            std::string peer = "curl -s --fail -K " + q(list);
            if (packed)
                peer += " && xz --format=lzma -d " + q(out) + "/*.lzma";
            KsBench::run("mkdir " + q(out));
            const std::string cacheDir = inDir + "/cache-" + round;
            QDir().mkpath(QString::fromStdString(cacheDir));
            Engine::instance().pathToCacheSet(QString::fromStdString(cacheDir));
            // Turn about, best of each: which side runs first changes from round to round.
            auto runPeer = [&] { tPeer = std::min(tPeer, KsBench::timeCommand(peer, 1)); };
            auto runOurs = [&] {
                QuietStdout quiet;
                best = std::min(best, KsBench::timeBest(
                                          [&] {
                                              for (const std::string& h : ids)
                                                  check(cache.retrieve(BufferID::fromString(QString::fromStdString(h))), "retrieve");
                                          },
                                          1));
            };
            if (rep % 2 == 0)
            {
                runPeer();
                runOurs();
            }
            else
            {
                runOurs();
                runPeer();
            }
        }
        KsBench::run("rm -rf " + q(inDir) + "/curl-out-* " + q(inDir) + "/cache-*");
        rows.push_back({"retrieve " + std::to_string(inItems) + " x 16 KiB, " + (packed ? ".lzma published" : "plain only"),
                        best, tPeer, packed ? "curl -K (.lzma) + xz -d" : "curl -K (one connection)", 1.2});
    }
    return rows;
}

std::vector<KsBench::Row> benchBigItem(const std::string& inDir, unsigned long long inBytes)
{
    const std::string www = inDir + "/www";
    const std::string tmp = www + "/big.tmp";
    KsBench::makeFile(tmp, inBytes, false, 77);
    const std::string hex = md5Hex(tmp);
    std::rename(tmp.c_str(), (www + "/" + hex).c_str());
    KsBench::run("cat " + q(www + "/" + hex) + " > /dev/null");
    Nginx nginx(www);
    const std::string url = nginx.url() + "/" + hex;
    const std::string out = inDir + "/curl.out";
    Cache& cache = Engine::instance().cache();
    cache.httpUrlClearAll();
    cache.httpUrlAdd(QString::fromStdString(nginx.url()));
    // Turn about, best of each: writing half a gigabyte takes a different time from run to run,
    // and the first rounds after the file was made are the slowest for both sides.
    double best = 1e30, tPeer = 1e30;
    for (int rep = 0; rep < 5; ++rep)
    {
        KsBench::run("rm -f " + q(out) + "; sync");
        tPeer = std::min(tPeer, KsBench::timeCommand("curl -s --fail -o " + q(out) + " " + q(url), 1));
        freshCache(inDir + "/cache");
        KsBench::run("sync");
        QuietStdout quiet;
        best = std::min(best, KsBench::timeBest([&] { check(cache.retrieve(BufferID::fromString(QString::fromStdString(hex))), "retrieve"); }, 1));
    }
    // The digest check reads every byte, and MD5 cannot be spread over cores: its time is the
    // floor under any checked download, shown beside the ratio.
    const double tMd5 = KsBench::timeCommand("md5sum " + q(out) + " > /dev/null");
    std::printf("retrieve one item: md5sum of the same %llu MiB alone takes %.3f s\n", inBytes >> 20, tMd5);
    return {{"retrieve one " + std::to_string(inBytes >> 20) + " MiB item", best, tPeer, "curl", 1.1}};
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const unsigned long long divisor = argc > 1 ? std::max(1ull, std::strtoull(argv[1], nullptr, 10)) : 1;
    for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qunsetenv(v);
    Engine::instanceInit(nullptr);
    Engine::instance().quietSet(true);
    std::vector<KsBench::Row> rows;
    // compress (both directions), decode (decompression alone), directory, items, big
    const char* only = std::getenv("KSDEPLOY_BENCH_ONLY");
    auto wanted = [&](const char* inName) { return !only || std::string(only).find(inName) != std::string::npos; };
    if (wanted("compress") || wanted("decode"))
        for (const auto& r : benchCompression(KsBench::scratchDir("cache-lzma"), (256ull << 20) / divisor, wanted("compress")))
            rows.push_back(r);
    if (wanted("directory"))
        for (const auto& r : benchDirectory(KsBench::scratchDir("cache-dir"), static_cast<int>(10000 / divisor), (1ull << 30) / divisor))
            rows.push_back(r);
    if (wanted("items"))
        for (const auto& r : benchHttpItems(KsBench::scratchDir("cache-items"), static_cast<int>(1000 / divisor)))
            rows.push_back(r);
    if (wanted("big"))
        for (const auto& r : benchBigItem(KsBench::scratchDir("cache-big"), (512ull << 20) / divisor))
            rows.push_back(r);
    const bool ok = KsBench::report(rows, "Content cache (ratio = ours / peer, time)");
    Engine::instanceShutdown();
    return ok ? 0 : 1;
}
