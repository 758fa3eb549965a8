// A large graph read and written on two threads. Qt's stream reader and writer take one core
// each at most, and a product's description may hold a hundred thousand files, so each half of
// the document gets a thread of its own. The result is always that of the one-thread way: a
// load that meets anything unusual (or anything the one-thread reading would report) forgets
// what its parts read and reads the file again the ordinary way, so reports, their lines and
// the pool come out exactly as they always did.
#include "XmlSerializer.h"

#include "Engine.h"
#include "Resource.h"
#include "ResourceFactory.h"
#include "XmlSerializerPrivate.h"

#include <QBuffer>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>

using namespace KsDeploy;

namespace
{
// About the size of a description of a few thousand files: below it a second thread costs
// more than it saves.
int64_t sParallelLoadBytes = 1 << 20;
int64_t sParallelSaveCount = 4000;
std::atomic<int64_t> sParallelLoads{0};
std::atomic<int64_t> sParallelSaves{0};

bool isSpace(char inChar) { return inChar == ' ' || inChar == '\t' || inChar == '\r' || inChar == '\n'; }

bool isNameStart(char inChar)
{
    const unsigned char c = static_cast<unsigned char>(inChar);
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':';
}

// Just past the '>' of the root's start tag, or -1 when anything but white space, the
// declaration, processing instructions and comments comes before it, or the root is empty.
qsizetype rootStartEnd(const QByteArray& inData)
{
    const char* p = inData.constData();
    const qsizetype n = inData.size();
    qsizetype i = inData.startsWith("\xEF\xBB\xBF") ? 3 : 0;
    while (i < n)
    {
        if (isSpace(p[i]))
        {
            ++i;
            continue;
        }
        if (p[i] != '<' || i + 1 >= n)
            return -1;
        if (p[i + 1] == '?')
        {
            const qsizetype end = inData.indexOf("?>", i + 2);
            if (end < 0)
                return -1;
            i = end + 2;
            continue;
        }
        if (inData.sliced(i).startsWith("<!--"))
        {
            const qsizetype end = inData.indexOf("-->", i + 4);
            if (end < 0)
                return -1;
            i = end + 3;
            continue;
        }
        // A document type declaration (or anything else): never read in parts.
        if (!isNameStart(p[i + 1]))
            return -1;
        char quote = 0;
        for (qsizetype j = i + 1; j < n; ++j)
        {
            const char c = p[j];
            if (quote)
                quote = c == quote ? 0 : quote;
            else if (c == '"' || c == '\'')
                quote = c;
            else if (c == '>')
                return p[j - 1] == '/' ? -1 : j + 1;
        }
        return -1;
    }
    return -1;
}

// The first line at or after inFrom that starts, past its indentation, with an element (a '<'
// and a name): where our writer begins every resource and link. Whether it really lies between
// two elements of the root is proven by reading, not assumed.
qsizetype splitAt(const QByteArray& inData, qsizetype inFrom)
{
    const char* p = inData.constData();
    const qsizetype n = inData.size();
    for (qsizetype i = inFrom; i < n;)
    {
        const void* found = std::memchr(p + i, '\n', static_cast<size_t>(n - i));
        if (!found)
            return -1;
        qsizetype j = static_cast<const char*>(found) - p + 1;
        while (j < n && (p[j] == ' ' || p[j] == '\t'))
            ++j;
        if (j + 1 < n && p[j] == '<' && isNameStart(p[j + 1]))
            return j;
        i = j;
    }
    return -1;
}

// Resources made on this thread stay out of the pool while it lives.
class PoolEntryDeferral
{
public:
    PoolEntryDeferral() { Resource::poolEntryDeferSet(true); }
    ~PoolEntryDeferral() { Resource::poolEntryDeferSet(false); }
    PoolEntryDeferral(const PoolEntryDeferral&) = delete;
    PoolEntryDeferral& operator=(const PoolEntryDeferral&) = delete;
};
}

