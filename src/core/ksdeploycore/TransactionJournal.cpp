#include "TransactionJournal.h"

#include "Durability.h"
#include "Resource.h"
#include "XmlSerializer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

using namespace KsDeploy;

namespace
{
const char* const sMagic = "ksdeploy transaction journal 1";
const QLatin1String sJournalSuffix(".journal");

std::string local(const QString& inPath) { return QFile::encodeName(inPath).toStdString(); }

QByteArray field(const QString& inText) { return QUrl::toPercentEncoding(inText); }
QString unfield(const QByteArray& inText) { return QUrl::fromPercentEncoding(inText); }

McResult flushed(const QString& inPath, bool inFlush)
{
    McResult retVal;
    if (!inFlush)
        return retVal;
    const KsPlatform::Status status = KsPlatform::fileFlush(local(inPath));
    MC_CHECK_DETAIL(retVal, status.isOk(), "failed to flush the transaction journal", status.text);
    return retVal;
}
}

TransactionJournal::TransactionJournal(const QString& inFolder, const QString& inProductKey)
    : mFolder(inFolder), mProductKey(inProductKey)
{
}

QString TransactionJournal::fileStem(const QString& inProductKey)
{
    // Percent-encoded, so that no key can name a file outside the folder or clash with another.
    QByteArray stem = QUrl::toPercentEncoding(inProductKey, QByteArray(), QByteArray("."));
    if (stem.isEmpty())
        stem = "%";
    return QString::fromLatin1(stem);
}

QString TransactionJournal::path() const { return mFolder + QLatin1Char('/') + fileStem(mProductKey) + sJournalSuffix; }
QString TransactionJournal::snapshotPath() const
{
    return mFolder + QLatin1Char('/') + fileStem(mProductKey) + QStringLiteral(".snapshot.xml");
}
QString TransactionJournal::lockPath() const
{
    return mFolder + QLatin1Char('/') + fileStem(mProductKey) + QStringLiteral(".lock");
}

QStringList TransactionJournal::journalsIn(const QString& inFolder)
{
    QStringList out;
    const QStringList names =
        QDir(inFolder).entryList(QStringList() << QStringLiteral("*.journal"), QDir::Files | QDir::Hidden, QDir::Name);
    for (const QString& name : names)
        out << inFolder + QLatin1Char('/') + name;
    return out;
}

McResult TransactionJournal::write(const McDArray<McHandle<Resource>>& inSnapshot, bool inFlush)
{
    McResult retVal;
    XmlSerializer serializer;
    retVal << serializer.serialize(snapshotPath(), inSnapshot);
    retVal << flushed(snapshotPath(), inFlush);
    if (retVal.isBad())
        return retVal;

    QByteArray text(sMagic);
    text += '\n';
    text += "product " + field(mProductKey) + '\n';
    text += "operation " + field(operation) + '\n';
    text += "pid " + QByteArray::number(processId) + '\n';
    for (const QString& d : newDirs)
        text += "newdir " + field(d) + '\n';
    for (const QString& d : tempFolders)
        text += "tempfolder " + field(d) + '\n';
    for (const RegistryKeyState& k : registryKeys)
        text += "regkey " + field(k.path) + ' ' + (k.existed ? '1' : '0') + '\n';
    for (const RegistryValueState& v : registryValues)
        text += "regvalue " + field(v.keyPath) + ' ' + field(v.name) + ' ' + (v.existed ? '1' : '0') + ' ' +
                QByteArray::number(static_cast<qulonglong>(v.type)) + ' ' +
                (v.data.isEmpty() ? QByteArray("-") : v.data.toHex()) + '\n';
    for (const ShortcutState& l : shortcuts)
        text += "shortcut " + field(l.path) + ' ' + (l.existed ? '1' : '0') + ' ' +
                (l.md5.isEmpty() ? QByteArray("-") : l.md5.toLatin1()) + ' ' + QByteArray::number(l.mode, 8) + '\n';
    text += "end\n";

    // Complete under a temporary name first: a journal that exists is always whole.
    const QString temp = path() + QStringLiteral(".new");
    QFile out(temp);
    const bool opened = out.open(QIODevice::WriteOnly | QIODevice::Truncate);
    if (MC_CHECK_DETAIL(retVal, opened, "failed to write the transaction journal", local(temp) + ": " + local(out.errorString())))
        return retVal;
    const bool written = out.write(text) == text.size() && out.flush();
    out.close();
    if (MC_CHECK_DETAIL(retVal, written, "failed to write the transaction journal", local(temp) + ": " + local(out.errorString())))
    {
        QFile::remove(temp);
        return retVal;
    }
    retVal << flushed(temp, inFlush);
    if (retVal.isOk())
    {
        QFile::remove(path());
        const bool renamed = QFile::rename(temp, path());
        MC_CHECK_DETAIL(retVal, renamed, "failed to write the transaction journal", local(path()) + ": rename failed");
    }
    if (retVal.isBad())
    {
        QFile::remove(temp);
        return retVal;
    }
    retVal << flushed(mFolder, inFlush);
    mOnDisk = true;
    return retVal;
}

