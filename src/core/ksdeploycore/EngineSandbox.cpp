// Sandboxes (uniquely named scratch folders under the maintenance directory) and side execution.
#include "Engine.h"

#include "QxFile.h"
#include "QxProcess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QUuid>

using namespace KsDeploy;

namespace
{
const char* const sPendingRemovalFile = "PendingRemoval.txt";

bool isValidSandboxName(const QString& inName)
{
    static const QRegularExpression sPattern(QRegularExpression::anchoredPattern(
        QStringLiteral("\\{[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}\\}")));
    return sPattern.match(inName).hasMatch();
}
}

McResult Engine::pathOfSandboxDir(QString& outValue) const
{
    McResult retVal = pathOfMaintenanceDir(outValue);
    if (retVal.isBad())
    {
        outValue.clear();
        return retVal;
    }
    outValue += QStringLiteral("/Sandboxes");
    if (!QDir(outValue).exists())
        QDir().mkpath(outValue);
    if (MC_CHECK(retVal, QDir(outValue).exists(), QStringLiteral("Failed to access sandbox directory [%1]").arg(outValue)))
        outValue.clear();
    MC_DBC_TEXT(DbCPostcondition, retVal.isBad() || QDir(outValue).exists(),
                "retVal.isBad() || QDir(outValue).exists()");
    MC_DBC_TEXT(DbCPostcondition, retVal.isBad() || QDir(outValue).isReadable(),
                "retVal.isBad() || QDir(outValue).isReadable()");
    MC_DBC_TEXT(DbCPostcondition, retVal.isBad() || QDir(outValue).isAbsolute(),
                "retVal.isBad() || QDir(outValue).isAbsolute()");
    return retVal;
}

McResult Engine::sandboxGenerate(QDir& outDir) const
{
    outDir = QDir();
    QString root;
    McResult retVal = pathOfSandboxDir(root);
    if (retVal.isBad())
        return retVal;
    QString dirPath;
    for (int attempt = 0; attempt < 1000; ++attempt)
    {
        const QString candidate = QStringLiteral("%1/%2").arg(root, QUuid::createUuid().toString(QUuid::WithBraces));
        if (!candidate.isEmpty() && !QFileInfo::exists(candidate))
        {
            dirPath = candidate;
            break;
        }
    }
    if (MC_CHECK(retVal, !dirPath.isEmpty(), "failed to get a sandbox"))
        return retVal;
    QDir().mkpath(dirPath);
    if (MC_CHECK(retVal, QDir(dirPath).exists(), QStringLiteral("failed to create sandbox [%1]").arg(dirPath)))
        return retVal;
    outDir = QDir(dirPath);
    return retVal;
}

bool Engine::sandboxIsValidName(const QString& inSandboxName) const { return isValidSandboxName(inSandboxName); }

bool Engine::sandboxIsValidDir(const QString& inPath) const
{
    QString root;
    if (pathOfSandboxDir(root).isBad())
        return false;
    const QFileInfo info(inPath);
    if (!sandboxIsValidName(info.fileName()) || !info.isDir())
        return false;
    const QString canonical = info.canonicalFilePath();
    const QString canonicalRoot = QFileInfo(root).canonicalFilePath();
    return !canonical.isEmpty() && canonical.startsWith(canonicalRoot + QLatin1Char('/'));
}

void Engine::sandboxes(QList<QDir>& outList) const
{
    outList.clear();
    QString root;
    if (pathOfSandboxDir(root).isBad())
        return;
    const QFileInfoList entries =
        QDir(root).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Unsorted);
    for (const QFileInfo& fi : entries)
    {
        MC_ASSERT(fi.isDir());
        if (!sandboxIsValidName(fi.fileName()))
            continue;
        const QDir d(fi.absoluteFilePath());
        MC_ASSERT(d.exists());
        outList.append(d);
    }
}

McResult Engine::sandboxRemove(const QString& inSandboxName, bool inAtReboot) const
{
    MC_REQUIRE(sandboxIsValidName(inSandboxName));
    McResult retVal;
    if (MC_CHECK(retVal, sandboxIsValidName(inSandboxName), "Internal Error"))
        return retVal;
    QString root;
    retVal << pathOfSandboxDir(root);
    if (retVal.isBad())
        return retVal;
    const QString path = QFileInfo(root).canonicalFilePath() + QLatin1Char('/') + inSandboxName;
    if (inAtReboot)
    {
        // Files in the sandbox may still be in use: record it, the next engine start removes it.
        QString maintenance;
        retVal << pathOfMaintenanceDir(maintenance);
        if (retVal.isBad())
            return retVal;
        const QString listPath = maintenance + QLatin1Char('/') + QLatin1String(sPendingRemovalFile);
        QFile list(listPath);
        const bool res =
            list.open(QIODevice::Append | QIODevice::Text) && list.write((path + "\n").toUtf8()) > 0 && list.flush();
        MC_CHECK_WIN(retVal, res!=0, "Internal Error");
        return retVal;
    }
    return QxBase::File::removeDir(path, true, QStringList(), QStringList());
}

void Engine::sandboxRemovePending() const
{
    QString maintenance;
    if (pathOfMaintenanceDir(maintenance).isBad())
        return;
    const QString listPath = maintenance + QLatin1Char('/') + QLatin1String(sPendingRemovalFile);
    QFile list(listPath);
    if (!list.open(QIODevice::ReadOnly | QIODevice::Text))
        return;
    QStringList keep;
    for (const QByteArray& line : list.readAll().split('\n'))
    {
        const QString path = QString::fromUtf8(line).trimmed();
        if (path.isEmpty())
            continue;
        // Only folders that really are sandboxes are ever removed from this list.
        if (!sandboxIsValidDir(path))
            continue;
        if (QxBase::File::removeDir(path, true, QStringList(), QStringList()).isBad() && QFileInfo::exists(path))
            keep.append(path);
    }
    list.close();
    if (keep.isEmpty())
    {
        QFile::remove(listPath);
        return;
    }
    QSaveFile out(listPath);
    if (out.open(QIODevice::WriteOnly | QIODevice::Text))
    {
        out.write((keep.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8());
        out.commit();
    }
}

McResult Engine::sideExecutionInvoke(const QString& inExecutable, const QList<QString>& inArguments,
                                     const QList<QString>& inEnvironment, bool inStartFlag1, bool inStartFlag2) const
{
    McResult retVal;
    const QFileInfo info(inExecutable);
    QxBase::Process* process = new QxBase::Process;
    process->programSet(info.absoluteFilePath());
    process->workingDirectorySet(info.absolutePath());
    process->argumentsAppend(inArguments);
    process->environmentSet(inEnvironment);
    retVal << process->start(inStartFlag1, inStartFlag2, false);
    if (retVal.isOk() && !inStartFlag1)
        retVal << process->resume();
    // The started program runs on by itself.
    delete process;
    return retVal;
}