void XmlSerializer::parallelLoadBytesSet(int64_t inBytes) { sParallelLoadBytes = inBytes; }
void XmlSerializer::parallelSaveCountSet(int64_t inCount) { sParallelSaveCount = inCount; }
int64_t XmlSerializer::parallelLoads() { return sParallelLoads.load(); }
int64_t XmlSerializer::parallelSaves() { return sParallelSaves.load(); }

bool XmlSerializer::partRead(const QByteArray& inHead, const QByteArray& inBody, bool inFirst, Part& outPart)
{
    const PoolEntryDeferral deferral;
    d->mQuiet = true;
    QXmlStreamReader& r = d->mReader;
    r.addData(inHead);
    if (!inBody.isEmpty())
        r.addData(inBody);
    bool rootSeen = false;
    bool closed = false;
    int64_t depth = 0;
    while (true)
    {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (r.hasError())
        {
            // The first part runs out of data at the split. That is its right end only when the
            // split lies between two elements of the root: closing the root must then end the
            // document (inside a comment, CDATA or an instruction it would not).
            if (!inFirst || closed || depth != 1 || r.error() != QXmlStreamReader::PrematureEndOfDocumentError)
                return false;
            const QString closing = QStringLiteral("</%1>").arg(outPart.rootName);
            // Our closing tag is ASCII; in any other case the document's encoding might differ.
            for (const QChar c : closing)
                if (c.unicode() >= 0x80)
                    return false;
            r.addData(closing.toLatin1());
            closed = true;
            continue;
        }
        switch (t)
        {
        case QXmlStreamReader::StartElement:
            ++depth;
            if (!rootSeen)
            {
                rootSeen = true;
                outPart.rootName = r.qualifiedName().toString();
                outPart.rootAttributes = r.attributes();
                outPart.rootNamespaces = r.namespaceDeclarations();
                // The other part's root is only the frame its elements are read in.
                if (!inFirst)
                    continue;
            }
            elementTake(outPart);
            if (d->mDoubt)
                return false;
            break;
        case QXmlStreamReader::EndElement:
            --depth;
            break;
        case QXmlStreamReader::EndDocument:
            return !inFirst || closed;
        case QXmlStreamReader::DTD:
        case QXmlStreamReader::EntityReference:
        case QXmlStreamReader::Invalid:
            return false;
        default:
            break;
        }
    }
}

void XmlSerializer::elementTake(Part& inoutPart)
{
    // As Serializer::deserialize takes an element, without reporting.
    const QString name = elementName();
    if (name == QLatin1String("Deploy"))
        return;
    if (name == QLatin1String("Link"))
    {
        PendingLink& l = inoutPart.links.emplace_back();
        readLink(l.source, l.target, l.name);
        return;
    }
    if (!ResourceFactory::isRegistered(name))
    {
        d->mDoubt = true;
        return;
    }
    McHandle<Resource> made;
    readResource(made);
    if (made.isNotNull())
        inoutPart.resources.push_back(made);
}

bool XmlSerializer::deserializeParallel(const QString& inPath, McDArray<McHandle<Resource>>& inoutResources)
{
    if (!Engine::instanceAvailable())
        return false;
    QFile file(inPath);
    // A file that cannot be read is reported by the ordinary reading.
    if (!file.open(QIODevice::ReadOnly) || file.size() < std::max<int64_t>(sParallelLoadBytes, 1))
        return false;
    const QByteArray data = file.readAll();
    file.close();
    const qsizetype headEnd = rootStartEnd(data);
    if (headEnd < 0)
        return false;
    const qsizetype split = splitAt(data, std::max(headEnd, data.size() / 2));
    if (split < 0)
        return false;

    // The parts keep views of the file's bytes, which outlive both readings.
    const QByteArray firstBytes = QByteArray::fromRawData(data.constData(), split);
    const QByteArray headBytes = QByteArray::fromRawData(data.constData(), headEnd);
    const QByteArray restBytes = QByteArray::fromRawData(data.constData() + split, data.size() - split);
    Part first;
    Part second;
    bool secondRead = false;
    {
        XmlSerializer other;
        std::thread worker([&] { secondRead = other.partRead(headBytes, restBytes, false, second); });
        XmlSerializer reader;
        const bool firstRead = reader.partRead(firstBytes, QByteArray(), true, first);
        worker.join();
        if (!firstRead || !secondRead)
            return false;
    }
    if (first.rootName != second.rootName || first.rootAttributes != second.rootAttributes ||
        first.rootNamespaces != second.rootNamespaces)
        return false;

    // The pool takes them in file order, on this thread, as the ordinary reading would have.
    Engine& engine = Engine::instance();
    const int64_t count = static_cast<int64_t>(first.resources.size() + second.resources.size());
    engine.resourceReserve(count);
    inoutResources.reserve(inoutResources.size() + count);
    for (const Part* part : {&first, &second})
        for (const McHandle<Resource>& r : part->resources)
        {
            engine.resourceRegister(r);
            inoutResources.append(r);
        }
    linksResolve(first.links);
    linksResolve(second.links);
    loadTrace(inPath, inoutResources);
    ++sParallelLoads;
    return true;
}

