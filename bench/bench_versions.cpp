// This build's ksdeploy against another build of it (KSDEPLOY_BENCH_BEFORE=/path/to/ksdeploy), on
// the rows a change must not make slower: loading 100,000 entries, installing 10,000 files from
// a warm cache, and 1,000 items of 16 KiB from nginx (".lzma" copies published, and plain only)
// into an empty cache. Both programs are run as a user runs them, in turns; the ratio is
// this build / the other, and the target is that it does not grow. Without
// KSDEPLOY_BENCH_BEFORE the program prints that it has nothing to compare and succeeds.
#include "BenchGraph.h"
#include "BenchHarness.h"
#include "BenchNginx.h"
#include "Engine.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace KsDeploy;

namespace
{
std::string q(const std::string& inPath) { return "'" + inPath + "'"; }

std::string ks(const std::string& inBin, const std::string& inTmp, const std::string& inArgs)
{
    return "TMPDIR=" + q(inTmp) + " " + q(inBin) + " --flags quiet=true " + inArgs + " > /dev/null";
}

bool holds(const std::string& inRoot, int inFiles)
{
    return KsBench::run("test \"$(find " + q(inRoot) + " -type f | wc -l)\" -eq " + std::to_string(inFiles)) == 0;
}

// A tree of inFiles files (1 KiB plus up to 200 KiB, every other one text-like) in inFolders.
void makeTree(const std::string& inRoot, int inFiles, int inFolders, unsigned inMinBytes, unsigned inSpread)
{
    unsigned seed = 12345;
    for (int i = 0; i < inFiles; ++i)
    {
        seed = seed * 1103515245u + 12345u;
        const unsigned bytes = inMinBytes + (inSpread ? (seed >> 8) % inSpread : 0);
        KsBench::makeFile(inRoot + "/d" + std::to_string(i % inFolders) + "/f" + std::to_string(i) + ".bin", bytes,
                          i % 2 == 0, static_cast<unsigned>(i) + 1);
    }
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const char* before = std::getenv("KSDEPLOY_BENCH_BEFORE");
    if (!before || !*before)
    {
        std::printf("bench_versions: KSDEPLOY_BENCH_BEFORE names no other build; nothing to compare\n");
        return 0;
    }
    for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qunsetenv(v);
    const std::string after = QCoreApplication::applicationDirPath().toStdString() + "/ksdeploy";
    const std::string other = before;
    const std::string dir = KsBench::scratchDir("versions");
    std::vector<KsBench::Result> rows;
    const auto versus = [&](const std::string& inRow, const std::function<std::string(const std::string&)>& inCommand,
                            const std::function<void()>& inPrepare, const std::function<bool()>& inCheck) {
        KsBench::Comparison c;
        c.row = inRow;
        c.target = 1.0;
        c.peerName = "the other build";
        c.prepare = inPrepare;
        // The command is made anew for every run: a run may have a folder of its own.
        c.ours = [&] { return KsBench::timeCommand(inCommand(after)); };
        c.peer = [&] {
            const double t = KsBench::timeCommand(inCommand(other));
            if (inCheck && !inCheck())
            {
                std::fprintf(stderr, "bench: %s: the other build did not do its work\n", inRow.c_str());
                std::exit(2);
            }
            return t;
        };
        c.oursCheck = inCheck;
        rows.push_back(KsBench::compare(c));
    };

    if (KsBench::wanted("load"))
    {
        const int entries = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_GRAPH_ENTRIES", 100000, 10000));
        Engine::instanceInit(environ);
        Engine::instance().quietSet(true);
        std::fflush(stdout);
        const int saved = dup(1);
        if (!std::freopen("/dev/null", "w", stdout))
            return 2;
        KsBench::graphGenerate(entries, std::max(1, entries / 50));
        McDArray<McHandle<Resource>> all;
        Engine::instance().resources(all);
        XmlSerializer serializer;
        serializer.serialize(QString::fromStdString(dir + "/big.xml"), all);
        all = McDArray<McHandle<Resource>>();
        std::fflush(stdout);
        dup2(saved, 1);
        ::close(saved);
        Engine::instanceShutdown();
        KsBench::run("mkdir -p " + q(dir + "/tmp-load"));
        versus("load " + std::to_string(entries) + " entries",
               [&](const std::string& inBin) {
                   return ks(inBin, dir + "/tmp-load", "--load file=" + q(dir + "/big.xml"));
               },
               {}, {});
    }
    if (KsBench::wanted("install"))
    {
        const int files = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_INSTALL_FILES", 10000, 300));
        const std::string src = dir + "/src", tmp = dir + "/tmp-install", target = dir + "/target";
        makeTree(src, files, 100, 1024, 204800);
        KsBench::run("mkdir -p " + q(tmp));
        if (KsBench::run(ks(after, tmp,
                            "--generate type=directory path=" + q(src) + " 'name=${TARGET}' product=P --save target=" +
                                q(dir + "/mixed.xml") + " --cache action=precache dir=" + q(src))) != 0)
            return 2;
        versus(
            "install " + std::to_string(files) + " files from a warm cache",
            [&](const std::string& inBin) {
                return ks(inBin, tmp,
                          "--load file=" + q(dir + "/mixed.xml") + " --config TARGET=" + q(target) +
                              " --product action=install");
            },
            [&] { KsBench::run("rm -rf " + q(target)); }, [&] { return holds(target, files); });
        KsBench::run("rm -rf " + q(src) + " " + q(tmp) + " " + q(target));
    }
    if (KsBench::wanted("items"))
    {
        const int items = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_ITEMS", 1000, 200));
        const std::string www = dir + "/www", tmp = dir + "/tmp-items";
        for (int i = 0; i < items; ++i)
            KsBench::makeFile(dir + "/items/f" + std::to_string(i), 16384, i % 2 == 0, static_cast<unsigned>(1000 + i));
        // The items are published under their digests, plain in one folder and packed in another.
        KsBench::run("mkdir -p " + q(tmp) + " " + q(www + "/plain") + " " + q(www + "/lzma"));
        if (KsBench::run(ks(after, tmp,
                            "--generate type=directory path=" + q(dir + "/items") +
                                " 'name=${TARGET}' product=P --save target=" + q(dir + "/items.xml") +
                                " --cache action=precache dir=" + q(dir + "/items") + " targetdir=" +
                                q(www + "/plain") + " --cache action=precache dir=" + q(dir + "/items") +
                                " compress=true targetdir=" + q(www + "/lzma"))) != 0)
            return 2;
        KsBench::BenchNginx nginx(www);
        for (const std::string kind : {"lzma", "plain"})
        {
            // A fresh folder per run, deleted only when the row is done: freed inodes slow the
            // next creations on this file system, which would charge one side for the other.
            int count = 0;
            std::string run;
            versus(
                "fetch and install " + std::to_string(items) + " x 16 KiB, " +
                    (kind == "lzma" ? ".lzma published" : "plain only"),
                [&](const std::string& inBin) {
                    return ks(inBin, run + "/tmp",
                              "--load file=" + q(dir + "/items.xml") + " --config TARGET=" + q(run + "/target") +
                                  " --product action=install url=" + nginx.url() + "/" + kind);
                },
                [&] {
                    run = dir + "/run-" + kind + "-" + std::to_string(++count);
                    KsBench::run("mkdir -p " + q(run + "/tmp"));
                },
                [&] { return holds(run + "/target", items); });
            KsBench::run("rm -rf " + q(dir) + "/run-*");
        }
    }
    return KsBench::report(rows, "this build / the other build") ? 0 : 1;
}
