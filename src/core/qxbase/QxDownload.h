#pragma once
#include "QxGlobal.h"

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
    };

    // The process-wide instance (so that connections are kept between downloads).
    static QxDownload* createInstance();

    // inoutMs: the time limit in milliseconds on entry, the time taken on return.
    // The destination is written through a temporary file beside it and renamed into place
    // once the transfer ended (after a timeout, with what arrived).
    int download(const QString& inUrl, const QString& inDestination, int* inoutMs);
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
    long long mConnections = 0;
};
