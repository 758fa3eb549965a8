#pragma once
#include "QxGlobal.h"
#include "McMD5.h"

#include <QString>

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
    };

    enum Flag
    {
        // The destination is the caller's own temporary file: written directly, and removed
        // again when the transfer fails. Spares a second temporary name per download.
        FlagInPlace = 1,
        // The MD5 of the body is computed as it arrives (lastMd5), so nobody reads it again.
        FlagDigest = 2,
        // With FlagInPlace, for requests (not the plain download call): the body goes into a
        // file without a name in the destination's folder, handed back open in Request::file
        // for the caller to name (QxBase::File::linkNameless) once it is found good. Where the
        // file system has no such files, the destination is written in place and
        // Request::file stays -1.
        FlagNameless = 4,
    };

    // The process-wide instance (so that connections are kept between downloads).
    static QxDownload* createInstance();

    // inoutMs: the time limit in milliseconds on entry, the time taken on return.
    // The destination is written through a temporary file beside it and renamed into place
    // once the transfer ended (after a timeout, with what arrived).
    int download(const QString& inUrl, const QString& inDestination, int* inoutMs, unsigned inFlags = 0);
    // One download of a pair: what to fetch where, and on return how it went.
    struct Request
    {
        QString url;
        QString destination;
        unsigned flags = 0;
        int ms = 60000;        // the time limit on entry, the time taken on return
        int result = ResultFailed;
        QString error;         // as lastError
        McLib::MD5 md5;        // as lastMd5
        int file = -1;         // with FlagNameless and a good result: the nameless file, the caller's to close
    };
    // The same for a request, which can also hand back a nameless file (FlagNameless).
    void download(Request& inoutRequest);
    // Fetches a preferred copy and its fallback over two connections at once, so that the
    // fallback's answer need not wait for the preferred one's. As soon as the preferred answer
    // turns out good, the fallback is given up (ResultDropped, its file removed); otherwise it
    // runs to its end as download() would have run it.
    void downloadPair(Request& inoutFirst, Request& inoutSecond);
    // With FlagDigest: the MD5 of the bytes the last download wrote, else all zero.
    const McLib::MD5& lastMd5() const { return mLastMd5; }
    // The last failure in words ("HTTP 404", "Couldn't connect to server", ...).
    QString lastError() const { return mLastError; }
    // Number of transfers and of new connections made so far (for tests and benchmarks).
    long long connectionsOpened() const { return mConnections; }

    ~QxDownload();

private:
    QxDownload();
    struct Private;
    std::unique_ptr<Private> d;
    QString mLastError;
    McLib::MD5 mLastMd5;
    long long mConnections = 0;
};
