// A product graph of 100,000 file entries in 2,000 directories: saving and loading against
// xmllint reading the same file, pool teardown, and the memory a load needs.
#include "BenchHarness.h"
#include "Engine.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"
#include "XmlSerializer.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

using namespace KsDeploy;

namespace
{
void generate(int inEntries, int inDirs)
{
    McHandle<ResourceFileDirectory> root(new ResourceFileDirectory);
    root->nameSet(QStringLiteral("${TARGET}"));
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet(QStringLiteral("Big"));
    product->applicationDirectorySet(root);
    McDArray<McHandle<ResourceFileDirectory>> dirs;
    for (int d = 0; d < inDirs; ++d)
    {
        McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
        dir->nameSet(QStringLiteral("dir%1").arg(d));
        dir->containerSet(d == 0 ? root : dirs[(d - 1) / 4]);
        dirs.append(dir);
    }
    for (int i = 0; i < inEntries; ++i)
    {
        McHandle<ResourceFileEntry> entry(new ResourceFileEntry);
        entry->nameSet(QStringLiteral("file%1.dat").arg(i));
        entry->containerSet(dirs[i % inDirs]);
        McLib::MD5 md5;
        for (int b = 0; b < 16; ++b)
            md5.data()[b] = static_cast<unsigned char>((i * 31 + b * 7) & 0xff);
        entry->bufferIdSet(BufferID(md5));
    }
}

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
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc > 2 && std::string(argv[1]) == "--load-peak")
        return loadPeakChild(argv[2]);
    const int entries = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int dirs = argc > 2 ? std::atoi(argv[2]) : 2000;
    const std::string dir = KsBench::scratchDir("graph");
    const QString file = QString::fromStdString(dir + "/product.xml");

    Engine::instanceInit(environ);
    Engine& engine = Engine::instance();
    engine.quietSet(true);
    // Traces go to the console; a benchmark prints only its figures.
    std::fflush(stdout);
    const int savedStdout = dup(1);
    if (!std::freopen("/dev/null", "w", stdout))
        return 2;

    generate(entries, dirs);
    McDArray<McHandle<Resource>> all;
    engine.resources(all);
    const double tSave = KsBench::timeBest([&] {
        XmlSerializer serializer;
        serializer.serialize(file, all);
    });
    all = McDArray<McHandle<Resource>>();
    const double tLint = KsBench::timeCommand("xmllint --noout '" + dir + "/product.xml'");

    double tLoad = 1e9;
    double tUnregisterAll = 1e9;
    double tOneByOne = 1e9;
    for (int round = 0; round < 3; ++round)
    {
        engine.resourceUnregisterAll();
        McDArray<McHandle<Resource>> loaded;
        tLoad = std::min(tLoad, KsBench::timeBest(
                                    [&] {
                                        XmlSerializer serializer;
                                        serializer.deserialize(file, loaded);
                                    },
                                    1));
        if (round == 0)
            tUnregisterAll = KsBench::timeBest([&] { engine.resourceUnregisterAll(); }, 1);
        else
        {
            McDArray<McHandle<Resource>> pool;
            engine.resources(pool);
            tOneByOne = std::min(tOneByOne, KsBench::timeBest(
                                                [&] {
                                                    for (const McHandle<Resource>& r : pool)
                                                    {
                                                        engine.resourceUnlink(r);
                                                        engine.resourceUnregister(r);
                                                    }
                                                },
                                                1));
        }
    }
    const long peak = loadPeakKiB(dir + "/product.xml");
    const double fileKiB = static_cast<double>(QFileInfo(file).size()) / 1024.0;
    std::fflush(stdout);
    dup2(savedStdout, 1);

    const std::string size = std::to_string(entries) + " entries";
    const bool ok = KsBench::report(
        {{"load " + size, tLoad, tLint, "xmllint --noout", 1.5},
         {"save " + size, tSave, tLint, "xmllint --noout", 1.0},
         {"unregister the whole pool", tUnregisterAll, 1.0, "1 second", 1.0},
         {"unlink and unregister one by one", tOneByOne, 1.0, "1 second", 1.0},
         {"load peak memory (KiB vs 3 x file KiB)", static_cast<double>(peak), 3.0 * fileKiB, "3 x file size",
          1.0}},
        "resource graph");
    Engine::instanceShutdown();
    return ok ? 0 : 1;
}