bool XmlSerializer::partWrite(const McDArray<McHandle<Resource>>& inResources, int64_t inBegin, int64_t inEnd,
                              QByteArray& outText, qsizetype& outStart)
{
    QBuffer buffer(&outText);
    buffer.open(QIODevice::WriteOnly);
    QXmlStreamWriter& w = d->mWriter;
    w.setDevice(&buffer);
    w.setAutoFormatting(true);
    w.writeStartDocument();
    writeStartSection(QStringLiteral("Deploy"));
    outStart = 0;
    if (inBegin > 0)
    {
        // A later part starts where the one before left off: inside the root, after an empty
        // element whose "/>" the writer leaves to the next thing written, which is ours.
        w.writeEmptyElement(QStringLiteral("Link"));
        outStart = outText.size();
    }
    McResult retVal;
    for (int64_t i = inBegin; i < inEnd; ++i)
    {
        retVal << writeResource(inResources[i]);
        retVal << writeLinks(*inResources[i]);
    }
    if (inEnd == inResources.size())
    {
        writeEndSection();
        w.writeEndDocument();
    }
    w.setDevice(nullptr);
    return retVal.isOk() && !w.hasError();
}

McResult XmlSerializer::serialize(const QString& inPath, const McDArray<McHandle<Resource>>& inResources)
{
    const int64_t count = inResources.size();
    bool parallel = count >= std::max<int64_t>(sParallelSaveCount, 2);
    for (int64_t i = 0; parallel && i < count; ++i)
        parallel = inResources[i].isNotNull();
    if (!parallel)
        return Serializer::serialize(inPath, inResources);

    // The second half is written beside the first. The resources are only read: no handle is
    // taken (their counts are not for two threads) and each half's writer keeps its own forms.
    const int64_t middle = count / 2;
    QByteArray secondText;
    qsizetype secondStart = 0;
    bool secondWritten = false;
    XmlSerializer other;
    std::thread worker(
        [&] { secondWritten = other.partWrite(inResources, middle, count, secondText, secondStart); });
    QByteArray firstText;
    qsizetype firstStart = 0;
    XmlSerializer writer;
    const bool firstWritten = writer.partWrite(inResources, 0, middle, firstText, firstStart);
    worker.join();
    if (!firstWritten || !secondWritten)
        return Serializer::serialize(inPath, inResources);

    McResult retVal;
    // Written next to the target and renamed into place on close: never half a file.
    d->mSaveFile.setFileName(inPath);
    const bool opened = d->mSaveFile.open(QIODevice::WriteOnly);
    if (MC_CHECK_TEXT(retVal, opened, "d->mFile.open()", QStringLiteral("failed to open file [%1]").arg(inPath)))
        return retVal;
    d->mSaveFile.write(firstText);
    d->mSaveFile.write(secondText.constData() + secondStart, secondText.size() - secondStart);
    MC_CHECK_TEXT(retVal, d->mSaveFile.commit(), "d->mSaveFile.commit()",
                  QStringLiteral("failed to write file [%1]").arg(d->mSaveFile.fileName()));
    ++sParallelSaves;
    return retVal;
}
