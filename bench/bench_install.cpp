// Installing products with the real ksdeploy binary against cp -r and md5sum on the same tree:
// 10,000 files (about 1 GiB, mixed sizes) from a warm cache, verify, reinstall in place; then
// 100,000 files of 1 KiB, and the planning of such an install in-process.
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
        const std::string path =
            inRoot + "/d" + std::to_string(i % inFolders) + "/f" + std::to_string(i) + ".bin";
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
    if (KsBench::run(ks(inTmp, "--generate type=directory path='" + inSrc + "' 'name=${TARGET}' product=P "
                                "--save target='" + sDir + "/" + inName + ".xml' "
                                "--cache action=precache dir='" + inSrc + "'")) != 0)
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

double planning(const std::string& inName, const std::string& inTarget)
{
    Engine::instanceInit(environ);
    Engine& engine = Engine::instance();
    engine.quietSet(true);
    std::fflush(stdout);
    const int savedStdout = dup(1);
    if (!std::freopen("/dev/null", "w", stdout))
        std::exit(2);
    XmlSerializer serializer;
    McDArray<McHandle<Resource>> loaded;
    serializer.deserialize(QString::fromStdString(sDir + "/" + inName + ".xml"), loaded);
    engine.configuration().valueSet(QStringLiteral("TARGET"), QString::fromStdString(inTarget), false);
    const double t = KsBench::timeBest(
        [&] {
            McDArray<McHandle<Resource>> all;
            engine.productResources(QStringLiteral("P"), all);
            engine.productTransactionBegin(QStringLiteral("P"));
            engine.productTransactionCommit(QStringLiteral("P"));
        },
        1);
    std::fflush(stdout);
    dup2(savedStdout, 1);
    Engine::instanceShutdown();
    return t;
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // Scale: 1 = the full sizes (10,000 files of about 1 GiB; 100,000 files of 1 KiB).
    const double scale = argc > 1 ? std::atof(argv[1]) : 1.0;
    const int bigFiles = static_cast<int>(10000 * scale);
    const int smallFiles = static_cast<int>(100000 * scale);
    sBin = std::string(QCoreApplication::applicationDirPath().toStdString()) + "/ksdeploy";
    sDir = KsBench::scratchDir("install");

    // KSDEPLOY_BENCH_ONLY=durability: only the cost of surviving a crash, on both product sizes.
    const char* only = std::getenv("KSDEPLOY_BENCH_ONLY");
    if (only && std::strcmp(only, "durability") == 0)
    {
        const int rounds = std::max(5, std::atoi(std::getenv("KSDEPLOY_BENCH_ROUNDS") ? std::getenv("KSDEPLOY_BENCH_ROUNDS") : "5"));
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

    const std::string src = sDir + "/src";
    const std::string tmp = sDir + "/tmp";
    makeTree(src, bigFiles, 100, 1024, 204800);
    prepare("mixed", src, tmp);
    KsBench::run("cat $(find '" + src + "' -type f) > /dev/null");

    const std::string target = sDir + "/target";
    const std::string copy = sDir + "/copy";
    double tInstall = 1e9;
    double tCopy = 1e9;
    // Writes of the previous step are flushed first, and the two sides take turns going first,
    // so that neither pays for the other's write-back.
    for (int round = 0; round < 2; ++round)
    {
        KsBench::run("rm -rf '" + target + "' '" + copy + "'; sync");
        const auto ours = [&] {
            tInstall = std::min(tInstall, KsBench::timeCommand(product("mixed", tmp, target, "install"), 1));
            KsBench::run("sync");
        };
        const auto peer = [&] {
            tCopy = std::min(tCopy, KsBench::timeCommand("cp -r '" + src + "' '" + copy + "'", 1));
            KsBench::run("sync");
        };
        if (round == 0)
            ours(), peer();
        else
            peer(), ours();
    }
    if (KsBench::run("diff -r '" + src + "' '" + target + "'") != 0)
    {
        std::fprintf(stderr, "installed tree differs from the source\n");
        return 1;
    }
    const double tVerify = KsBench::timeCommand(product("mixed", tmp, target, "verify"));
    const double tMd5 = KsBench::timeCommand("find '" + target + "' -type f -print0 | xargs -0 md5sum > /dev/null");
    const double tReinstall = KsBench::timeCommand(product("mixed", tmp, target, "install"));
    KsBench::run("rm -rf '" + target + "' '" + copy + "' '" + tmp + "' '" + src + "'");

    const std::string small = sDir + "/small";
    const std::string tmpSmall = sDir + "/tmp-small";
    makeTree(small, smallFiles, 1000, 1024, 0);
    prepare("small", small, tmpSmall);
    const std::string targetSmall = sDir + "/target-small";
    const std::string copySmall = sDir + "/copy-small";
    const double tPlanning = planning("small", targetSmall);
    double tInstallSmall = 1e9;
    double tCopySmall = 1e9;
    for (int round = 0; round < 2; ++round)
    {
        KsBench::run("rm -rf '" + targetSmall + "' '" + copySmall + "'; sync");
        const auto ours = [&] {
            tInstallSmall = std::min(
                tInstallSmall, KsBench::timeCommand(product("small", tmpSmall, targetSmall, "install"), 1));
            KsBench::run("sync");
        };
        const auto peer = [&] {
            tCopySmall = std::min(tCopySmall, KsBench::timeCommand("cp -r '" + small + "' '" + copySmall + "'", 1));
            KsBench::run("sync");
        };
        if (round == 0)
            ours(), peer();
        else
            peer(), ours();
    }

    const std::string big = std::to_string(bigFiles) + " files";
    const std::string few = std::to_string(smallFiles) + " x 1 KiB";
    const bool ok = KsBench::report({{"install " + big + " from a warm cache", tInstall, tCopy, "cp -r", 1.3},
                                     {"verify " + big, tVerify, tMd5, "md5sum", 1.1},
                                     {"install " + big + " again, all in place", tReinstall, tMd5, "md5sum", 1.5},
                                     {"install " + few, tInstallSmall, tCopySmall, "cp -r", 1.5},
                                     {"planning " + few + " (collect, clone, snapshot)", tPlanning, 2.0, "2 seconds",
                                      1.0}},
                                    "product installation");
    return ok ? 0 : 1;
}
