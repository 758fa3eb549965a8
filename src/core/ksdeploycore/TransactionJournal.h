#pragma once
// What a later start needs to undo a product change that never finished: the product key, the
// snapshot of the machine before the change (its file contents wait in the cache), the folders
// the change may create or leave temporary files in, and the registry as it was. Written and
// flushed before the first change, removed once the change is committed or rolled back; its
// presence at start means the process died in between.
#include "KsGlobal.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace KsDeploy
{
class Resource;

class TransactionJournal
{
public:
    struct RegistryKeyState
    {
        QString path;  // "HKEY_CURRENT_USER\a\b"
        bool existed = false;
    };
    struct RegistryValueState
    {
        QString keyPath;
        QString name;
        bool existed = false;
        unsigned long type = 0;
        QByteArray data;
    };
    // A shortcut file as it was: its bytes wait in the cache under their digest (no scan of a
    // shortcut can rebuild them), so a rollback puts back exactly that file, or removes one
    // the change created.
    struct ShortcutState
    {
        QString path;
        bool existed = false;
        QString md5;            // of the old bytes, when it existed
        unsigned int mode = 0;  // permission bits, when it existed
    };

    // The journal of a product in a journal folder (not read yet).
    TransactionJournal(const QString& inFolder, const QString& inProductKey);

    // The journals in a folder, by file path; the product key is read with read().
    static QStringList journalsIn(const QString& inFolder);
    // A file name part for any product key.
    static QString fileStem(const QString& inProductKey);

    QString productKey() const { return mProductKey; }
    QString path() const;
    QString snapshotPath() const;
    QString lockPath() const;

    QString operation;        // "install" or "uninstall"
    qint64 processId = 0;     // the process that wrote it
    QStringList newDirs;      // folders the change may create; removed on rollback when empty
    QStringList tempFolders;  // folders the change may leave temporary files in
    QList<RegistryKeyState> registryKeys;
    QList<RegistryValueState> registryValues;
    QList<ShortcutState> shortcuts;

    // Saves the snapshot, then the journal under its final name; with inFlush both reach the
    // device before this returns, so no later step can precede them.
    McResult write(const McDArray<McHandle<Resource>>& inSnapshot, bool inFlush);
    // Reads the journal at a path (from journalsIn); the snapshot is loaded by loadSnapshot.
    static McResult read(const QString& inPath, TransactionJournal& outJournal);
    // Registers the snapshot's resources in the engine's pool.
    McResult loadSnapshot() const;
    // Removes the journal and its snapshot (if they were written); with inFlush the removal is
    // durable too.
    void remove(bool inFlush) const;
    // True once written, or when read from a file.
    bool isOnDisk() const { return mOnDisk; }

private:
    QString mFolder;
    QString mProductKey;
    bool mOnDisk = false;
};
}
