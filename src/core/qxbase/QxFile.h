#pragma once
#include "QxGlobal.h"

#include <QByteArray>
#include <QFile>
#include <QString>
#include <QStringList>

namespace QxBase
{
// What identifies one version of a file's content on disk: it changes whenever the file is rewritten.
struct FileStamp
{
    qint64 size = -1;
    qint64 mtimeNs = 0;
    quint64 inode = 0;
    quint64 device = 0;
    bool operator==(const FileStamp& o) const
    {
        return size == o.size && mtimeNs == o.mtimeNs && inode == o.inode && device == o.device;
    }
};

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
    // renamed into place, so the target is never seen half-written. outStamp, when given,
    // receives the stamp of the written file.
    static McResult copyReplace(const QString& inSource, const QString& inTarget, FileStamp* outStamp = nullptr);
    // Copies a file to inTarget only when nothing is there (a symbolic link counts as
    // something). The content is written into a nameless file in the target's folder that gets
    // its name once complete, so the target is never seen half-written and a failure leaves
    // nothing. The new file has the ordinary mode of a new file (the umask applies); other
    // modes are the caller's to set. When something is there, outExisted is set and nothing is
    // touched.
    static McResult copyCreate(const QString& inSource, const QString& inTarget, bool& outExisted,
                               FileStamp* outStamp = nullptr);
    // Creates a folder and any missing parents (true when it exists afterwards). The folders
    // it made itself are remembered as made empty, which spares copyCreate the look at a target
    // in them: the final link still refuses anything that appeared there since. On failure
    // errno says why and outFailed, when given, names the path concerned: the folder that
    // could not be made, or the file standing where a folder should be.
    static bool makePath(const QString& inPath, QString* outFailed = nullptr);
    // Opens a file for reading without updating its access time where the owner may ask for
    // that (it would cost a journal write per file read); -1 on failure, errno set.
    static int openForReading(const QString& inPath);
    // The stamp of an existing regular file (symbolic links followed), by path or by an open
    // descriptor; false for anything else.
    static bool stampOf(const QString& inPath, FileStamp& outStamp);
    static bool stampOf(int inFd, FileStamp& outStamp);
    // The same of the regular file at inPath itself: false for a symbolic link too.
    static bool stampOfEntry(const QString& inPath, FileStamp& outStamp);
    // Opens a writable file without a name (O_TMPFILE) in inTarget's folder; -1 with errno set
    // on failure, and outUnsupported set when the file system has no such files at all.
    static int openNameless(const QString& inTarget, bool& outUnsupported);
    // Gives an open file without a name (O_TMPFILE) the name inTarget, and closes it. Something
    // already there is replaced in one step when inReplace is set, else it stays and the call
    // fails with errno EEXIST.
    static bool linkNameless(int inFd, const QString& inTarget, bool inReplace);
    // A temporary file name in the same folder as inPath (not created): ".<name>.<process id>.<16
    // hex digits>.part".
    static QString temporaryPathBeside(const QString& inPath);
    // The steps of copyCreate without a word said, so that any thread may run them: true when
    // the file was created; anything else (something there, a failure) is left for copyCreate,
    // which then says why. inLookFirst false spares the look at the target (see targetMayExist).
    static bool copyCreateSilently(const QString& inSource, const QString& inTarget, bool inLookFirst,
                                   FileStamp* outStamp);
    // False when inTarget is in a folder that makePath made, so nothing can be there yet (the
    // final link of copyCreate still refuses a newcomer). Asked on the thread that makes folders.
    static bool targetMayExist(const QString& inTarget);
};
}
