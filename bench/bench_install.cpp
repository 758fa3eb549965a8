// Installing products with the real ksdeploy binary against cp -r and md5sum on the same tree:
// 10,000 files (about 1 GiB, mixed sizes) from a warm cache, verify, reinstall in place; then
// 2,000 x 64 KiB, 10,000 and 100,000 files of 1 KiB, and the planning of such an install
// in-process. KSDEPLOY_BENCH_ONLY=mixed,medium,small picks rows.
#include "BenchHarness.h"
#include "Engine.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace KsDeploy;

namespace
{
std::string sBin;
std::string sDir;

void makeTree(const std::string& inRoot, int inFiles, int inFolders, unsigned inMinBytes, unsigned inSpread)
{
    unsigned seed = 12345;
    for (int i = 0; i < inFiles; ++i)
    {
        seed = seed * 1103515245u + 12345u;
        const unsigned bytes = inMinBytes + (inSpread ? (seed >> 8) % inSpread : 0);
        const std::string path = inRoot + "/d" + std::to_string(i % inFolders) + "/f" + std::to_string(i) + ".bin";
        KsBench::makeFile(path, bytes, i % 2 == 0, static_cast<unsigned>(i) + 1);
    }
}

std::string ks(const std::string& inTmp, const std::string& inArgs)
{
    return "TMPDIR='" + inTmp + "' '" + sBin + "' --flags quiet=true " + inArgs + " > /dev/null";
}

// Describes inSrc as product P below ${TARGET}, and fills the cache of inTmp with its files.
void prepare(const std::string& inName, const std::string& inSrc, const std::string& inTmp)
{
    KsBench::run("mkdir -p '" + inTmp + "'");
    if (KsBench::run(ks(inTmp, "--generate type=directory path='" + inSrc +
                                   "' 'name=${TARGET}' product=P "
                                   "--save target='" +
                                   sDir + "/" + inName +
                                   ".xml' "
                                   "--cache action=precache dir='" +
                                   inSrc + "'")) != 0)
        std::exit(2);
}

std::string product(const std::string& inName, const std::string& inTmp, const std::string& inTarget,
                    const std::string& inAction)
{
    return ks(inTmp, "--load file='" + sDir + "/" + inName + ".xml' --config TARGET='" + inTarget +
                         "' --product action=" + inAction);
}

// What the journal and its flushes cost a fresh install: the same install with them (A) and with
// the benchmark-only setting that leaves both out (B), taking turns A B A B over inRounds rounds.
// The write-back that B leaves behind is done untimed before the next run.
void durability(const std::string& inName, const std::string& inTmp, const std::string& inTarget,
                const std::string& inLabel, int inRounds)
{
    std::vector<double> a, b;
    for (int round = 0; round < inRounds; ++round)
    {
        for (int side = 0; side < 2; ++side)
        {
            const bool full = (side == 0) == (round % 2 == 0);
            KsBench::run("rm -rf '" + inTarget + "'; sync");
            const std::string prefix = full ? "" : "KSDEPLOY_BENCH_NO_FLUSH=journal ";
            (full ? a : b).push_back(KsBench::timeCommand(prefix + product(inName, inTmp, inTarget, "install"), 1));
            KsBench::run("sync");
        }
    }
    const auto median = [](std::vector<double> v) {
        std::sort(v.begin(), v.end());
        return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
    };
    // A round's two runs share the machine's state of the moment: their ratio is what drift
    // cancels out of, so the figure is the median of the per-round ratios.
    std::vector<double> ratios;
    for (size_t i = 0; i < a.size(); ++i)
    {
        ratios.push_back(a[i] / b[i]);
        std::printf("  round %zu: journal+flush %.3f s, none %.3f s, ratio %.3f\n", i + 1, a[i], b[i], ratios.back());
    }
    std::printf("%-44s journal+flush %.3f s  none %.3f s (medians)  ratio %.3f (median of rounds; min %.3f, max %.3f)"
                "  [%d rounds]\n",
                inLabel.c_str(), median(a), median(b), median(ratios), *std::min_element(ratios.begin(), ratios.end()),
                *std::max_element(ratios.begin(), ratios.end()), inRounds);
    std::fflush(stdout);
}

// Loads the product into this process's engine (untimed) and times collecting, cloning and
// snapshotting it, once.
double planning(const std::string& inName, const std::string& inTarget)
{
    static bool sStarted = false;
    if (!sStarted)
    {
        Engine::instanceInit(environ);
        Engine::instance().quietSet(true);
        sStarted = true;
    }
    Engine& engine = Engine::instance();
    std::fflush(stdout);
    const int savedStdout = dup(1);
    if (!std::freopen("/dev/null", "w", stdout))
        std::exit(2);
    engine.resourceUnregisterAll();
    XmlSerializer serializer;
    McDArray<McHandle<Resource>> loaded;
    serializer.deserialize(QString::fromStdString(sDir + "/" + inName + ".xml"), loaded);
    engine.configuration().valueSet(QStringLiteral("TARGET"), QString::fromStdString(inTarget), false);
    const double t = KsBench::timeOf([&] {
        McDArray<McHandle<Resource>> all;
        engine.productResources(QStringLiteral("P"), all);
        engine.productTransactionBegin(QStringLiteral("P"));
        engine.productTransactionCommit(QStringLiteral("P"));
    });
    std::fflush(stdout);
    dup2(savedStdout, 1);
    ::close(savedStdout);
    return t;
}

std::string q(const std::string& inPath) { return "'" + inPath + "'"; }

// True when the tree below inRoot holds inFiles files.
bool holds(const std::string& inRoot, int inFiles)
{
    return KsBench::run("test \"$(find " + q(inRoot) + " -type f | wc -l)\" -eq " + std::to_string(inFiles)) == 0;
}

// A fresh install of the product inName against cp -r of its source, from the same empty state.
KsBench::Result installRow(const std::string& inLabel, const std::string& inName, const std::string& inSrc,
                           const std::string& inTmp, int inFiles)
{
    const std::string target = sDir + "/target-" + inName, copy = sDir + "/copy-" + inName;
    KsBench::Comparison c;
    c.row = inLabel;
    c.target = 0.8;
    c.peerName = "cp -r";
    c.prepare = [=] { KsBench::run("rm -rf " + q(target) + " " + q(copy)); };
    c.ours = KsBench::command(product(inName, inTmp, target, "install"));
    c.oursCheck = [=] { return holds(target, inFiles); };
    c.peer = KsBench::command("cp -r " + q(inSrc) + " " + q(copy));
    return KsBench::compare(c);
}

// A tree of inFiles files of inBytes each, described as product inName with a warm cache.
void smallProduct(const std::string& inName, int inFiles, unsigned inBytes, int inFolders)
{
    const std::string src = sDir + "/src-" + inName;
    makeTree(src, inFiles, inFolders, inBytes, 0);
    prepare(inName, src, sDir + "/tmp-" + inName);
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // Full sizes: 10,000 files of about 1 GiB; 2,000 x 64 KiB; 100,000 (and 10,000) x 1 KiB.
    const int bigFiles = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_INSTALL_FILES", 10000, 300));
    const int mediumFiles = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_INSTALL_MEDIUM", 2000, 200));
    const int smallFiles = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_INSTALL_SMALL", 100000, 3000));
    sBin = std::string(QCoreApplication::applicationDirPath().toStdString()) + "/ksdeploy";
    sDir = KsBench::scratchDir("install");

    // KSDEPLOY_BENCH_ONLY=durability: only the cost of surviving a crash, on both product sizes.
    const char* only = std::getenv("KSDEPLOY_BENCH_ONLY");
    if (only && std::strcmp(only, "durability") == 0)
    {
        const int rounds =
            std::max(5, std::atoi(std::getenv("KSDEPLOY_BENCH_ROUNDS") ? std::getenv("KSDEPLOY_BENCH_ROUNDS") : "5"));
        const std::string src = sDir + "/src", tmp = sDir + "/tmp", target = sDir + "/target";
        makeTree(src, bigFiles, 100, 1024, 204800);
        prepare("mixed", src, tmp);
        durability("mixed", tmp, target, "install " + std::to_string(bigFiles) + " files", rounds);
        KsBench::run("rm -rf '" + target + "' '" + tmp + "' '" + src + "'");
        const std::string small = sDir + "/small", tmpSmall = sDir + "/tmp-small";
        makeTree(small, smallFiles, 1000, 1024, 0);
        prepare("small", small, tmpSmall);
        durability("small", tmpSmall, sDir + "/target-small", "install " + std::to_string(smallFiles) + " x 1 KiB",
                   rounds);
        KsBench::run("rm -rf '" + sDir + "'");
        return 0;
    }

    std::vector<KsBench::Result> rows;
    const std::string big = std::to_string(bigFiles) + " files";
    if (KsBench::wanted("mixed"))
    {
        const std::string src = sDir + "/src-mixed", tmp = sDir + "/tmp-mixed";
        makeTree(src, bigFiles, 100, 1024, 204800);
        prepare("mixed", src, tmp);
        rows.push_back(installRow("install " + big + " from a warm cache", "mixed", src, tmp, bigFiles));

        // The rows below work on an installed tree, left in place between rounds.
        const std::string target = sDir + "/installed";
        if (KsBench::run(product("mixed", tmp, target, "install")) != 0 ||
            KsBench::run("diff -r " + q(src) + " " + q(target)) != 0)
        {
            std::fprintf(stderr, "bench: the installed tree differs from the source\n");
            return 1;
        }
        const std::string files = "find " + q(target) + " -type f -print0 | ";
        KsBench::Comparison verify;
        verify.row = "verify " + big;
        verify.target = 0.6;
        verify.peerName = "find | xargs md5sum";
        verify.ours = KsBench::command(product("mixed", tmp, target, "verify"));
        verify.peer = KsBench::command(files + "xargs -0 md5sum > /dev/null");
        rows.push_back(KsBench::compare(verify));
        verify.target = 1.05;
        verify.peerName = "find | xargs -P2 -n 64 md5sum";
        verify.peer = KsBench::command(files + "xargs -0 -P2 -n 64 md5sum > /dev/null");
        rows.push_back(KsBench::compare(verify));
        KsBench::Comparison again;
        again.row = "install " + big + " again, all in place";
        again.target = 1.0;
        again.peerName = "find | xargs md5sum";
        again.ours = KsBench::command(product("mixed", tmp, target, "install"));
        again.peer = KsBench::command(files + "xargs -0 md5sum > /dev/null");
        rows.push_back(KsBench::compare(again));
        KsBench::run("rm -rf " + q(target) + " " + q(src) + " " + q(tmp));
    }
    if (KsBench::wanted("medium"))
    {
        smallProduct("medium", mediumFiles, 65536, 20);
        rows.push_back(installRow("install " + std::to_string(mediumFiles) + " x 64 KiB", "medium",
                                  sDir + "/src-medium", sDir + "/tmp-medium", mediumFiles));
        KsBench::run("rm -rf " + q(sDir + "/src-medium") + " " + q(sDir + "/tmp-medium"));
    }
    // The same kind of product at two sizes, a tenth and the whole, so that the growth shows.
    for (const int files : {smallFiles / 10, smallFiles})
    {
        if (!KsBench::wanted("small") || files <= 0)
            continue;
        const std::string name = "small" + std::to_string(files);
        const std::string label = std::to_string(files) + " x 1 KiB";
        smallProduct(name, files, 1024, std::max(1, files / 100));
        rows.push_back(installRow("install " + label, name, sDir + "/src-" + name, sDir + "/tmp-" + name, files));
        const double limit = 2.0 * files / 100000.0;
        rows.push_back(KsBench::limit("planning " + label + " (collect, clone, snapshot)", limit, "s",
                                      [&] { return planning(name, sDir + "/target-" + name); }));
        KsBench::run("rm -rf " + q(sDir + "/src-" + name) + " " + q(sDir + "/tmp-" + name));
    }
    const bool ok = KsBench::report(rows, "product installation");
    if (Engine::instanceAvailable())
        Engine::instanceShutdown();
    return ok ? 0 : 1;
}
