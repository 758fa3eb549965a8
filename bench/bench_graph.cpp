// A product graph of 100,000 file entries in 2,000 directories (and one of 10,000 beside it):
// saving and loading against xmllint reading the same file, pool teardown, and the memory a load
// needs. KSDEPLOY_BENCH_GRAPH_ENTRIES sets the larger size.
#include "BenchGraph.h"
#include "BenchHarness.h"
#include "Engine.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

using namespace KsDeploy;

namespace
{
long rssKiB()
{
    FILE* f = std::fopen("/proc/self/statm", "r");
    long pages = 0;
    long resident = 0;
    if (f && std::fscanf(f, "%ld %ld", &pages, &resident) == 2)
        std::fclose(f);
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Loads in a fresh process, so that the peak is the load's own and nothing else's.
long loadPeakKiB(const std::string& inPath)
{
    const std::string command = "/proc/" + std::to_string(getpid()) + "/exe --load-peak '" + inPath + "'";
    FILE* p = popen(command.c_str(), "r");
    long peak = -1;
    if (p && std::fscanf(p, "%ld", &peak) != 1)
        peak = -1;
    if (p)
        pclose(p);
    return peak;
}

int loadPeakChild(const char* inPath)
{
    Engine::instanceInit(environ);
    Engine::instance().quietSet(true);
    const long before = rssKiB();
    std::fflush(stdout);
    const int savedStdout = dup(1);
    if (!std::freopen("/dev/null", "w", stdout))
        return 2;
    XmlSerializer serializer;
    McDArray<McHandle<Resource>> resources;
    serializer.deserialize(QString::fromLocal8Bit(inPath), resources);
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::fflush(stdout);
    dup2(savedStdout, 1);
    std::printf("%ld\n", usage.ru_maxrss - before);
    std::fflush(stdout);
    _exit(0);
}

// The rows for one size: a graph of inEntries file entries is generated, saved once as the file
// both sides read, and then timed.
std::vector<KsBench::Result> rowsFor(int inEntries, int inDirs, const std::string& inDir, bool inPoolRows)
{
    Engine& engine = Engine::instance();
    engine.resourceUnregisterAll();
    const std::string path = inDir + "/product-" + std::to_string(inEntries) + ".xml";
    const QString file = QString::fromStdString(path);
    const QString saved = QString::fromStdString(inDir + "/saved.xml");
    KsBench::graphGenerate(inEntries, inDirs);
    {
        McDArray<McHandle<Resource>> all;
        engine.resources(all);
        XmlSerializer serializer;
        serializer.serialize(file, all);
    }
    const std::string size = std::to_string(inEntries) + " entries";
    const KsBench::Timed lint = KsBench::command("xmllint --noout '" + path + "'");
    const auto load = [&] {
        XmlSerializer serializer;
        McDArray<McHandle<Resource>> loaded;
        serializer.deserialize(file, loaded);
    };
    std::vector<KsBench::Result> rows;

    KsBench::Comparison save;
    save.row = "save " + size;
    save.target = 0.8;
    save.peerName = "xmllint --noout";
    save.ours = KsBench::call([&] {
        McDArray<McHandle<Resource>> all;
        engine.resources(all);
        XmlSerializer serializer;
        serializer.serialize(saved, all);
    });
    save.peer = lint;
    rows.push_back(KsBench::compare(save));

    KsBench::Comparison loading;
    loading.row = "load " + size;
    loading.target = 1.0;
    loading.peerName = "xmllint --noout";
    loading.prepare = [&] { engine.resourceUnregisterAll(); };
    loading.ours = KsBench::call(load);
    loading.peer = lint;
    loading.oursCheck = [&] {
        McDArray<McHandle<Resource>> pool;
        engine.resources(pool);
        return pool.size() > inEntries;
    };
    rows.push_back(KsBench::compare(loading));

    if (inPoolRows)
    {
        const auto fresh = [&] {
            engine.resourceUnregisterAll();
            load();
        };
        rows.push_back(KsBench::limit("unregister the whole pool, " + size, 1.0, "s",
                                      KsBench::call([&] { engine.resourceUnregisterAll(); }), fresh));
        rows.push_back(KsBench::limit(
            "unlink and unregister one by one, " + size, 1.0, "s",
            [&] {
                McDArray<McHandle<Resource>> pool;
                engine.resources(pool);
                return KsBench::timeOf([&] {
                    for (const McHandle<Resource>& r : pool)
                    {
                        engine.resourceUnlink(r);
                        engine.resourceUnregister(r);
                    }
                });
            },
            fresh));
        const double fileKiB = static_cast<double>(QFileInfo(file).size()) / 1024.0;
        // Memory does not drift with the machine's load: one fresh process is enough.
        rows.push_back(KsBench::limit(
            "load peak memory, " + size + " (KiB; limit 3 x file)", 3.0 * fileKiB, "KiB",
            [&] { return static_cast<double>(loadPeakKiB(path)); }, {}, 1));
    }
    engine.resourceUnregisterAll();
    return rows;
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc > 2 && std::string(argv[1]) == "--load-peak")
        return loadPeakChild(argv[2]);
    // The large graph, and one a tenth of its size beside it: the growth should be linear.
    const int entries = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_GRAPH_ENTRIES", 100000, 10000));
    const int dirs = std::max(1, entries / 50);
    const std::string dir = KsBench::scratchDir("graph");

    Engine::instanceInit(environ);
    Engine::instance().quietSet(true);
    // Traces go to the console; a benchmark prints only its figures.
    std::fflush(stdout);
    const int savedStdout = dup(1);
    if (!std::freopen("/dev/null", "w", stdout))
        return 2;
    std::vector<KsBench::Result> rows;
    for (const KsBench::Result& r : rowsFor(std::max(1, entries / 10), std::max(1, dirs / 10), dir, false))
        rows.push_back(r);
    for (const KsBench::Result& r : rowsFor(entries, dirs, dir, true))
        rows.push_back(r);
    std::fflush(stdout);
    dup2(savedStdout, 1);
    const bool ok = KsBench::report(rows, "resource graph");
    Engine::instanceShutdown();
    return ok ? 0 : 1;
}
