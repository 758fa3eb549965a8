#pragma once
#include "QxGlobal.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

namespace QxBase
{
// File helpers shared by the engine and the host.
class File
{
public:
    // Removes a file; a file that does not exist is not an error.
    static McResult removeFile(const QString& inPath);
    // Removes a directory's files (and with inRecursive its sub-directories), then the
    // directory itself once it is empty. inInclude limits the files removed to those name
    // patterns (all when empty); inExclude keeps files matching its patterns.
    static McResult removeDir(const QString& inPath, bool inRecursive, const QStringList& inInclude,
                              const QStringList& inExclude);
    // Writes all bytes, retrying short writes.
    static McResult writeAll(QFile& inFile, const QByteArray& inData);
    static McResult writeAll(QFile& inFile, const char* inData, qint64 inSize);
    // Same file: by identity (device and inode) when both exist, else by cleaned absolute path.
    static bool pathsPointToTheSameFile(const QString& inPathA, const QString& inPathB);
    // A directory junction: on Linux a symbolic link to the directory. Never overwrites.
    static McResult junctionCreate(const QString& inSource, const QString& inTarget);
    // Copies a file to inTarget through a temporary file in the target's folder that is
    // renamed into place, so the target is never seen half-written.
    static McResult copyReplace(const QString& inSource, const QString& inTarget);
    // A temporary file name in the same folder as inPath (not created).
    static QString temporaryPathBeside(const QString& inPath);
};
}
