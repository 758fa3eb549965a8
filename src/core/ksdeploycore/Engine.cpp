#include "Engine.h"

#include "Cache.h"
#include "Common.h"
#include "ConsoleProgress.h"
#include "Plugin.h"
#include "Resource.h"
#include "ResourcePoolIndex.h"
#include "SpecialFolders.h"
#include "WidgetProgress.h"

#include <QDir>
#include <QFileInfo>

#include <cstdio>

using namespace KsDeploy;

Engine* Engine::sInstance = nullptr;
bool Engine::sIsShutdown = false;

Engine::Engine()
    : mCache(new Cache([this](QString& outValue) {
          // By default the cache is the maintenance directory's "Cache" folder.
          McResult retVal = pathOfMaintenanceDir(outValue);
          if (retVal.isOk())
              outValue += QStringLiteral("/Cache");
          return retVal;
      })),
      mPoolIndex(new ResourcePoolIndex)
{
}

// Copies describe the same state but own neither the cache nor the progress sink.
Engine::Engine(const Engine& inOther)
    : mListOfEnvVal(inOther.mListOfEnvVal), mListOfResource(inOther.mListOfResource),
      mConfiguration(inOther.mConfiguration), mQuiet(inOther.mQuiet), mListOfPlugin(inOther.mListOfPlugin),
      mPoolIndex(new ResourcePoolIndex(*inOther.mPoolIndex))
{
}

Engine& Engine::operator=(const Engine& inOther)
{
    if (this != &inOther)
    {
        mListOfEnvVal = inOther.mListOfEnvVal;
        mListOfResource = inOther.mListOfResource;
        mConfiguration = inOther.mConfiguration;
        mQuiet = inOther.mQuiet;
        mListOfPlugin = inOther.mListOfPlugin;
        mPoolIndex.reset(new ResourcePoolIndex(*inOther.mPoolIndex));
    }
    return *this;
}

Engine::~Engine()
{
    MC_ASSERT(mCache==0);
    // Links may form cycles that reference counting alone never frees: break them, since
    // the whole graph goes with the engine.
    for (int64_t i = 0; i < mListOfResource.size(); ++i)
        if (mListOfResource[i].isNotNull())
            mListOfResource[i]->linkRemoveTo(nullptr);
}

void Engine::instanceInit(char** inKeyValueList)
{
    MC_REQUIRE(sInstance==0);
    MC_ASSERT(!sIsShutdown);
    if (sInstance)
    {
        // A second engine replaces the first; release the first rather than leak it.
        Engine* previous = sInstance;
        delete previous->mProgress;
        previous->mProgress = nullptr;
        delete previous->mCache;
        previous->mCache = nullptr;
        delete previous;
    }
    sInstance = new Engine;
    sInstance->sandboxRemovePending();
    if (!inKeyValueList || !inKeyValueList[0])
    {
        sInstance->startRecover();
        return;
    }
    for (char** entry = inKeyValueList; *entry; ++entry)
    {
        const QString text = QString::fromLatin1(*entry);
        const int posEq = text.indexOf(QLatin1Char('='), 0, Qt::CaseSensitive);
        MC_ASSERT(posEq>0);
        if (posEq < 1)
            continue;
        const QString key = text.left(posEq);
        MC_DBC_TEXT(DbCCheck, !sInstance->mListOfEnvVal.contains(key), "!sInstance->mListOfEnvVal.contains(key)");
        sInstance->mListOfEnvVal.insert(key, text.mid(posEq + 1));
    }
    sInstance->startRecover();
}

Engine& Engine::instance()
{
    MC_REQUIRE(instanceAvailable());
    return *sInstance;
}

bool Engine::instanceAvailable() { return sInstance != nullptr; }

void Engine::instanceShutdown()
{
    if (sIsShutdown)
        return;
    sIsShutdown = true;
    if (!sInstance)
        return;
    if (sInstance->mProgress)
    {
        delete sInstance->mProgress;
        sInstance->mProgress = nullptr;
    }
    if (sInstance->mCache)
    {
        delete sInstance->mCache;
        sInstance->mCache = nullptr;
    }
    delete sInstance;
    sInstance = nullptr;
}

void Engine::instanceTestReset()
{
    instanceShutdown();
    sIsShutdown = false;
}

Cache& Engine::cache()
{
    MC_ASSERT(mCache!=0);
    return *mCache;
}

Progress& Engine::progress()
{
    if (mProgress)
        return *mProgress;
    if (!mQuiet && WidgetProgress::available())
    {
        mProgress = new WidgetProgress(nullptr);
        mProgress->show();
        mProgress->raise();
        return *mProgress;
    }
    mProgress = new ConsoleProgress;
    if (!mQuiet)
    {
        // Without a display the run goes on on the console rather than abort; said once.
        static bool sFallbackSaid = false;
        if (!sFallbackSaid)
        {
            sFallbackSaid = true;
            std::fputs("ksdeploy: no display available, progress is shown on the console\n", stderr);
            std::fflush(stderr);
        }
    }
    return *mProgress;
}

void Engine::quietSet(bool inQuiet)
{
    mQuiet = inQuiet;
    if (!mProgress)
        return;
    if (!inQuiet)
    {
        mProgress->show();
        mProgress->raise();
    }
    else
    {
        mProgress->close();
    }
}

void Engine::trace(McResult inResult)
{
    const bool ok = inResult.isOk();
    const QString text = ok ? QStringLiteral("...ok") : QStringLiteral("...failed");
    progress().print(text);
    getTheLogInstance().tracef(ok ? McLogLevelInfo : McLogLevelError, "KsDeploy", "%s", text.toLatin1().constData());
}

void Engine::trace(McLogLevel inLevel, const QString& inText)
{
    progress().print(inText);
    getTheLogInstance().tracef(inLevel, "KsDeploy", "%s", inText.toLatin1().constData());
}

McResult Engine::pathOfMaintenanceDir(QString& outValue) const
{
    McResult retVal;
    // The user's temporary directory; never the root file system, never a folder shared with
    // other users (see KsPlatform::userTempDir).
    std::string tempDir;
    std::string problem;
    const bool tempDirIsUsers = KsPlatform::userTempDir(tempDir, problem);
    outValue = QStringLiteral("%1/Kestra Imaging/Auto Update").arg(QString::fromLocal8Bit(tempDir.c_str()));
    if (MC_CHECK_DETAIL(retVal, tempDirIsUsers,
                        QStringLiteral("Failed to access maintenance directory [%1]").arg(outValue),
                        tempDir + ": " + problem))
    {
        outValue.clear();
        return retVal;
    }
    directoryEnsure(retVal, outValue, QStringLiteral("Failed to access maintenance directory [%1]").arg(outValue));
    return retVal;
}

McResult Engine::pathToCache(QString& outValue) const
{
    McResult retVal;
    // A copy of the engine has no cache of its own.
    if (MC_CHECK(retVal, mCache!=0, "Internal Error"))
        return retVal;
    return mCache->path(outValue);
}

void Engine::pathToCacheSet(const QString& inPath)
{
    // A copy of the engine has no cache of its own (see pathToCache).
    MC_ASSERT(mCache!=0);
    if (mCache)
        mCache->pathSet(inPath);
}
