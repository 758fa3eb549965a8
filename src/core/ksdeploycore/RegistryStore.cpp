#include "RegistryStore.h"

#include "Engine.h"
#include "SpecialFolders.h"

#include <memory>

using namespace KsDeploy;

namespace
{
std::unique_ptr<KsPlatform::Registry> sRegistry;
QString sLocation;
// The host's choice of store file; empty for the default.
QString sLocationChosen;
// Live RegistryTransaction scopes; the store transactions for them begin on first access.
int sScopes = 0;
// How many of those scopes have begun a transaction on the open store.
int sBegun = 0;
// The level of a scope whose transaction could not begin (0: none), and why. Later accesses
// within it fail at once instead of waiting for a busy store again for every resource.
int sRefusedLevel = 0;
KsPlatform::Status sRefused;

void scopeEnded(int inLevel)
{
    if (sRefusedLevel >= inLevel)
        sRefusedLevel = 0;
}

// Local application data: $XDG_DATA_HOME or ~/.local/share on Linux.
const int sCsidlLocalAppData = 0x1C;
}

bool KsDeploy::registryCheck(McResult& inoutResult, const KsPlatform::Status& inStatus, int inLine, const char* inFile,
                             const char* inPrettyFunction)
{
    if (inStatus.isOk())
        return false;
    const std::string condition = "val[" + std::to_string(inStatus.code) + "]  exp[0]";
    return McLib::checkStep(inoutResult, false, inLine, inFile, inPrettyFunction, inStatus.text, condition.c_str());
}

QString RegistryStore::location()
{
    QString path = sLocationChosen;
    if (path.isEmpty())
    {
        std::string dataHome;
        KsPlatform::specialFolderPath(sCsidlLocalAppData, dataHome);
        path = QString::fromLocal8Bit(dataHome.c_str()) + QStringLiteral("/ksdeploy/registry.sqlite");
    }
    return path;
}

void RegistryStore::locationSet(const QString& inPath) { sLocationChosen = inPath; }

McResult RegistryStore::instance(KsPlatform::Registry*& outRegistry)
{
    McResult retVal;
    outRegistry = nullptr;
    const QString where = location();
    if (!sRegistry || where != sLocation)
    {
        // Never switch stores in the middle of a batch of changes.
        if (MC_CHECK(retVal, sBegun == 0,
                     QStringLiteral("registry store changed to '%1' during a transaction").arg(where)))
            return retVal;
        sRegistry.reset();
        sLocation.clear();
        KsPlatform::Status status;
        std::unique_ptr<KsPlatform::Registry> opened =
            KsPlatform::Registry::open(where.toLocal8Bit().toStdString(), status);
        if (KS_CHECK_REGISTRY(retVal, status))
            return retVal;
        sRegistry = std::move(opened);
        sLocation = where;
    }
    // The scopes opened before this first access begin their transactions now, outermost first.
    if (sRefusedLevel > 0 && sBegun < sScopes)
    {
        KS_CHECK_REGISTRY(retVal, sRefused);
        return retVal;
    }
    while (sBegun < sScopes)
    {
        const KsPlatform::Status status = sRegistry->transactionBegin();
        if (KS_CHECK_REGISTRY(retVal, status))
        {
            sRefusedLevel = sBegun + 1;
            sRefused = status;
            return retVal;
        }
        ++sBegun;
    }
    outRegistry = sRegistry.get();
    return retVal;
}

void RegistryStore::close()
{
    // Closing would silently undo the changes of a live scope: the connection stays until it ends.
    MC_DBC_TEXT(DbCCheck, sBegun == 0, "sBegun == 0");
    if (sBegun > 0)
        return;
    sRegistry.reset();
    sLocation.clear();
    sBegun = 0;
}

bool RegistryStore::splitPath(const QString& inPath, KsPlatform::RegistryRoot& outRoot, std::string& outSubPath)
{
    return KsPlatform::registrySplitPath(inPath.toLatin1().toStdString(), outRoot, outSubPath);
}

RegistryTransaction::RegistryTransaction() : mLevel(++sScopes) {}

RegistryTransaction::~RegistryTransaction()
{
    if (mOpen)
        rollback();
}

bool RegistryTransaction::isBegun() const { return mOpen && sBegun >= mLevel; }

McResult RegistryTransaction::commit() { return end(true); }

McResult RegistryTransaction::rollback() { return end(false); }

McResult RegistryTransaction::end(bool inCommit)
{
    McResult retVal;
    if (MC_CHECK(retVal, mOpen, "registry transaction is not open"))
        return retVal;
    // Scopes end innermost first, as they are objects on the stack.
    MC_DBC_TEXT(DbCCheck, mLevel == sScopes, "mLevel == sScopes");
    const bool begun = isBegun();
    mOpen = false;
    --sScopes;
    scopeEnded(mLevel);
    if (!begun)
        return retVal;
    --sBegun;
    KS_CHECK_REGISTRY(retVal, inCommit ? sRegistry->transactionCommit() : sRegistry->transactionRollback());
    return retVal;
}
