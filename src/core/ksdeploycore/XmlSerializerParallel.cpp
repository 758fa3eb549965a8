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
// The reading of a part takes the file in pieces of this size.
const qint64 sPiece = 256 * 1024;
// Where the root's start tag and the split are looked for: the file's beginning and a stretch
// from its middle on.
const qint64 sWindow = 64 * 1024;
// The share of the work the calling thread takes, in hundredths of the file or the graph.
// Besides its part it has the pool to fill and the links to resolve on a load, and the file to
// write on a save (where the other thread only fills memory): less than half keeps both
// threads busy to the end (as measured on a graph of 100,000 files).
const int64_t sLoadFirstShare = 45;
const int64_t sSaveFirstShare = 47;
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

bool XmlSerializer::partRead(const QByteArray& inHead, QFile& inFile, qint64 inEnd, bool inFirst, Part& outPart)
{
    const PoolEntryDeferral deferral;
    d->mQuiet = true;
    QXmlStreamReader& r = d->mReader;
    // Handed over a piece at a time, as a file is read, so that the reader never holds more
    // than a piece of the text, decoded.
    const auto more = [&] {
        const qint64 left = inEnd - inFile.pos();
        const QByteArray piece = left > 0 ? inFile.read(std::min<qint64>(left, sPiece)) : QByteArray();
        if (piece.isEmpty())
            return false;
        r.addData(piece);
        return true;
    };
    if (!inHead.isEmpty())
        r.addData(inHead);
    more();
    bool rootSeen = false;
    bool closed = false;
    int64_t depth = 0;
    while (true)
    {
        const QXmlStreamReader::TokenType t = r.readNext();
        if (r.hasError())
        {
            const bool starved = r.error() == QXmlStreamReader::PrematureEndOfDocumentError;
            if (starved && !closed && more())
                continue;
            // The first part runs out of data at the split. That is its right end only when the
            // split lies between two elements of the root: closing the root must then end the
            // document (inside a comment, CDATA or an instruction it would not).
            if (!inFirst || closed || depth != 1 || !starved)
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
    // Each part reads its own stretch of the file; the whole file is never held at once.
    QFile firstFile(inPath);
    QFile secondFile(inPath);
    // A file that cannot be read is reported by the ordinary reading.
    if (!firstFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered) ||
        !secondFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return false;
    const qint64 size = firstFile.size();
    if (size < std::max<int64_t>(sParallelLoadBytes, 1))
        return false;
    const QByteArray start = firstFile.read(sWindow);
    const qsizetype headEnd = rootStartEnd(start);
    if (headEnd < 0)
        return false;
    const qint64 middleFrom = std::max<qint64>(headEnd, size * sLoadFirstShare / 100);
    if (!secondFile.seek(middleFrom))
        return false;
    const QByteArray middle = secondFile.read(sWindow);
    const qsizetype splitInMiddle = splitAt(middle, 0);
    if (splitInMiddle < 0)
        return false;
    const qint64 split = middleFrom + splitInMiddle;
    if (!firstFile.seek(0) || !secondFile.seek(split))
        return false;

    Engine& engine = Engine::instance();
    const int64_t known = inoutResources.size();
    Part first;
    Part second;
    bool secondRead = false;
    XmlSerializer other;
    std::thread worker([&] { secondRead = other.partRead(start.first(headEnd), secondFile, size, false, second); });
    XmlSerializer reader;
    const bool firstRead = reader.partRead(QByteArray(), firstFile, split, true, first);
    // The pool takes the first part's resources while the second is still read: they come
    // first in the file, and only this thread touches the pool.
    if (firstRead)
    {
        engine.resourceReserve(static_cast<int64_t>(first.resources.size() * 2));
        inoutResources.reserve(known + static_cast<int64_t>(first.resources.size() * 2));
        for (const McHandle<Resource>& r : first.resources)
        {
            engine.resourceRegister(r);
            inoutResources.append(r);
        }
    }
    worker.join();
    if (!firstRead || !secondRead || first.rootName != second.rootName ||
        first.rootAttributes != second.rootAttributes || first.rootNamespaces != second.rootNamespaces)
    {
        // Taken out last first, each is the pool's last: the pool is as it was before.
        for (int64_t i = inoutResources.size() - 1; i >= known; --i)
            engine.resourceUnregister(inoutResources[i]);
        inoutResources.resize(known);
        return false;
    }
    for (const McHandle<Resource>& r : second.resources)
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
                              QIODevice& inoutDevice, qint64& outStart)
{
    QXmlStreamWriter& w = d->mWriter;
    w.setDevice(&inoutDevice);
    w.setAutoFormatting(true);
    w.writeStartDocument();
    writeStartSection(QStringLiteral("Deploy"));
    outStart = 0;
    if (inBegin > 0)
    {
        // A later part starts where the one before left off: inside the root, after an empty
        // element whose "/>" the writer leaves to the next thing written, which is ours.
        w.writeEmptyElement(QStringLiteral("Link"));
        outStart = inoutDevice.pos();
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
    {
        parallel = inResources[i].isNotNull();
        // Squeezes out the holes of removed links here: a resource listed in both halves
        // would otherwise have its links rearranged by two threads at once.
        if (parallel)
            (void)inResources[i]->links();
    }
    if (!parallel)
        return Serializer::serialize(inPath, inResources);

    McResult retVal;
    // Written next to the target and renamed into place on close: never half a file.
    d->mSaveFile.setFileName(inPath);
    const bool opened = d->mSaveFile.open(QIODevice::WriteOnly);
    if (MC_CHECK_TEXT(retVal, opened, "d->mFile.open()", QStringLiteral("failed to open file [%1]").arg(inPath)))
        return retVal;

    // The second half is written beside the first, which goes straight to the file. The
    // resources are only read: no handle is taken (their counts are not for two threads) and
    // each half's writer keeps its own forms.
    const int64_t middle = std::max<int64_t>(1, count * sSaveFirstShare / 100);
    QByteArray secondText;
    QBuffer secondBuffer(&secondText);
    secondBuffer.open(QIODevice::WriteOnly);
    qint64 secondStart = 0;
    bool secondWritten = false;
    XmlSerializer other;
    std::thread worker([&] { secondWritten = other.partWrite(inResources, middle, count, secondBuffer, secondStart); });
    qint64 firstStart = 0;
    XmlSerializer writer;
    const bool firstWritten = writer.partWrite(inResources, 0, middle, d->mSaveFile, firstStart);
    worker.join();
    if (!firstWritten || !secondWritten)
    {
        d->mSaveFile.cancelWriting();
        d->mSaveFile.commit();
        XmlSerializer again;
        return again.Serializer::serialize(inPath, inResources);
    }
    d->mSaveFile.write(secondText.constData() + secondStart, secondText.size() - secondStart);
    MC_CHECK_TEXT(retVal, d->mSaveFile.commit(), "d->mSaveFile.commit()",
                  QStringLiteral("failed to write file [%1]").arg(d->mSaveFile.fileName()));
    ++sParallelSaves;
    return retVal;
}
