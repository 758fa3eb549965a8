#include "QxDownload.h"

#include "McCoder.h"
#include "QxFile.h"

#include <QElapsedTimer>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <deque>
#include <fcntl.h>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

struct QxDownload::Private
{
    // One pool of connections for both handles: a pair needs two, a single download reuses either.
    CURLM* multi = nullptr;
    CURL* curl[2] = {nullptr, nullptr};
    std::vector<char> fileBuffer[2];  // kept between downloads: many small items come one after another
    // The further handles of downloadMany, with their buffers; kept like the two above.
    std::vector<CURL*> many;
    std::vector<std::vector<char>> manyBuffer;
};

QxDownload::QxDownload() : d(new Private)
{
    static const bool sInit = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    (void)sInit;
    d->multi = curl_multi_init();
    for (CURL*& c : d->curl)
        c = curl_easy_init();
}

QxDownload::~QxDownload()
{
    for (CURL* c : d->many)
        if (c)
        {
            if (d->multi)
                curl_multi_remove_handle(d->multi, c);
            curl_easy_cleanup(c);
        }
    for (CURL* c : d->curl)
        if (c)
        {
            if (d->multi)
                curl_multi_remove_handle(d->multi, c);
            curl_easy_cleanup(c);
        }
    if (d->multi)
        curl_multi_cleanup(d->multi);
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
            mCoder.crcMD5Update(reinterpret_cast<const unsigned char*>(chunk.data()),
                                static_cast<unsigned int>(chunk.size()));
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
    CURL* curl = nullptr;
    QByteArray path;
    std::vector<char>* buffer = nullptr;
    QxDownload::Request* request = nullptr;
    StreamHasher* md5 = nullptr;  // only when the caller wants the digest
    bool nameless = false;        // try a file without a name first
    bool memory = false;          // the body is in request->body (FlagMemory, and small so far)
    FILE* file = nullptr;
    int namelessFd = -1;  // the file's descriptor when it has no name
    bool openFailed = false;
    bool checked = false;
    bool errorPage = false;
    size_t discarded = 0;
    long long total = 0;  // bytes of the body written
    long long maxBytes = -1;
    std::string head;  // the body's first bytes, while Request::limitOfHead waits for them
    bool tooLarge = false;
    bool noSpace = false;
    int writeErrno = 0;
    QString why;
};

// The limits of a good body: its length against maxBytes (lowered by what its head tells), the
// disk against the reserve every few MiB. False refuses the bytes, which ends the transfer.
bool sinkWithinLimits(Sink& inoutSink, const char* inData, size_t inSize)
{
    const QxDownload::Request& r = *inoutSink.request;
    const size_t wanted = r.headBytes > 0 ? static_cast<size_t>(r.headBytes) : 0;
    if (wanted > 0 && inoutSink.head.size() < wanted)
    {
        inoutSink.head.append(inData, std::min(inSize, wanted - inoutSink.head.size()));
        if (inoutSink.head.size() == wanted && r.limitOfHead)
        {
            const long long limit = r.limitOfHead(inoutSink.head.data(), inoutSink.head.size());
            if (limit >= 0 && (inoutSink.maxBytes < 0 || limit < inoutSink.maxBytes))
                inoutSink.maxBytes = limit;
        }
    }
    if (inoutSink.maxBytes >= 0 && inoutSink.total + static_cast<long long>(inSize) > inoutSink.maxBytes)
    {
        inoutSink.tooLarge = true;
        inoutSink.why = QStringLiteral("the body is larger than the %1 bytes it can be").arg(inoutSink.maxBytes);
        return false;
    }
    if (r.reserve && inoutSink.file &&
        !r.reserve->checkBefore(::fileno(inoutSink.file), static_cast<long long>(inSize), inoutSink.why))
    {
        inoutSink.noSpace = true;
        return false;
    }
    return true;
}

