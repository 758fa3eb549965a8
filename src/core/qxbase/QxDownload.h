#pragma once
#include "McMD5.h"
#include "QxDiskReserve.h"
#include "QxGlobal.h"
#include "QxNamelessFilePool.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

// Downloads a URL (http, https with certificate checks, file) into a file. Successive
// downloads through one instance reuse the connection to the same server.
class QxDownload
{
public:
    enum Result
    {
        ResultOk = 0,
        ResultFailed = 1,
        ResultHttpError = 2,
        ResultTimeout = 3,
        ResultWriteError = 4,
        // Of downloadPair's fallback, given up because the preferred answer came good.
        ResultDropped = 5,
        // No connection could be made (refused, unknown host).
        ResultUnreachable = 6,
        // The body grew beyond Request::maxBytes.
        ResultTooLarge = 7,
        // The body would have eaten into Request::reserve.
        ResultNoSpace = 8,
    };

    enum Flag
    {
        // The destination is the caller's own temporary file: written directly, and removed
        // again when the transfer fails. Spares a second temporary name per download.
        FlagInPlace = 1,
        // The MD5 of the body is computed as it arrives (Request::md5), so nobody reads it again.
        FlagDigest = 2,
        // With FlagInPlace: the body goes into a file without a name in the destination's folder, handed back open in
        // Request::file for the caller to name (QxBase::File::linkNameless) once it is found good. Where the file
        // system has no such files, the destination is written in place and Request::file stays -1.
        FlagNameless = 4,
        // The body is kept in Request::body while it is at most Request::memoryBytes long, and
        // written to the destination only beyond that: a small body that is read once and then
        // thrown away (a compressed copy) costs no file.
        FlagMemory = 8,
    };

    // The process-wide instance (so that connections are kept between downloads).
    static QxDownload* createInstance();

    // One download: what to fetch where, within which limits, and on return how it went.
    struct Request
    {
        QString url;
        QString destination;
        unsigned flags = 0;
        // No byte for this long ends the transfer as a timeout; also the limit for connecting.
        int stallMs = 30000;
        // The whole transfer's limit, 0 for none: a slow but steady line is no fault.
        int totalMs = 0;
        // A body longer than this is refused while it arrives (ResultTooLarge); -1 for no limit.
        long long maxBytes = -1;
        // Called once the body's first headBytes bytes are in: its answer, when not negative,
        // lowers maxBytes (a header that tells how large the rest can be).
        int headBytes = 0;
        std::function<long long(const char* inHead, size_t inSize)> limitOfHead;
        // Kept free on the destination's file system while the body arrives (ResultNoSpace).
        const QxBase::DiskReserve* reserve = nullptr;
        int ms = 0;  // on return: the time taken
        int result = ResultFailed;
        QString error;        // the failure in words ("HTTP 404", "Couldn't connect to server", ...)
        McLib::MD5 md5;       // with FlagDigest and a kept body: the MD5 of the bytes written
        long long bytes = 0;  // the body's bytes written
        int file = -1;        // with FlagNameless and a good result: the nameless file, the caller's to close
        // With FlagMemory: the most kept in memory, and on return whether the body is in body
        // (inMemory) rather than in the destination.
        long long memoryBytes = 1 << 20;
        QByteArray body;
        bool inMemory = false;
        // With FlagNameless: files made ahead in the destination's folder, taken before one is made.
        QxBase::NamelessFilePool* namelessPool = nullptr;
    };
    void download(Request& inoutRequest);
    // Fetches a preferred copy and its fallback over two connections at once, so that the
    // fallback's answer need not wait for the preferred one's. As soon as the preferred answer
    // turns out good, the fallback is given up (ResultDropped, its file removed); otherwise it
    // runs to its end as download() would have run it.
    void downloadPair(Request& inoutFirst, Request& inoutSecond);
    // Many downloads over up to inParallel connections at once, kept open from one to the next.
    // inNext hands the next request to start (nullptr: none for now); inDone is called on this
    // thread as each one ends, and may give inNext more to hand out. Returns once nothing runs
    // and inNext has nothing left.
    void downloadMany(int inParallel, const std::function<Request*()>& inNext,
                      const std::function<void(Request&)>& inDone);

    ~QxDownload();

private:
    QxDownload();
    struct Private;
    std::unique_ptr<Private> d;
};
