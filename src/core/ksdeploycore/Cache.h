#pragma once
#include "BufferID.h"
#include "KsGlobal.h"

#include <QDateTime>
#include <QHash>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

namespace KsDeploy
{
class Resource;

// File contents addressed by MD5 in one flat directory, fetched from local files or from
// an ordered list of HTTP base URLs (".lzma" copy first, digest checked).
class Cache
{
public:
    Cache(const Cache& inOther) = default;
    Cache& operator=(const Cache& inOther) = default;
    virtual ~Cache();

    // The cache folder: the one set, else the default one. Checked (and created) when first asked
    // for; after that the folder is taken as it is until another is set or the cache is emptied.
    McResult path(QString& outValue) const;
    void pathSet(const QString& inPath) { mPath = inPath; }

    void httpUrlAdd(const QString& inUrl);
    // Also forgets what the servers' answers taught (which did not answer, which folders have
    // no ".lzma" copies).
    void httpUrlClearAll();
    QList<QString> httpUrlList() const { return mListOfUrl; }

    bool itemIsCached(const BufferID& inBufferId) const;
    // The names of every item in the cache, from one listing of its folder: for many items that
    // is far cheaper than asking itemIsCached for each. False when the folder cannot be read.
    bool itemsCached(QSet<QString>& outNames) const;
    void itemRemove(const BufferID& inBufferId);
    void itemRemoveAll();
    // Copies a cached item to a target; an existing target with other content is replaced
    // only when inOverwrite is set.
    McResult itemWriteToFile(const BufferID& inBufferId, const QString& inTarget, bool inOverwrite);
    // The two halves of itemWriteToFile. itemCreateFile copies only when nothing is at the
    // target yet; outExisted tells that something was (a file, a folder or a link), which is
    // then left untouched. itemWriteOverFile handles a target that exists: content already
    // right stays, other content is replaced when inOverwrite is set.
    McResult itemCreateFile(const BufferID& inBufferId, const QString& inTarget, bool& outExisted);
    McResult itemWriteOverFile(const BufferID& inBufferId, const QString& inTarget, bool inOverwrite);
    // Items that are links of files proven to hold their content, with the mode their targets
    // want: itemCreateFile makes a target from one of them as one more link, not a copy (where
    // the file system refuses the link, it copies). Empty: every target is a copy.
    void sharedItemsSet(const QSet<QString>& inItems) { mListOfSharedItem = inItems; }
    bool itemIsShared(const BufferID& inBufferId) const
    {
        return !mListOfSharedItem.isEmpty() && mListOfSharedItem.contains(itemFilePath(inBufferId));
    }

    McResult retrieve(const BufferID& inBufferId);
    // retrieve for many items, fetched over several connections at once. inProgress hears of
    // every item that is in the cache (fetched or there before) with the count so far; false from
    // it starts no further one. Stops at the first item no URL can serve and reports it as
    // retrieve would.
    McResult retrieveAll(const std::vector<BufferID>& inBufferIds,
                         const std::function<bool(size_t inDone)>& inProgress = {});
    McResult retrieveFromFile(const QString& inFilePath, bool inCompress);
    McResult retrieveFromDirectory(const QString& inDirPath, bool inRecursive, const QStringList& inFilters,
                                   bool inCompress);
    McResult retrieveFromResources(const McDArray<McHandle<Resource>>& inResources, bool inCompress);
    McResult retrieveFromHTTP(const BufferID& inBufferId);
    McResult retrieveFromHTTP(const BufferID& inBufferId, const QString& inUrl);

    static McResult loadFileHTTP(const QString& inDestination, const QString& inUrl, const McLib::MD5& inExpected);

    // The limits of every download: no byte for inStallMs ends one (default 30 s); inTotalMs, when
    // above 0, bounds a whole transfer (default: none). The host sets them from its environment.
    static void downloadLimitsSet(int inStallMs, int inTotalMs);

    // Removes the temporary files of writes into the cache folder that were cut short before
    // inStart (a process killed while downloading); younger ones may be another process's.
    void temporaryFilesRemove(const QDateTime& inStart);

    // Where the item lives in the cache folder (whether it is there or not).
    QString itemFilePath(const BufferID& inBufferId) const;

private:
    friend class Engine;
    // inDefaultPath finds the folder used when none is set.
    explicit Cache(const std::function<McResult(QString&)>& inDefaultPath);
    // One base URL; outUnreachable tells that it could not be connected to or timed out.
    McResult retrieveFromHTTP(const BufferID& inBufferId, const QString& inUrl, bool& outUnreachable);
    // One item from one URL into inDestination, ".lzma" copy first, digest checked.
    McResult fetchFile(const QString& inDestination, const QString& inUrl, const McLib::MD5& inExpected,
                       bool& outUnreachable);
    // Whether the last ".lzma" copy asked for in inFolder could not be had.
    bool packedMissingAt(const QString& inFolder) const;
    // Whether inFolder is taken to have no ".lzma" copies at all: only plain files are asked for.
    bool packedAbsentAt(const QString& inFolder) const;
    // What the answer to a ".lzma" copy in inFolder said: had, missing (HTTP 404) or neither.
    void packedSeen(const QString& inFolder, bool inHad, bool inNotFound);
    // Caches local files; with inCompress as ".lzma" copies, compressed on every core, and as the
    // plain file where the copy would not be at least 5% smaller.
    McResult cacheFiles(const QStringList& inPaths, bool inCompress);
    // The failure of an item that no URL served (inReasons: why each failed).
    McResult retrieveFailure(const BufferID& inBufferId, const QList<QString>& inUrls,
                             const QStringList& inReasons) const;

    QList<QString> mListOfUrl;
    // Base URLs that did not answer: skipped for the rest of the run.
    QSet<QString> mListOfUnreachableUrl;
    // What the ".lzma" copies of folders on a server answered (see folderOf in Cache.cpp).
    struct PackedSeen
    {
        int had = 0;       // copies that came
        int notFound = 0;  // copies the server does not have (HTTP 404)
        bool lastMissed = false;
    };
    QHash<QString, PackedSeen> mPackedSeen;
    QSet<QString> mListOfSharedItem;

    QString mPath;
    std::function<McResult(QString&)> mDefaultPath;
    // The folder last checked by path, and whether it was the default one.
    mutable QString mPathVerified;
    mutable bool mPathVerifiedIsDefault = false;
};
}
