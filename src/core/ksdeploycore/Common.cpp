#include "Common.h"

#include "FileDigestTag.h"
#include "Lzma.h"
#include "McCoder.h"
#include "QxFile.h"

#include <QDir>
#include <QFile>
#include <QHash>
#include <QUuid>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
using QxBase::FileStamp;

struct MemoEntry
{
    FileStamp stamp;
    McLib::MD5 md5;
};

QHash<QString, MemoEntry>& memo()
{
    static QHash<QString, MemoEntry> sMemo;
    return sMemo;
}

// Hashes what the open descriptor reads, in 1 MiB blocks; any thread may call it. 0, or the
// errno of the read that failed.
int hashDescriptorSilently(int inFd, McLib::MD5& outMd5)
{
    McCoder coder;
    const int64_t bufLen = 1048576;
    // One buffer per thread for every file: a fresh megabyte per file costs a mapping and page
    // faults that show on products of many small files.
    static thread_local std::unique_ptr<char[]> sBuffer(new (std::nothrow) char[bufLen]);
    char* buf = sBuffer.get();
    if (!buf)
        return ENOMEM;
    for (;;)
    {
        const ssize_t numBytesRead = ::read(inFd, buf, static_cast<size_t>(bufLen));
        if (numBytesRead < 0 && errno == EINTR)
            continue;
        if (numBytesRead < 0)
            return errno;
        if (numBytesRead == 0)
            break;
        coder.crcMD5Update(reinterpret_cast<const unsigned char*>(buf), static_cast<unsigned int>(numBytesRead));
    }
    coder.crcMD5Final();
    coder.crcMD5Query(outMd5.data());
    return 0;
}

// The same, reported in the texts callers know from reading through a file object.
McLib::MD5 hashDescriptor(int inFd, const QString& inPath, McResult& outResult)
{
    McLib::MD5 result;
    const int why = hashDescriptorSilently(inFd, result);
    if (MC_CHECK_TEXT(outResult, why != ENOMEM, "buf!=0", "Internal Error"))
        return McLib::MD5();
    if (::McLib::checkStep(outResult, why == 0, __LINE__, __FILE__, __PRETTY_FUNCTION__, "Internal Error",
                           "cond[numBytesRead>=0]", false,
                           why == 0 ? std::string() : McLib::osDetail(mcMessageText(inPath), why)))
        return McLib::MD5();
    return result;
}
}

void KsDeploy::installedFileTag(const QString& inFilePath, const McLib::MD5& inMd5, const QxBase::FileStamp& inStamp)
{
    // Below this a file is read about as fast as its tag is written and looked up again.
    const qint64 sTaggedFromBytes = 65536;
    if (inStamp.size >= sTaggedFromBytes && !inMd5.isNull())
        KsPlatform::FileDigestTag::write(QFile::encodeName(inFilePath).toStdString(), inMd5.data(), inStamp.size,
                                         inStamp.mtimeNs);
}

bool KsDeploy::installedFileTagged(const std::string& inLocalPath, const QxBase::FileStamp& inStamp, McLib::MD5& outMd5)
{
    return inStamp.size >= 0 &&
           KsPlatform::FileDigestTag::read(inLocalPath, inStamp.size, inStamp.mtimeNs, outMd5.data());
}

bool KsDeploy::scanFileSeen(const QString& inFilePath) { return memo().contains(inFilePath); }

bool KsDeploy::scanFileKnown(const QString& inFilePath, const QxBase::FileStamp& inStamp, McLib::MD5& outMd5)
{
    auto it = memo().constFind(inFilePath);
    if (it == memo().constEnd() || !(it.value().stamp == inStamp))
        return false;
    outMd5 = it.value().md5;
    return true;
}