void sinkOpen(Sink& inoutSink)
{
    if (inoutSink.nameless)
    {
        bool unsupported = false;
        QxBase::NamelessFilePool* pool = inoutSink.request->namelessPool;
        int fd = pool ? pool->take() : -1;
        if (fd < 0)
            fd = QxBase::File::openNameless(QFile::decodeName(inoutSink.path), unsupported);
        // Without nameless files here, the named path serves.
        if (fd >= 0)
        {
            inoutSink.file = ::fdopen(fd, "wb");
            if (inoutSink.file)
                inoutSink.namelessFd = fd;
            else
                ::close(fd);
            inoutSink.openFailed = !inoutSink.file;
            return;
        }
        if (!unsupported)
        {
            inoutSink.openFailed = true;
            return;
        }
    }
    inoutSink.file = std::fopen(inoutSink.path.constData(), "wb");
    inoutSink.openFailed = !inoutSink.file;
}

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
    if (sink.memory)
    {
        QByteArray& body = sink.request->body;
        if (body.size() + static_cast<long long>(n) <= sink.request->memoryBytes)
        {
            if (!sinkWithinLimits(sink, inData, n))
                return 0;
            body.append(inData, static_cast<qsizetype>(n));
            sink.total += static_cast<long long>(n);
            if (sink.md5)
                sink.md5->add(inData, n);
            return n;
        }
        // Larger than memory may hold: what came so far goes into the file, and the rest after it.
        sink.memory = false;
        sinkOpen(sink);
        if (sink.file)
        {
            std::setvbuf(sink.file, sink.buffer->data(), _IOFBF, sink.buffer->size());
            if (std::fwrite(body.constData(), 1, static_cast<size_t>(body.size()), sink.file) <
                static_cast<size_t>(body.size()))
            {
                sink.writeErrno = errno;
                return 0;
            }
        }
        body = QByteArray();
    }
    // Opened on the first byte of a good answer: an error page costs no file.
    if (!sink.file && !sink.openFailed)
    {
        sinkOpen(sink);
        if (sink.file)
            std::setvbuf(sink.file, sink.buffer->data(), _IOFBF, sink.buffer->size());
    }
    if (!sink.file)
        return 0;
    if (!sinkWithinLimits(sink, inData, n))
        return 0;
    const size_t written = std::fwrite(inData, 1, n, sink.file);
    if (written < n)
        sink.writeErrno = errno;
    sink.total += static_cast<long long>(written);
    if (sink.md5)
        sink.md5->add(inData, written);
    return written;
}
}

namespace
{
// One transfer through the shared pool, from its options to its verdict.
struct Transfer
{
    QxDownload::Request* request = nullptr;
    CURL* curl = nullptr;
    Sink sink;
    std::unique_ptr<StreamHasher> md5;
    QByteArray url;
    char errorText[CURL_ERROR_SIZE] = {0};
    CURLcode rc = CURLE_OK;
    bool done = false;
    bool dropped = false;
    QElapsedTimer timer;
};

void transferStart(Transfer& inoutT, CURL* inCurl, std::vector<char>& inoutBuffer, QxDownload::Request& inoutRequest)
{
    inoutT.timer.start();
    inoutT.request = &inoutRequest;
    inoutT.curl = inCurl;
    const QString temp = inoutRequest.flags & QxDownload::FlagInPlace
                             ? inoutRequest.destination
                             : QxBase::File::temporaryPathBeside(inoutRequest.destination);
    if (inoutBuffer.empty())
        inoutBuffer.resize(1 << 20);
    inoutT.url = inoutRequest.url.toUtf8();
    inoutT.sink = Sink();
    inoutT.sink.curl = inCurl;
    inoutT.sink.path = QFile::encodeName(temp);
    inoutT.sink.buffer = &inoutBuffer;
    inoutT.sink.request = &inoutRequest;
    inoutT.sink.maxBytes = inoutRequest.maxBytes;
    inoutT.sink.nameless = inoutRequest.flags & QxDownload::FlagNameless;
    inoutT.sink.memory = inoutRequest.flags & QxDownload::FlagMemory;
    inoutRequest.body.clear();
    inoutRequest.inMemory = false;
    if (inoutRequest.flags & QxDownload::FlagDigest)
    {
        inoutT.md5.reset(new StreamHasher);
        inoutT.sink.md5 = inoutT.md5.get();
    }
    const long stallMs = inoutRequest.stallMs > 0 ? inoutRequest.stallMs : 30000;
    CURL* c = inCurl;
    curl_easy_reset(c);
    curl_easy_setopt(c, CURLOPT_URL, inoutT.url.constData());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &writeToFile);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &inoutT.sink);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, inoutT.errorText);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, 10L);
    // A stall is less than a byte a second for that long (libcurl counts in whole seconds); a
    // slow but steady body runs on.
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, (stallMs + 999) / 1000);
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, stallMs);
    if (inoutRequest.totalMs > 0)
        curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, static_cast<long>(inoutRequest.totalMs));
    // A stated length beyond the limit is refused before a byte is written.
    if (inoutRequest.maxBytes >= 0)
        curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(inoutRequest.maxBytes));
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https,file");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_USERAGENT, "ksdeploy");
    // Fewer, larger reads for big items.
    curl_easy_setopt(c, CURLOPT_BUFFERSIZE, 256L * 1024L);
}

