// The product installed in an application folder, found through the uninstall entries of the
// registry, and its uninstallation by the command the entry names.
#include "Common.h"

#include "Engine.h"
#include "QxFile.h"
#include "QxProcess.h"
#include "RegistryStore.h"
#include "ResourceRegistryValue.h"

#include "Process.h"

#include <QDir>
#include <QProcessEnvironment>
#include <QStandardPaths>

using namespace KsDeploy;

namespace
{
const char* const sUninstallKeyPath = "%1\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall";
// Machine-wide entries first, then the user's own.
const char* const sHives[] = {"HKEY_LOCAL_MACHINE", "HKEY_CURRENT_USER"};

struct UninstallEntry
{
    McHandle<ResourceRegistryKey> key;
    bool isPerMachine = false;
    QString uninstallCmd;  // QuietUninstallString, else UninstallString
};

// The key and value resources read for the look-up are temporary: they leave the pool again on
// every path, so that no product ever sees them.
class TemporaryResources
{
public:
    ~TemporaryResources()
    {
        if (!Engine::instanceAvailable())
            return;
        for (int64_t i = mList.size() - 1; i >= 0; --i)
            Engine::instance().resourceUnregister(mList[i]);
    }
    void add(Resource* inResource) { mList.append(McHandle<Resource>(inResource)); }

private:
    McDArray<McHandle<Resource>> mList;
};

// Whether the key exists, without reporting a missing key as a failure; a store that cannot be
// read is one.
McResult keyIsPresent(const ResourceRegistryKey& inKey, bool& outPresent)
{
    outPresent = false;
    ResourceRegistryKey::Place at;
    McResult retVal = inKey.locate(at);
    if (retVal.isBad())
        return retVal;
    const KsPlatform::Status status = at.registry->keyOpen(at.root, at.path);
    outPresent = status.isOk();
    if (status.code != KsPlatform::RegistryNotFound)
        KS_CHECK_REGISTRY(retVal, status);
    return retVal;
}

QString valueText(const McDArray<McHandle<ResourceRegistryValue>>& inValues, const QString& inName)
{
    // Value names compare without regard to letter case, as in the registry itself.
    for (int64_t i = 0; i < inValues.size(); ++i)
        if (inValues[i]->name().compare(inName, Qt::CaseInsensitive) == 0)
            return inValues[i]->value();
    return QString();
}

bool sameDirectory(const QString& inA, const QString& inB)
{
    if (inA.trimmed().isEmpty() || inB.trimmed().isEmpty())
        return false;
    return QxBase::File::pathsPointToTheSameFile(QDir::cleanPath(inA.trimmed()), QDir::cleanPath(inB.trimmed()));
}

// Every uninstall entry whose InstallLocation is inAppDir, read with a routine of its own.
McResult uninstallEntries(const QString& inAppDir, QList<UninstallEntry>& outEntries, TemporaryResources& inoutTemp)
{
    McResult retVal;
    outEntries.clear();
    for (const char* hive : sHives)
    {
        McHandle<ResourceRegistryKey> uninstallKey(new ResourceRegistryKey);
        inoutTemp.add(uninstallKey.ptr());
        uninstallKey->nameSet(QString::fromLatin1(sUninstallKeyPath).arg(QLatin1String(hive)));
        bool present = false;
        retVal << keyIsPresent(*uninstallKey, present);
        if (retVal.isBad())
            return retVal;
        if (!present)
            continue;
        McDArray<McHandle<ResourceRegistryKey>> products;
        retVal << uninstallKey->querySubKeys(products);
        if (retVal.isBad())
            return retVal;
        for (int64_t i = 0; i < products.size(); ++i)
        {
            inoutTemp.add(products[i].ptr());
            McDArray<McHandle<ResourceRegistryValue>> values;
            retVal << products[i]->queryValues(values);
            for (int64_t v = 0; v < values.size(); ++v)
                inoutTemp.add(values[v].ptr());
            if (retVal.isBad())
                return retVal;
            if (!sameDirectory(valueText(values, QStringLiteral("InstallLocation")), inAppDir))
                continue;
            UninstallEntry entry;
            entry.key = products[i];
            entry.isPerMachine = hive == sHives[0];
            entry.uninstallCmd = valueText(values, QStringLiteral("QuietUninstallString"));
            if (entry.uninstallCmd.trimmed().isEmpty())
                entry.uninstallCmd = valueText(values, QStringLiteral("UninstallString"));
            outEntries.append(entry);
        }
    }
    return retVal;
}

// The uninstall entry of inAppDir: exactly one entry must name the folder; the trace says what
// was found otherwise.
McResult theOneEntry(const QString& inAppDir, UninstallEntry& outEntry, TemporaryResources& inoutTemp)
{
    QList<UninstallEntry> entries;
    McResult retVal = uninstallEntries(inAppDir, entries, inoutTemp);
    if (retVal.isBad())
        return retVal;
    QStringList listOfProductKeyPath;
    for (const UninstallEntry& e : entries)
        listOfProductKeyPath.append(e.key->path());
    if (MC_CHECK(retVal, listOfProductKeyPath.size()==1, inAppDir))
    {
        Engine::instance().trace(McLogLevelError,
                                 listOfProductKeyPath.isEmpty()
                                     ? QStringLiteral("no uninstall entry has the InstallLocation '%1'").arg(inAppDir)
                                     : QStringLiteral("%1 uninstall entries have the InstallLocation '%2': %3")
                                           .arg(listOfProductKeyPath.size())
                                           .arg(inAppDir, listOfProductKeyPath.join(QStringLiteral(", "))));
        return retVal;
    }
    outEntry = entries.first();
    return retVal;
}

std::string local8Bit(const QString& inText) { return inText.toLocal8Bit().toStdString(); }
}

