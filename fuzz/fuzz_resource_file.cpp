// Loads arbitrary bytes as a resource file. Any crash found is kept in fuzz/regressions,
// which the unit tests replay.
#include "Engine.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>

namespace
{
bool ignoreFailure(const McResult&) { return true; }
void ignoreContract(DbCEventType, const char*, const char*, unsigned int, const char*, const char*) {}
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
    McDArray<McHandle<KsDeploy::Resource>> loaded;
    KsDeploy::XmlSerializer serializer;
    serializer.deserialize(path, loaded);
    // Touch what was loaded the way the engine would.
    for (int64_t i = 0; i < loaded.size(); ++i)
        (void)loaded[i]->path();
    // Links may form cycles that reference counting alone never frees; break them first.
    for (int64_t i = 0; i < loaded.size(); ++i)
        loaded[i]->linkRemoveTo(nullptr);
    loaded.clear();
    KsDeploy::Engine::instance().resourceUnregisterAll();
    return 0;
}
