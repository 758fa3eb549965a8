#include "QxDownload.h"

#include "QxFile.h"

#include <QElapsedTimer>
#include <QFile>

#include <cstdio>
#include <vector>
#include <curl/curl.h>

struct QxDownload::Private
{
    CURL* curl = nullptr;
    std::vector<char> fileBuffer; // kept between downloads: many small items come one after another
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
    QByteArray path;
    std::vector<char>* buffer;
    FILE* file = nullptr;
    bool openFailed = false;
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
    // Opened on the first byte of a good answer: an error page costs no file.
    if (!sink.file && !sink.openFailed)
    {
        sink.file = std::fopen(sink.path.constData(), "wb");
        sink.openFailed = !sink.file;
        if (sink.file)
            std::setvbuf(sink.file, sink.buffer->data(), _IOFBF, sink.buffer->size());
    }
    return sink.file ? std::fwrite(inData, 1, n, sink.file) : 0;
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
    if (d->fileBuffer.empty())
        d->fileBuffer.resize(1 << 20);
    const QByteArray url = inUrl.toUtf8();
    CURL* c = d->curl;
    curl_easy_reset(c);
    Sink sink{c, QFile::encodeName(temp), &d->fileBuffer};
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
    // Fewer, larger reads for big items.
    curl_easy_setopt(c, CURLOPT_BUFFERSIZE, 256L * 1024L);
    const CURLcode rc = curl_easy_perform(c);
    long newConnections = 0;
    curl_easy_getinfo(c, CURLINFO_NUM_CONNECTS, &newConnections);
    mConnections += newConnections;
    // An answer without a body still gives a (empty) file, a stalled one what arrived: nothing.
    if (!sink.file && !sink.openFailed && !sink.errorPage && (rc == CURLE_OK || rc == CURLE_OPERATION_TIMEDOUT))
    {
        sink.file = std::fopen(sink.path.constData(), "wb");
        sink.openFailed = !sink.file;
    }
    const bool written = !sink.openFailed && (!sink.file || std::fclose(sink.file) == 0);

    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, nullptr);

    int result = ResultOk;
    if (status >= 400)
        result = ResultHttpError;
    else if (rc == CURLE_OPERATION_TIMEDOUT)
        result = ResultTimeout;
    else if ((rc == CURLE_WRITE_ERROR || rc == CURLE_OK) && !written)
        result = ResultWriteError;
    else if (rc == CURLE_WRITE_ERROR)
        result = ResultWriteError;
    else if (rc != CURLE_OK)
        result = ResultFailed;
    if (result == ResultHttpError)
        mLastError = QStringLiteral("HTTP %1").arg(status);
    else if (!written)
        mLastError = QStringLiteral("cannot write '%1'").arg(inDestination);
    else if (rc != CURLE_OK)
        mLastError = QString::fromUtf8(errorText[0] ? errorText : curl_easy_strerror(rc));
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