McResult TransactionJournal::read(const QString& inPath, TransactionJournal& outJournal)
{
    McResult retVal;
    QFile in(inPath);
    if (MC_CHECK_DETAIL(retVal, in.open(QIODevice::ReadOnly), "failed to read the transaction journal",
                        local(inPath) + ": " + local(in.errorString())))
        return retVal;
    const QList<QByteArray> lines = in.readAll().split('\n');
    bool complete = lines.size() > 2 && lines.first() == sMagic;
    bool ended = false;
    TransactionJournal j(QFileInfo(inPath).absolutePath(), QString());
    for (int i = 1; complete && i < lines.size() && !ended; ++i)
    {
        const QList<QByteArray> f = lines[i].split(' ');
        const QByteArray& tag = f.first();
        if (tag == "end")
            ended = true;
        else if (tag == "product" && f.size() == 2)
            j.mProductKey = unfield(f[1]);
        else if (tag == "operation" && f.size() == 2)
            j.operation = unfield(f[1]);
        else if (tag == "pid" && f.size() == 2)
            j.processId = f[1].toLongLong();
        else if (tag == "newdir" && f.size() == 2)
            j.newDirs << unfield(f[1]);
        else if (tag == "tempfolder" && f.size() == 2)
            j.tempFolders << unfield(f[1]);
        else if (tag == "regkey" && f.size() == 3)
            j.registryKeys.append({unfield(f[1]), f[2] == "1"});
        else if (tag == "regvalue" && f.size() == 6)
        {
            RegistryValueState v;
            v.keyPath = unfield(f[1]);
            v.name = unfield(f[2]);
            v.existed = f[3] == "1";
            v.type = static_cast<unsigned long>(f[4].toULongLong());
            v.data = f[5] == "-" ? QByteArray() : QByteArray::fromHex(f[5]);
            j.registryValues.append(v);
        }
        else if (tag == "shortcut" && f.size() == 5)
        {
            ShortcutState l;
            l.path = unfield(f[1]);
            l.existed = f[2] == "1";
            l.md5 = f[3] == "-" ? QString() : QString::fromLatin1(f[3]);
            bool modeOk = false;
            l.mode = f[4].toUInt(&modeOk, 8);
            complete = modeOk && (!l.existed || l.md5.size() == 32);
            j.shortcuts.append(l);
        }
        else
            complete = false;
    }
    // Only ever renamed into place whole, so anything else is not ours to act on.
    MC_CHECK_DETAIL(retVal, complete && ended && !j.mProductKey.isEmpty(), "the transaction journal is damaged",
                    local(inPath) + ": unexpected content");
    if (retVal.isOk())
    {
        j.mOnDisk = true;
        outJournal = j;
    }
    return retVal;
}

McResult TransactionJournal::loadSnapshot() const
{
    XmlSerializer serializer;
    McDArray<McHandle<Resource>> resources;
    return serializer.deserialize(snapshotPath(), resources);
}

void TransactionJournal::remove(bool inFlush) const
{
    if (!mOnDisk)
        return;
    // The journal goes first: without it the snapshot is only a left-over.
    QFile::remove(path());
    QFile::remove(snapshotPath());
    if (inFlush)
        KsPlatform::fileFlush(local(mFolder));
}