// The verdict of a finished transfer: result, error text, digest and time into its request.
void transferFinish(Transfer& inoutT)
{
    QxDownload::Request& r = *inoutT.request;
    Sink& sink = inoutT.sink;
    const CURLcode rc = inoutT.rc;
    CURL* c = inoutT.curl;
    // An answer without a body still gives a (empty) file, a stalled one what arrived: nothing.
    // A body in memory has no file.
    if (!sink.memory && !sink.file && !sink.openFailed && !sink.errorPage &&
        (rc == CURLE_OK || rc == CURLE_OPERATION_TIMEDOUT))
        sinkOpen(sink);
    bool created = sink.file != nullptr;
    // A nameless file outlives its stream through a second descriptor, or it would be gone.
    int nameless = -1;
    if (sink.namelessFd >= 0 && std::fflush(sink.file) == 0)
        nameless = ::fcntl(sink.namelessFd, F_DUPFD_CLOEXEC, 0);
    const bool written =
        !sink.openFailed && (!created || std::fclose(sink.file) == 0) && (sink.namelessFd < 0 || nameless >= 0);
    sink.file = nullptr;

    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, nullptr);

    int result = QxDownload::ResultOk;
    if (status >= 400)
        result = QxDownload::ResultHttpError;
    else if (sink.tooLarge || rc == CURLE_FILESIZE_EXCEEDED)
        result = QxDownload::ResultTooLarge;
    else if (sink.noSpace)
        result = QxDownload::ResultNoSpace;
    else if (rc == CURLE_COULDNT_CONNECT || rc == CURLE_COULDNT_RESOLVE_HOST || rc == CURLE_COULDNT_RESOLVE_PROXY)
        result = QxDownload::ResultUnreachable;
    else if (rc == CURLE_OPERATION_TIMEDOUT)
        result = QxDownload::ResultTimeout;
    else if ((rc == CURLE_WRITE_ERROR || rc == CURLE_OK) && !written)
        result = QxDownload::ResultWriteError;
    else if (rc == CURLE_WRITE_ERROR)
        result = QxDownload::ResultWriteError;
    else if (rc != CURLE_OK)
        result = QxDownload::ResultFailed;
    r.error.clear();
    if (result == QxDownload::ResultHttpError)
        r.error = QStringLiteral("HTTP %1").arg(status);
    else if (result == QxDownload::ResultTooLarge && !sink.tooLarge)
        r.error = QStringLiteral("the stated length is larger than the %1 bytes the body can be").arg(r.maxBytes);
    else if (sink.tooLarge || sink.noSpace)
        r.error = sink.why;
    else if (!written || sink.writeErrno)
        r.error = QStringLiteral("cannot write '%1'%2")
                      .arg(r.destination, sink.writeErrno ? QStringLiteral(": %1").arg(
                                                                QString::fromLocal8Bit(std::strerror(sink.writeErrno)))
                                                          : QString());
    else if (rc != CURLE_OK)
        r.error = QString::fromUtf8(inoutT.errorText[0] ? inoutT.errorText : curl_easy_strerror(rc));
    const bool kept = result == QxDownload::ResultOk || result == QxDownload::ResultTimeout;
    r.file = -1;
    if (sink.memory)
    {
        r.inMemory = kept;
        if (!kept)
            r.body = QByteArray();
    }
    else if (sink.namelessFd >= 0)
    {
        // Nothing to remove or rename: unnamed, it is gone once closed.
        if (kept)
            r.file = nameless;
        else if (nameless >= 0)
            ::close(nameless);
        created = false;
    }
    // rename(2) replaces the destination in one step.
    else if (kept && !(r.flags & QxDownload::FlagInPlace) &&
             ::rename(sink.path.constData(), QFile::encodeName(r.destination).constData()) != 0)
    {
        r.error = QStringLiteral("cannot write '%1'").arg(r.destination);
        result = QxDownload::ResultWriteError;
    }
    // Only a file this call created is removed; an error page never created one.
    if (created && !kept)
        ::unlink(sink.path.constData());
    r.md5.clear();
    if (inoutT.md5 && kept)
        r.md5 = inoutT.md5->finish();
    r.bytes = sink.total;
    r.result = result;
    r.ms = static_cast<int>(inoutT.timer.elapsed());
}

