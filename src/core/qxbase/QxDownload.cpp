#include "QxDownload.h"

#include "QxFile.h"

#include <QElapsedTimer>
#include <QFile>

#include <cstdio>
#include <curl/curl.h>

struct QxDownload::Private
{
    CURL* curl = nullptr;
};

QxDownload::QxDownload() : d(new Private)
{
    static const bool sInit = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    (void)sInit;
    d->curl = curl_easy_init();
}

QxDownload::~QxDownload()
{
    if (d->curl)
        curl_easy_cleanup(d->curl);
}

QxDownload* QxDownload::createInstance()
{
    static QxDownload sInstance;
    return &sInstance;
}

namespace
{
struct Sink
{
    CURL* curl;
    FILE* file;
    bool checked = false;
    bool errorPage = false;
    size_t discarded = 0;
};

// The body of an error answer is read and dropped rather than failing the transfer at once:
// libcurl closes the connection when it fails on an HTTP status, and a missing ".lzma" copy
// must not cost the connection that the plain file is fetched through next.
size_t writeToFile(char* inData, size_t inSize, size_t inCount, void* inSink)
{
    Sink& sink = *static_cast<Sink*>(inSink);
    const size_t n = inSize * inCount;
    if (!sink.checked)
    {
        long status = 0;
        curl_easy_getinfo(sink.curl, CURLINFO_RESPONSE_CODE, &status);
        sink.errorPage = status >= 400;
        sink.checked = true;
    }
    if (sink.errorPage)
    {
        sink.discarded += n;
        // A huge error page is not worth reading to the end: give up the connection instead.
        return sink.discarded > (1u << 20) ? 0 : n;
    }
    return std::fwrite(inData, 1, n, sink.file);
}
}

int QxDownload::download(const QString& inUrl, const QString& inDestination, int* inoutMs)
{
    QElapsedTimer timer;
    timer.start();
    const int limit = inoutMs && *inoutMs > 0 ? *inoutMs : 60000;
    mLastError.clear();
    if (!d->curl)
    {
        mLastError = QStringLiteral("no download library");
        return ResultFailed;
    }
    const QString temp = QxBase::File::temporaryPathBeside(inDestination);
    FILE* out = std::fopen(QFile::encodeName(temp).constData(), "wb");
    if (!out)
    {
        mLastError = QStringLiteral("cannot write '%1'").arg(inDestination);
        if (inoutMs)
            *inoutMs = static_cast<int>(timer.elapsed());
        return ResultWriteError;
    }
    std::setvbuf(out, nullptr, _IOFBF, 1 << 20);
    const QByteArray url = inUrl.toUtf8();
    CURL* c = d->curl;
    curl_easy_reset(c);
    Sink sink{c, out};
    char errorText[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(c, CURLOPT_URL, url.constData());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &writeToFile);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(limit));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limit));
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https,file");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_USERAGENT, "ksdeploy");
    const CURLcode rc = curl_easy_perform(c);
    long newConnections = 0;
    curl_easy_getinfo(c, CURLINFO_NUM_CONNECTS, &newConnections);
    mConnections += newConnections;
    const bool written = std::fclose(out) == 0;

    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, nullptr);

    int result = ResultOk;
    if (status >= 400)
        result = ResultHttpError;
    else if (rc == CURLE_OPERATION_TIMEDOUT)
        result = ResultTimeout;
    else if (rc == CURLE_WRITE_ERROR || !written)
        result = ResultWriteError;
    else if (rc != CURLE_OK)
        result = ResultFailed;
    if (result == ResultHttpError)
        mLastError = QStringLiteral("HTTP %1").arg(status);
    else if (rc != CURLE_OK)
        mLastError = QString::fromUtf8(errorText[0] ? errorText : curl_easy_strerror(rc));
    else if (!written)
        mLastError = QStringLiteral("cannot write '%1'").arg(inDestination);
    if (result == ResultOk || result == ResultTimeout)
    {
        // rename(2) replaces the destination in one step.
        if (::rename(QFile::encodeName(temp).constData(), QFile::encodeName(inDestination).constData()) != 0)
        {
            mLastError = QStringLiteral("cannot write '%1'").arg(inDestination);
            result = ResultWriteError;
        }
    }
    QFile::remove(temp);
    if (inoutMs)
        *inoutMs = static_cast<int>(timer.elapsed());
    return result;
}
