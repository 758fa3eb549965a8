#include "RegistryStore.h"

#include "Engine.h"
#include "SpecialFolders.h"

#include <memory>

using namespace KsDeploy;

namespace
{
std::unique_ptr<KsPlatform::Registry> sRegistry;
QString sLocation;

// Local application data: $XDG_DATA_HOME or ~/.local/share on Linux.
const int sCsidlLocalAppData = 0x1C;
}

bool KsDeploy::registryCheck(McResult& inoutResult, const KsPlatform::Status& inStatus, int inLine,
                             const char* inFile, const char* inPrettyFunction)
{
    if (inStatus.isOk())
        return false;
    const std::string condition = "val[" + std::to_string(inStatus.code) + "]  exp[0]";
    return McLib::checkStep(inoutResult, false, inLine, inFile, inPrettyFunction, inStatus.text, condition.c_str());
}

QString RegistryStore::location()
{
    QString path;
    if (Engine::instanceAvailable())
        path = Engine::instance().environmentLookup(QStringLiteral("KSDEPLOY_REGISTRY"));
    if (path.isEmpty())
    {
        std::string dataHome;
        KsPlatform::specialFolderPath(sCsidlLocalAppData, dataHome);
        path = QString::fromLocal8Bit(dataHome.c_str()) + QStringLiteral("/ksdeploy/registry.sqlite");
    }
    return path;
}

McResult RegistryStore::instance(KsPlatform::Registry*& outRegistry)
{
    McResult retVal;
    const QString where = location();
    if (!sRegistry || where != sLocation)
    {
        // Never switch stores in the middle of a batch of changes.
        if (MC_CHECK(retVal, !sRegistry || sRegistry->transactionDepth() == 0,
                     QStringLiteral("registry store changed to '%1' during a transaction").arg(where)))
            return retVal;
        sRegistry.reset();
        KsPlatform::Status status;
        std::unique_ptr<KsPlatform::Registry> opened = KsPlatform::Registry::open(where.toLocal8Bit().toStdString(), status);
        if (KS_CHECK_REGISTRY(retVal, status))
            return retVal;
        sRegistry = std::move(opened);
        sLocation = where;
    }
    outRegistry = sRegistry.get();
    return retVal;
}

void RegistryStore::close()
{
    sRegistry.reset();
    sLocation.clear();
}

bool RegistryStore::splitPath(const QString& inPath, KsPlatform::RegistryRoot& outRoot, std::string& outSubPath)
{
    return KsPlatform::registrySplitPath(inPath.toLatin1().toStdString(), outRoot, outSubPath);
}

RegistryTransaction::RegistryTransaction()
{
    mBegin = RegistryStore::instance(mRegistry);
    if (mBegin.isOk() && !KS_CHECK_REGISTRY(mBegin, mRegistry->transactionBegin()))
        mOpen = true;
}

RegistryTransaction::~RegistryTransaction()
{
    if (mOpen)
        rollback();
}

McResult RegistryTransaction::commit()
{
    McResult retVal;
    if (MC_CHECK(retVal, mOpen, "registry transaction is not open"))
        return retVal;
    mOpen = false;
    KS_CHECK_REGISTRY(retVal, mRegistry->transactionCommit());
    return retVal;
}

McResult RegistryTransaction::rollback()
{
    McResult retVal;
    if (MC_CHECK(retVal, mOpen, "registry transaction is not open"))
        return retVal;
    mOpen = false;
    KS_CHECK_REGISTRY(retVal, mRegistry->transactionRollback());
    return retVal;
}