// A fallback given up: what it wrote goes, and it says so.
void transferDrop(Transfer& inoutT)
{
    Sink& sink = inoutT.sink;
    curl_easy_setopt(inoutT.curl, CURLOPT_ERRORBUFFER, nullptr);
    if (sink.file)
    {
        std::fclose(sink.file);
        sink.file = nullptr;
        if (sink.namelessFd < 0)
            ::unlink(sink.path.constData());
    }
    inoutT.md5.reset();
    QxDownload::Request& r = *inoutT.request;
    r.body = QByteArray();
    r.inMemory = false;
    r.result = QxDownload::ResultDropped;
    r.file = -1;
    r.error = QStringLiteral("not needed");
    r.md5.clear();
    r.ms = static_cast<int>(inoutT.timer.elapsed());
}

// Whether the preferred download has a good answer: a body under a good status has begun,
// or it ended well without one.
bool answeredGood(const Transfer& inT)
{
    if (inT.sink.checked)
        return !inT.sink.errorPage;
    if (!inT.done || inT.rc != CURLE_OK)
        return false;
    long status = 0;
    curl_easy_getinfo(inT.curl, CURLINFO_RESPONSE_CODE, &status);
    return status < 400;
}

// Drives one or two transfers to their ends; with two, the second is dropped once the first
// answers well.
void transfersRun(CURLM* inMulti, Transfer& inoutFirst, Transfer* inoutSecond)
{
    Transfer* all[2] = {&inoutFirst, inoutSecond};
    for (Transfer* t : all)
        if (t)
            curl_multi_add_handle(inMulti, t->curl);
    for (;;)
    {
        int running = 0;
        const CURLMcode mc = curl_multi_perform(inMulti, &running);
        int left = 0;
        while (CURLMsg* msg = curl_multi_info_read(inMulti, &left))
            for (Transfer* t : all)
                if (t && msg->msg == CURLMSG_DONE && msg->easy_handle == t->curl)
                {
                    t->rc = msg->data.result;
                    t->done = true;
                }
        if (mc != CURLM_OK)
        {
            for (Transfer* t : all)
                if (t && !t->done)
                {
                    t->rc = CURLE_FAILED_INIT;
                    t->done = true;
                }
            break;
        }
        if (inoutSecond && !inoutSecond->dropped && answeredGood(inoutFirst))
        {
            // Taken out mid-transfer, libcurl closes that connection; the pool keeps the other.
            curl_multi_remove_handle(inMulti, inoutSecond->curl);
            inoutSecond->dropped = true;
            continue;
        }
        if (running == 0)
            break;
        curl_multi_poll(inMulti, nullptr, 0, 1000, nullptr);
    }
    for (Transfer* t : all)
        if (t && !t->dropped)
            curl_multi_remove_handle(inMulti, t->curl);
}
}