McResult KsDeploy::productInfoByAppDir(const QString& inAppDir, bool& outIsPerMachine, bool& outHasUninstaller)
{
    outIsPerMachine = false;
    outHasUninstaller = false;
    TemporaryResources temp;
    UninstallEntry entry;
    McResult retVal = theOneEntry(inAppDir, entry, temp);
    if (retVal.isBad())
        return retVal;
    outIsPerMachine = entry.isPerMachine;
    outHasUninstaller = !entry.uninstallCmd.trimmed().isEmpty();
    return retVal;
}

McResult KsDeploy::uninstallWhatsOnThisAppDir(const QString& inAppDir)
{
    TemporaryResources temp;
    UninstallEntry entry;
    McResult retVal = theOneEntry(inAppDir, entry, temp);
    if (retVal.isBad())
        return retVal;
    const QString entryPath = entry.key->path();
    const QString uninstallCmd = entry.uninstallCmd.trimmed();
    if (MC_CHECK_TEXT(retVal, !uninstallCmd.isEmpty(), "uninstallCmd.isEmpty()",
                      QStringLiteral("the uninstall entry '%1' names no uninstall command").arg(entryPath)))
        return retVal;

    // Shell rules: quotes and backslashes group words; nothing is expanded.
    QStringList arguments = QxBase::Process::splitCommandLine(uninstallCmd);
    QString exePath = arguments.isEmpty() ? QString() : arguments.takeFirst();
    MC_ASSERT(!exePath.isEmpty());
    if (MC_CHECK(retVal, !exePath.isEmpty(), uninstallCmd))
        return retVal;
    if (!exePath.contains(QLatin1Char('/')))
    {
        const QString found = QStandardPaths::findExecutable(exePath);
        if (!found.isEmpty())
            exePath = found;
    }

    KsPlatform::ProcessStart start;
    start.program = local8Bit(exePath);
    for (const QString& a : arguments)
        start.arguments.push_back(local8Bit(a));
    // The uninstaller works on the same registry store as we do, and in our session, so that
    // an interrupt reaches it too.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("KSDEPLOY_REGISTRY"), RegistryStore::location());
    for (const QString& e : env.toStringList())
        start.environment.push_back(local8Bit(e));
    start.newSession = false;

    Engine& engine = Engine::instance();
    engine.trace(McLogLevelInfo, QStringLiteral("uninstall: %1").arg(uninstallCmd));
    KsPlatform::Process process;
    KsPlatform::Status status = process.start(start, true);
    if (MC_CHECK_TEXT(retVal, status.isOk(), "process.start(start, true).isOk()", status.text))
        return retVal;
    status = process.resume();
    if (MC_CHECK_TEXT(retVal, status.isOk(), "process.resume().isOk()", status.text))
        return retVal;
    while (process.isRunning())
        McThread::sleep(1);

    // An uninstaller may hand its work to another process and return early: the entry's
    // disappearance is what tells that the product has gone. Deliberately without a time limit.
    bool present = true;
    bool told = false;
    for (;;)
    {
        retVal << keyIsPresent(*entry.key, present);
        if (retVal.isBad() || !present)
            break;
        if (!told)
        {
            engine.trace(
                McLogLevelInfo,
                QStringLiteral("the uninstaller has ended; waiting for the uninstall entry '%1' to go").arg(entryPath));
            told = true;
        }
        McThread::sleep(1);
    }
    return retVal;
}
