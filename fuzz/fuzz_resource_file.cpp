// Loads arbitrary bytes as a resource file. Any crash found is kept in fuzz/regressions,
// which the unit tests replay.
#include "Engine.h"
#include "Resource.h"
#include "ResourceFactory.h"
#include "XmlSerializer.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

namespace
{
bool ignoreFailure(const McResult&) { return true; }
void ignoreContract(DbCEventType, const char*, const char*, unsigned int, const char*, const char*) {}

// Loads the file and says what came of it: each resource's class, name and links.
std::vector<QString> loadOnce(const QString& inPath)
{
    McDArray<McHandle<KsDeploy::Resource>> loaded;
    KsDeploy::XmlSerializer serializer;
    serializer.deserialize(inPath, loaded);
    std::vector<QString> seen;
    for (int64_t i = 0; i < loaded.size(); ++i)
    {
        // Touch what was loaded the way the engine would.
        (void)loaded[i]->path();
        QString line = KsDeploy::ResourceFactory::className(loaded[i].ptr()) + QLatin1Char(' ') + loaded[i]->name();
        for (const McHandle<KsDeploy::Link>& l : loaded[i]->links())
            line += QLatin1Char(' ') + l->name() + QLatin1Char('>') + l->target().name();
        seen.push_back(line);
    }
    // Links may form cycles that reference counting alone never frees; break them first.
    for (int64_t i = 0; i < loaded.size(); ++i)
        loaded[i]->linkRemoveTo(nullptr);
    loaded.clear();
    KsDeploy::Engine::instance().resourceUnregisterAll();
    return seen;
}
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* inData, size_t inSize)
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = new QCoreApplication(argc, argv);
    static QTemporaryDir* dir = new QTemporaryDir;
    static bool initialised = false;
    if (!initialised)
    {
        (void)app;
        std::freopen("/dev/null", "w", stdout);
        mc_DbC_callbackSet(&ignoreContract);
        McResult::notificationCallbackAdd(&ignoreFailure);
        KsDeploy::Engine::instanceInit(nullptr);
        KsDeploy::Engine::instance().quietSet(true);
        initialised = true;
    }
    const QString path = dir->path() + "/input.xml";
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return 0;
    f.write(reinterpret_cast<const char*>(inData), static_cast<qint64>(inSize));
    f.close();
    // Read on two threads (whatever the size) and on one: both must leave the same resources.
    KsDeploy::XmlSerializer::parallelLoadBytesSet(0);
    const std::vector<QString> two = loadOnce(path);
    KsDeploy::XmlSerializer::parallelLoadBytesSet(std::numeric_limits<int64_t>::max());
    const std::vector<QString> one = loadOnce(path);
    if (one != two)
        std::abort();
    return 0;
}
