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
size_t writeToFile(char* inData, size_t inSize, size_t inCount, void* inFile)
{
    return std::fwrite(inData, inSize, inCount, static_cast<FILE*>(inFile)) * inSize;
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
    curl_easy_setopt(c, CURLOPT_URL, url.constData());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &writeToFile);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, out);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(c, CURLOPT_FAILONERROR, 1L);
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

    int result = ResultOk;
    if (rc == CURLE_OPERATION_TIMEDOUT)
        result = ResultTimeout;
    else if (rc == CURLE_HTTP_RETURNED_ERROR)
        result = ResultHttpError;
    else if (rc == CURLE_WRITE_ERROR || !written)
        result = ResultWriteError;
    else if (rc != CURLE_OK)
        result = ResultFailed;
    if (rc != CURLE_OK)
    {
        long status = 0;
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
        mLastError = rc == CURLE_HTTP_RETURNED_ERROR ? QStringLiteral("HTTP %1").arg(status)
                                                     : QString::fromUtf8(curl_easy_strerror(rc));
    }
    if (result == ResultOk || result == ResultTimeout)
    {
        QFile::remove(inDestination);
        if (!QFile::rename(temp, inDestination))
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
