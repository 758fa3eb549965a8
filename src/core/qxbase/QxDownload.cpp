#include "QxDownload.h"

#include "McCoder.h"
#include "QxFile.h"

#include <QElapsedTimer>
#include <QFile>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>
#include <curl/curl.h>
#include <unistd.h>

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
// Hashes a byte stream. The first megabyte is hashed on the spot; past it, a second thread takes
// over, so that a big download is hashed while it arrives instead of after it: hashing is slower
// than a fast link, and the machine has a core to spare for it.
class StreamHasher
{
public:
    StreamHasher() { mCoder.crcMD5Init(); }
    ~StreamHasher() { stop(); }

    void add(const char* inData, size_t inSize)
    {
        if (!mThread.joinable() && mInline + inSize <= sInlineBytes)
        {
            mInline += inSize;
            mCoder.crcMD5Update(reinterpret_cast<const unsigned char*>(inData), static_cast<unsigned int>(inSize));
            return;
        }
        if (!mThread.joinable())
            mThread = std::thread([this] { work(); });
        std::vector<char> chunk;
        {
            // A bounded queue: a slow hasher holds the transfer back rather than fill the memory.
            std::unique_lock<std::mutex> lock(mMutex);
            mRoom.wait(lock, [this] { return mQueue.size() < sQueueChunks; });
            if (!mSpare.empty())
            {
                chunk.swap(mSpare.back());
                mSpare.pop_back();
            }
        }
        chunk.assign(inData, inData + inSize);
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mQueue.push_back(std::move(chunk));
        }
        mReady.notify_one();
    }

    McLib::MD5 finish()
    {
        stop();
        McLib::MD5 md5;
        mCoder.crcMD5Final();
        mCoder.crcMD5Query(md5.data());
        return md5;
    }

private:
    static constexpr size_t sInlineBytes = 1 << 20;
    static constexpr size_t sQueueChunks = 16;

    void stop()
    {
        if (!mThread.joinable())
            return;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mEnd = true;
        }
        mReady.notify_one();
        mThread.join();
    }

    void work()
    {
        std::unique_lock<std::mutex> lock(mMutex);
        for (;;)
        {
            mReady.wait(lock, [this] { return mEnd || !mQueue.empty(); });
            if (mQueue.empty())
                return;
            std::vector<char> chunk = std::move(mQueue.front());
            mQueue.pop_front();
            lock.unlock();
            mRoom.notify_one();
            mCoder.crcMD5Update(reinterpret_cast<const unsigned char*>(chunk.data()), static_cast<unsigned int>(chunk.size()));
            lock.lock();
            mSpare.push_back(std::move(chunk));
        }
    }

    McCoder mCoder;
    size_t mInline = 0;
    std::thread mThread;
    std::mutex mMutex;
    std::condition_variable mReady, mRoom;
    std::deque<std::vector<char>> mQueue;
    std::vector<std::vector<char>> mSpare;
    bool mEnd = false;
};

struct Sink
{
    CURL* curl;
    QByteArray path;
    std::vector<char>* buffer;
    StreamHasher* md5 = nullptr; // only when the caller wants the digest
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
    if (!sink.file)
        return 0;
    const size_t written = std::fwrite(inData, 1, n, sink.file);
    if (sink.md5)
        sink.md5->add(inData, written);
    return written;
}
}

int QxDownload::download(const QString& inUrl, const QString& inDestination, int* inoutMs, unsigned inFlags)
{
    QElapsedTimer timer;
    timer.start();
    const int limit = inoutMs && *inoutMs > 0 ? *inoutMs : 60000;
    mLastError.clear();
    mLastMd5.clear();
    if (!d->curl)
    {
        mLastError = QStringLiteral("no download library");
        return ResultFailed;
    }
    const bool inPlace = inFlags & FlagInPlace;
    const QString temp = inPlace ? inDestination : QxBase::File::temporaryPathBeside(inDestination);
    if (d->fileBuffer.empty())
        d->fileBuffer.resize(1 << 20);
    const QByteArray url = inUrl.toUtf8();
    CURL* c = d->curl;
    curl_easy_reset(c);
    Sink sink{c, QFile::encodeName(temp), &d->fileBuffer};
    std::unique_ptr<StreamHasher> md5;
    if (inFlags & FlagDigest)
    {
        md5.reset(new StreamHasher);
        sink.md5 = md5.get();
    }
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
    const bool created = sink.file != nullptr;
    const bool written = !sink.openFailed && (!created || std::fclose(sink.file) == 0);

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
    const bool kept = result == ResultOk || result == ResultTimeout;
    // rename(2) replaces the destination in one step.
    if (kept && !inPlace && ::rename(sink.path.constData(), QFile::encodeName(inDestination).constData()) != 0)
    {
        mLastError = QStringLiteral("cannot write '%1'").arg(inDestination);
        result = ResultWriteError;
    }
    // Only a file this call created is removed; an error page never created one.
    if (created && result != ResultOk && result != ResultTimeout)
        ::unlink(sink.path.constData());
    if (md5 && (result == ResultOk || result == ResultTimeout))
        mLastMd5 = md5->finish();
    if (inoutMs)
        *inoutMs = static_cast<int>(timer.elapsed());
    return result;
}