McLib::MD5 KsDeploy::scanFile(const QString& inFilePath)
{
    // A file this run has hashed or written already: one look at its stamp answers.
    {
        FileStamp now;
        McLib::MD5 known;
        if (QxBase::File::stampOf(inFilePath, now) && scanFileKnown(inFilePath, now, known))
            return known;
    }
    // One descriptor serves the existence check, the stamp before and after, and the reading:
    // verifying a product of many files then costs no extra look-ups by name.
    const int fd = QxBase::File::openForReading(inFilePath);
    const int openErrno = errno;
    const bool missing = fd < 0 && (errno == ENOENT || errno == ENOTDIR);
    MC_DBC_TEXT(DbCPrecondition, !missing, "QFile::exists(inFilePath)");
    McResult retVal;
    McLib::MD5 md5;
    do
    {
        const auto why = [&] { return McLib::osDetail(mcMessageText(inFilePath), fd < 0 ? openErrno : EISDIR); };
        // The condition texts are those of reading through a file object; the line under them
        // says why this one could not be read.
        if (::McLib::checkStep(retVal, !missing, __LINE__, __FILE__, __PRETTY_FUNCTION__, "Internal Error",
                               "cond[qFile.exists()]", false, missing ? why() : std::string()))
            break;
        // A folder opens here, but it is no file to hash.
        FileStamp before;
        const bool isFile = fd >= 0 && QxBase::File::stampOf(fd, before);
        if (::McLib::checkStep(retVal, isFile, __LINE__, __FILE__, __PRETTY_FUNCTION__, "Internal Error",
                               "cond[qFile.open(QIODevice::ReadOnly)]", false, isFile ? std::string() : why()))
            break;
        auto it = memo().constFind(inFilePath);
        if (it != memo().constEnd() && it.value().stamp == before)
        {
            md5 = it.value().md5;
            break;
        }
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        md5 = hashDescriptor(fd, inFilePath, retVal);
        // Remember it only when the file did not change while it was read.
        FileStamp after;
        if (!md5.isNull() && QxBase::File::stampOf(fd, after) && after == before)
            memo().insert(inFilePath, MemoEntry{after, md5});
    } while (false);
    if (fd >= 0)
        ::close(fd);
    McResult report;
    MC_CHECK_TEXT(report, !md5.isNull(), "retVal.isValid()", inFilePath);
    return md5;
}

void KsDeploy::scanFileRemember(const QString& inFilePath, const McLib::MD5& inMd5, const QxBase::FileStamp& inStamp)
{
    if (!inMd5.isNull() && inStamp.size >= 0)
        memo().insert(inFilePath, MemoEntry{inStamp, inMd5});
}

