#pragma once
#include "KsGlobal.h"
#include "QxDiskReserve.h"
#include "QxFile.h"

#include <QString>

namespace KsDeploy
{
// MD5 of a file, streamed in 1 MiB blocks; all zero when the file cannot be read.
// Within one run an unchanged file (same path, size, modification time and inode) is hashed
// only once.
McLib::MD5 scanFile(const QString& inFilePath);
// Tells the digest memo the content of a file this run has just written, with the stamp the
// writer took.
void scanFileRemember(const QString& inFilePath, const McLib::MD5& inMd5, const QxBase::FileStamp& inStamp);
// Keeps on an installed file the digest it was written with, for a later run (see
// KsPlatform::FileDigestTag); only files big enough that reading them costs more than the tag.
// A file system without tags leaves the file untagged, which costs a later run a read.
void installedFileTag(const QString& inFilePath, const McLib::MD5& inMd5, const QxBase::FileStamp& inStamp);
// The digest a file was tagged with, when it still has the size and time of the tag.
bool installedFileTagged(const std::string& inLocalPath, const QxBase::FileStamp& inStamp, McLib::MD5& outMd5);
// True when this run has hashed or written some version of the file at inFilePath.
bool scanFileSeen(const QString& inFilePath);
// The digest this run knows for the file at inFilePath as long as it has the stamp inStamp.
bool scanFileKnown(const QString& inFilePath, const QxBase::FileStamp& inStamp, McLib::MD5& outMd5);
// The digest and stamp of a file, without a word said and without the memo, so that any thread
// may call it; false when the file could not be read whole or changed meanwhile (scanFile then
// says why).
bool scanFileSilently(const QString& inFilePath, McLib::MD5& outMd5, QxBase::FileStamp& outStamp);

// Whole-file LZMA compression and decompression (destination first).
McResult fileCompress(const QString& inDst, const QString& inSrc);
McResult fileUncompress(const QString& inDst, const QString& inSrc);
// The decompression alone, in bounded memory and without reporting a failure (the caller decides
// whether it is one). With a reserve, the decoded output may not eat into the destination's free
// space; it never exceeds the size the stream's header states. No partial destination is left.
// With outMd5, the decoded bytes' MD5 is computed as they are written (nobody reads them again).
// inDstIsTemporary: inDst is the caller's own new temporary name, written directly instead of
// through another temporary file and a rename.
McResult fileUncompressBounded(const QString& inDst, const QString& inSrc, const QxBase::DiskReserve* inReserve,
                               McLib::MD5* outMd5 = nullptr, bool inDstIsTemporary = false);

// The same, decoding a copy held in memory.
McResult bufferUncompressBounded(const QString& inDst, const QByteArray& inSrc, const QxBase::DiskReserve* inReserve,
                                 McLib::MD5* outMd5 = nullptr, bool inDstIsTemporary = false);

// The end of a function that hands out a folder: unless inoutResult is bad already, the folder is
// made when missing and must then exist (else inFailureMessage). A bad result clears inoutPath;
// a good one names a folder that exists, can be read and is absolute (postconditions).
void directoryEnsure(McResult& inoutResult, QString& inoutPath, const QString& inFailureMessage);

// Proves that a directory is writable by creating, writing and removing a file in it.
McResult probeFileUpdate(const QString& inDirPath);

// The one uninstall entry (HKEY_LOCAL_MACHINE, then HKEY_CURRENT_USER, key
// "SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall") whose InstallLocation is inAppDir.
// outIsPerMachine: it lies under HKEY_LOCAL_MACHINE; outHasUninstaller: it names an uninstall command.
McResult productInfoByAppDir(const QString& inAppDir, bool& outIsPerMachine, bool& outHasUninstaller);
// Runs that entry's QuietUninstallString (else UninstallString) and returns once the program
// has ended and the entry has gone from the registry (CommonUninstall.cpp).
McResult uninstallWhatsOnThisAppDir(const QString& inAppDir);
}