void QxDownload::download(Request& inoutRequest)
{
    inoutRequest.file = -1;
    if (!d->multi || !d->curl[0])
    {
        inoutRequest.result = ResultFailed;
        inoutRequest.error = QStringLiteral("no download library");
        inoutRequest.ms = 0;
    }
    else
    {
        Transfer t;
        transferStart(t, d->curl[0], d->fileBuffer[0], inoutRequest);
        transfersRun(d->multi, t, nullptr);
        transferFinish(t);
    }
}

void QxDownload::downloadPair(Request& inoutFirst, Request& inoutSecond)
{
    if (!d->multi || !d->curl[0] || !d->curl[1])
    {
        for (Request* r : {&inoutFirst, &inoutSecond})
        {
            r->file = -1;
            r->result = ResultFailed;
            r->error = QStringLiteral("no download library");
            r->ms = 0;
        }
        return;
    }
    Transfer first, second;
    transferStart(first, d->curl[0], d->fileBuffer[0], inoutFirst);
    transferStart(second, d->curl[1], d->fileBuffer[1], inoutSecond);
    transfersRun(d->multi, first, &second);
    transferFinish(first);
    if (second.dropped)
        transferDrop(second);
    else
        transferFinish(second);
}

void QxDownload::downloadMany(int inParallel, const std::function<Request*()>& inNext,
                              const std::function<void(Request&)>& inDone)
{
    const size_t width = static_cast<size_t>(std::max(1, inParallel));
    while (d->many.size() < width)
    {
        d->many.push_back(curl_easy_init());
        d->manyBuffer.emplace_back();
    }
    const auto refuse = [](Request& inoutRequest) {
        inoutRequest.file = -1;
        inoutRequest.result = ResultFailed;
        inoutRequest.error = QStringLiteral("no download library");
        inoutRequest.ms = 0;
    };
    // One transfer per slot; a slot is free again once its transfer has been handed back.
    std::vector<std::unique_ptr<Transfer>> running(width);
    size_t busy = 0;
    for (;;)
    {
        // Fill the free connections; a request the library cannot take is answered at once (and its
        // answer may hand out more, so the slot is offered again).
        for (size_t i = 0; i < width; ++i)
        {
            while (!running[i])
            {
                Request* r = inNext();
                if (!r)
                    break;
                r->file = -1;
                if (!d->multi || !d->many[i])
                {
                    refuse(*r);
                    inDone(*r);
                    continue;
                }
                running[i].reset(new Transfer);
                transferStart(*running[i], d->many[i], d->manyBuffer[i], *r);
                if (curl_multi_add_handle(d->multi, d->many[i]) != CURLM_OK)
                {
                    running[i].reset();
                    refuse(*r);
                    inDone(*r);
                    continue;
                }
                ++busy;
            }
        }
        // inNext had nothing left and nothing runs that could give it more.
        if (busy == 0)
            return;
        int still = 0;
        const CURLMcode mc = curl_multi_perform(d->multi, &still);
        int left = 0;
        while (CURLMsg* msg = curl_multi_info_read(d->multi, &left))
        {
            if (msg->msg != CURLMSG_DONE)
                continue;
            for (size_t i = 0; i < width; ++i)
                if (running[i] && !running[i]->done && msg->easy_handle == running[i]->curl)
                {
                    running[i]->rc = msg->data.result;
                    running[i]->done = true;
                }
        }
        if (mc != CURLM_OK)
            for (std::unique_ptr<Transfer>& t : running)
                if (t && !t->done)
                {
                    t->rc = CURLE_FAILED_INIT;
                    t->done = true;
                }
        bool ended = false;
        for (std::unique_ptr<Transfer>& t : running)
            if (t && t->done)
            {
                curl_multi_remove_handle(d->multi, t->curl);
                transferFinish(*t);
                Request& r = *t->request;
                t.reset();
                --busy;
                ended = true;
                inDone(r);
            }
        if (!ended && busy > 0)
            curl_multi_poll(d->multi, nullptr, 0, 1000, nullptr);
    }
}