bool KsDeploy::scanFileSilently(const QString& inFilePath, McLib::MD5& outMd5, QxBase::FileStamp& outStamp)
{
    // Neither a link nor a pipe is followed or waited for: the walk refuses a link anyway, and a
    // pipe is no file to hash. Neither flag changes how a regular file reads.
    const QByteArray name = QFile::encodeName(inFilePath);
    const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    int fd = ::open(name.constData(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::open(name.constData(), flags);
    if (fd < 0)
        return false;
    FileStamp before, after;
    bool ok = QxBase::File::stampOf(fd, before);
    if (ok)
    {
        ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
        ok = hashDescriptorSilently(fd, outMd5) == 0 && !outMd5.isNull();
    }
    // A file that changed while it was read has no one digest.
    ok = ok && QxBase::File::stampOf(fd, after) && after == before;
    ::close(fd);
    if (ok)
        outStamp = after;
    return ok;
}

namespace
{
McResult convertFile(const QString& inDst, const QString& inSrc, bool inCompress)
{
    McResult retVal;
    QFile fileSrc(inSrc);
    if (MC_CHECK(retVal, fileSrc.exists(), "Internal Error"))
        return retVal;
    if (MC_CHECK(retVal, fileSrc.open( QIODevice::ReadOnly ), inSrc))
        return retVal;
    const QByteArray content = fileSrc.readAll();
    fileSrc.close();
    // Written beside the destination and renamed into place: never a half-written file. The
    // codec's output is written as it comes rather than collected first, which spares a second
    // whole copy in memory (and its page faults) but gives the same bytes.
    const QString temp = QxBase::File::temporaryPathBeside(inDst);
    QFile fileDst(temp);
    if (MC_CHECK_TEXT(retVal, fileDst.open(QIODevice::WriteOnly | QIODevice::Truncate),
                      "fileDst.open( QIODevice::WriteOnly | QIODevice::Truncate )", inDst))
        return retVal;
    McResult written;
    const LzmaSink sink = [&](const unsigned char* inData, size_t inSize) {
        written << QxBase::File::writeAll(fileDst, reinterpret_cast<const char*>(inData), static_cast<qint64>(inSize));
        return written.isOk();
    };
    const unsigned char* data = reinterpret_cast<const unsigned char*>(content.constData());
    const McResult coded =
        inCompress ? lzmaCompressTo(sink, data, content.size()) : lzmaUncompressTo(sink, data, content.size());
    // The codec's reason, else the write's.
    retVal << (coded.isBad() && written.isOk() ? coded : written);
    if (retVal.isOk())
        retVal << QxBase::File::writeAll(fileDst, QByteArray());  // flushes
    fileDst.close();
    if (retVal.isOk())
    {
        MC_CHECK_TEXT(retVal, ::rename(QFile::encodeName(temp).constData(), QFile::encodeName(inDst).constData()) == 0,
                      "rename", inDst);
    }
    if (retVal.isBad())
        QFile::remove(temp);
    return retVal;
}
}

McResult KsDeploy::fileCompress(const QString& inDst, const QString& inSrc) { return convertFile(inDst, inSrc, true); }
McResult KsDeploy::fileUncompress(const QString& inDst, const QString& inSrc)
{
    const McResult retVal = fileUncompressBounded(inDst, inSrc, nullptr);
    Ks::fail(retVal);
    return retVal;
}

namespace
{
// Decodes what inSource reads into inDst (see fileUncompressBounded); inSourceFailure is set by
// the source when reading fails, which the codec cannot tell.
McResult uncompressInto(const QString& inDst, const LzmaSource& inSource, McResult& inoutSourceFailure,
                        const QxBase::DiskReserve* inReserve, McLib::MD5* outMd5, bool inDstIsTemporary)
{
    // Written beside the destination and renamed into place: never a half-written file. A
    // destination that is itself a temporary name needs no second one.
    const QByteArray temp = QFile::encodeName(inDstIsTemporary ? inDst : QxBase::File::temporaryPathBeside(inDst));
    const int out = ::open(temp.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (out < 0)
        return MC_FAILURE("fileDst.open( QIODevice::WriteOnly | QIODevice::Truncate )", inDst)
            .detailSet(McLib::osDetail(QFile::encodeName(inDst).toStdString(), errno));
    McResult failure;  // of the writing side
    McCoder digest;
    const LzmaSink sink = [&](const unsigned char* inData, size_t inSize) {
        QString why;
        if (inReserve && !inReserve->checkBefore(out, static_cast<long long>(inSize), why))
        {
            failure = MC_FAILURE("space", inDst).detailSet(mcMessageText(why));
            return false;
        }
        if (outMd5)
            digest.crcMD5Update(inData, static_cast<unsigned int>(inSize));
        while (inSize > 0)
        {
            const ssize_t n = ::write(out, inData, inSize);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
            {
                failure =
                    MC_FAILURE("write", inDst)
                        .detailSet(McLib::osDetail(QFile::encodeName(inDst).toStdString(), n < 0 ? errno : ENOSPC));
                return false;
            }
            inData += n;
            inSize -= static_cast<size_t>(n);
        }
        return true;
    };
    McResult retVal = lzmaUncompressStream(sink, inSource);
    if (retVal.isBad() && inoutSourceFailure.isBad())
        retVal = inoutSourceFailure;
    else if (retVal.isBad() && failure.isBad())
        retVal = failure;
    if (::close(out) != 0 && retVal.isOk())
        retVal = MC_FAILURE("write", inDst).detailSet(McLib::osDetail(QFile::encodeName(inDst).toStdString(), errno));
    if (retVal.isOk() && !inDstIsTemporary && ::rename(temp.constData(), QFile::encodeName(inDst).constData()) != 0)
        retVal = MC_FAILURE("rename", inDst).detailSet(McLib::osDetail(QFile::encodeName(inDst).toStdString(), errno));
    if (retVal.isBad())
        ::unlink(temp.constData());
    else if (outMd5)
    {
        digest.crcMD5Final();
        digest.crcMD5Query(outMd5->data());
    }
    return retVal;
}
}

McResult KsDeploy::fileUncompressBounded(const QString& inDst, const QString& inSrc,
                                         const QxBase::DiskReserve* inReserve, McLib::MD5* outMd5,
                                         bool inDstIsTemporary)
{
    const QByteArray src = QFile::encodeName(inSrc);
    const int in = ::open(src.constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return MC_FAILURE("fileSrc.open( QIODevice::ReadOnly )", inSrc)
            .detailSet(McLib::osDetail(src.toStdString(), errno));
    ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
    McResult failure;
    const LzmaSource source = [&](unsigned char* outData, size_t inRoom) -> int64_t {
        for (;;)
        {
            const ssize_t got = ::read(in, outData, inRoom);
            if (got >= 0)
                return got;
            if (errno != EINTR)
            {
                failure = MC_FAILURE("read", inSrc).detailSet(McLib::osDetail(src.toStdString(), errno));
                return -1;
            }
        }
    };
    const McResult retVal = uncompressInto(inDst, source, failure, inReserve, outMd5, inDstIsTemporary);
    ::close(in);
    return retVal;
}

McResult KsDeploy::bufferUncompressBounded(const QString& inDst, const QByteArray& inSrc,
                                           const QxBase::DiskReserve* inReserve, McLib::MD5* outMd5,
                                           bool inDstIsTemporary)
{
    McResult failure;  // memory does not fail to read
    qsizetype at = 0;
    const LzmaSource source = [&](unsigned char* outData, size_t inRoom) -> int64_t {
        const qsizetype n = std::min<qsizetype>(static_cast<qsizetype>(inRoom), inSrc.size() - at);
        std::memcpy(outData, inSrc.constData() + at, static_cast<size_t>(n));
        at += n;
        return n;
    };
    return uncompressInto(inDst, source, failure, inReserve, outMd5, inDstIsTemporary);
}

McResult KsDeploy::probeFileUpdate(const QString& inDirPath)
{
    MC_DBC_TEXT(DbCPrecondition, QDir().exists(inDirPath), "QDir().exists(inDirPath)");
    McResult retVal;
    QDir dir(inDirPath);
    if (MC_CHECK(retVal, dir.exists(), inDirPath))
        return retVal;
    QFile file(QStringLiteral("%1/%2").arg(dir.canonicalPath(), QUuid::createUuid().toString(QUuid::WithBraces)));
    if (MC_CHECK_DETAIL(retVal, file.open( QIODevice::ReadWrite ), file.fileName(),
                        mcMessageText(QStringLiteral("%1: %2").arg(inDirPath, file.errorString()))))
        return retVal;
    retVal << QxBase::File::writeAll(file, QByteArray("ThisIsATest"));
    file.close();
    if (retVal.isBad())
    {
        file.remove();
        return retVal;
    }
    if (MC_CHECK(retVal, file.exists(), file.fileName()))
        return retVal;
    if (MC_CHECK_DETAIL(retVal, file.remove(), file.fileName(),
                        mcMessageText(QStringLiteral("%1: %2").arg(file.fileName(), file.errorString()))))
        return retVal;
    MC_CHECK(retVal, !file.exists(), file.fileName());
    return retVal;
}

void KsDeploy::directoryEnsure(McResult& inoutResult, QString& inoutPath, const QString& inFailureMessage)
{
    if (inoutResult.isOk())
    {
        if (!QDir(inoutPath).exists())
            QDir().mkpath(inoutPath);
        MC_CHECK_TEXT(inoutResult, QDir(inoutPath).exists(), "QDir(outValue).exists()", inFailureMessage);
    }
    if (inoutResult.isBad())
        inoutPath.clear();
    // Reported in the words of the functions that hand out folders (retVal, outValue).
    const bool bad = inoutResult.isBad();
    MC_DBC_TEXT(DbCPostcondition, bad || QDir(inoutPath).exists(), "retVal.isBad() || QDir(outValue).exists()");
    MC_DBC_TEXT(DbCPostcondition, bad || QDir(inoutPath).isReadable(), "retVal.isBad() || QDir(outValue).isReadable()");
    MC_DBC_TEXT(DbCPostcondition, bad || QDir(inoutPath).isAbsolute(), "retVal.isBad() || QDir(outValue).isAbsolute()");
}
