#pragma once
#include "KsGlobal.h"
#include "McMD5.h"
#include "QxFile.h"

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <functional>
#include <vector>

namespace KsDeploy
{
class ResourceProduct;

// The update of an installed client, done by an engine that runs from outside the client's
// folder: wait for the engine that started it, make sure no program holds the folder, install the
// new version into a staging folder beside it (unchanged files from the old folder, never the
// network again), verify it, exchange the two folders in one step, and start the new client. A
// client that fails at once is replaced by the old one again. Until the exchange nothing in the
// application folder changes; a kill at any moment leaves one whole version there (the exchange's
// journal is finished or undone by recoverInterrupted at the next start).
class ClientDeployment
{
public:
    enum class Outcome
    {
        NotRun,
        Updated,     // the new version is in place and its client started
        Unchanged,   // failed before the exchange: the old version is as it was, its client started
        RolledBack,  // the new client failed its start: the old version is back and started
    };
    // Asked with the programs that hold the application folder ("name (pid N)" each): true to look
    // again, false to give up. Without one, programs in the way fail the update at once.
    typedef std::function<bool(const QStringList& inPrograms)> InUseQuestion;

    ClientDeployment();

    // The installed client's folder; the product's "Application" folder must resolve to it.
    void applicationDirSet(const QString& inPath) { mApplicationDir = inPath; }
    // The product, already in the resource pool, and the configuration key that holds the
    // application folder's name ("DIR_APPLICATION"): it names the staging folder while staging.
    void productKeySet(const QString& inKey) { mProductKey = inKey; }
    void applicationKeySet(const QString& inKey) { mApplicationKey = inKey; }
    // The client program (a path inside the application folder) and how it is started; the
    // environment entries ("KEY=value") are added to this process's own environment.
    void clientSet(const QString& inExecutable, const QStringList& inArguments, const QStringList& inEnvironment);
    // The process to wait for before anything is looked at (0: none), and for how long.
    void parentPidSet(qint64 inPid, int inTimeoutMs = 60000)
    {
        mParentPid = inPid;
        mParentTimeoutMs = inTimeoutMs;
    }
    // A new client that ends with a failure within this time counts as a failed start.
    void startWatchMsSet(int inMs) { mStartWatchMs = inMs; }
    void inUseQuestionSet(const InUseQuestion& inQuestion) { mInUseQuestion = inQuestion; }
    // Where the update keeps its record ("update-<time>.log") and where earlier updates' "*.log"
    // and "*.xml" files are cleared away; empty: no record.
    void workDirSet(const QString& inPath) { mWorkDir = inPath; }
    // Whether a failure starts the old client and tells the user (reportUpdateFailure); on by
    // default, as the caller ends once the deployment has run.
    void failureHandlingSet(bool inOn) { mFailureHandling = inOn; }
    // The description of the version being installed. A copy of it beside the application folder
    // (unfinishedDescription) says, from before the exchange until the caller removes it after the
    // installed product's own records were rewritten, that those records may still name the old
    // version; empty: no such copy.
    void descriptionSet(const QString& inPath) { mDescription = inPath; }

    // The whole update. Bad when the new version is not in place and running (see outcome()).
    // The new version is installed as a product of its own ("<key>.staging") through the
    // engine's install, whose plugin hooks (the client plugin's, registered here when it is not
    // yet) do the update's steps around it: the in-use check before anything is fetched, the
    // verification and the exchange once the files are written, and the start of the new client
    // (or of the old one, with the failure reported) after the install has ended.
    McResult run();
    Outcome outcome() const { return mOutcome; }

    // The deployment whose staging install runs now, if any, and whether a product is the one it
    // stages: the client plugin's hooks act on that product only.
    static ClientDeployment* active() { return sActive; }
    bool stages(const ResourceProduct* inProduct) const;

    // The steps of run(), usable alone and by the hooks.
    // The programs (other than this one) holding the application folder, as "name (pid N)".
    McResult programsInUse(QStringList& outPrograms) const;
    // Asks inUseQuestion until the folder is free; fails with the list when there is no one to ask
    // or the answer is to give up.
    McResult waitUntilNotInUse();
    // The staging install may fetch: files the installed version shares with it go to the cache.
    void stagingBegin();
    // Checks the staged files against the product.
    McResult stagingVerify();
    // The staging install failed before the exchange: what it left goes, and when the staging had
    // begun the failure says so.
    McResult stagingAbandon();
    // Exchanges the staged folder and the application folder, then moves the version it replaced
    // out of the staging folder's name (replacedDir), where a rollback of the staging install
    // cannot reach it.
    McResult exchange();
    bool exchanged() const { return mExchanged; }
    // Puts the replaced version back into the application folder.
    McResult exchangeBack();
    // Starts the client now in the application folder; with inWatch, a failed start is bad.
    McResult clientStart(bool inWatch);
    // The new client runs: the replaced version is kept as the previous one.
    void succeeded();
    // Ends a failed update as inOutcome; with failure handling on, reports it and starts the
    // client that is in place.
    McResult failed(McResult inResult, Outcome inOutcome);
    // What the hooks after the install found; run() returns it with the install's result.
    void hookResultAdd(const McResult& inResult)
    {
        mHookResult << inResult;
        mHookEnded = true;
    }
    // Removes what earlier updates left: staging folders beside the application folder and the
    // "*.log" and "*.xml" files of the work folder (not this run's). Returns what it removed.
    QStringList freeResources();

    QString stagingDir() const { return mApplicationDir + QStringLiteral(".staging"); }
    QString replacedDir() const { return mApplicationDir + QStringLiteral(".staging.replaced"); }
    QString previousDir() const { return mApplicationDir + QStringLiteral(".previous"); }
    static QString exchangeJournal(const QString& inApplicationDir)
    {
        return inApplicationDir + QStringLiteral(".exchange");
    }
    static QString unfinishedDescription(const QString& inApplicationDir)
    {
        return inApplicationDir + QStringLiteral(".unfinished.xml");
    }
    // Finishes or undoes a folder exchange that a killed deployment left half done. Run at every
    // start of the client's engine before the application folder is used.
    static McResult recoverInterrupted(const QString& inApplicationDir);

private:
    McResult checkInputs();
    // The staging folder's own product in the pool, the folder itself cleared of what an earlier
    // update left there.
    McResult stagingProductCreate();
    // Copies files the new version shares with the installed one into the cache.
    void cacheSeed();
    McResult folderRemove(const QString& inPath);
    // Puts the copy of the description beside the application folder, whole or not at all.
    McResult unfinishedWrite();
    // After the exchange: the verified digests of the staged files, under their new paths.
    void stagedRemember();
    // The record of what this update proved of the application folder's files, read by the
    // next update's seed.
    QString digestRecordPath() const;
    void digestRecordWrite();
    // Removes the cache items the seed linked to the installed files.
    void linkedItemsRemove();
    void note(const QString& inText, McLogLevel inLevel = McLogLevelInfo);
    void recordWrite();

    QString mApplicationDir;
    QString mProductKey;
    QString mApplicationKey = QStringLiteral("DIR_APPLICATION");
    QString mClientExecutable;
    QStringList mClientArguments;
    QStringList mClientEnvironment;
    qint64 mParentPid = 0;
    int mParentTimeoutMs = 60000;
    int mStartWatchMs = 10000;
    InUseQuestion mInUseQuestion;
    QString mWorkDir;
    QString mDescription;
    bool mFailureHandling = true;
    Outcome mOutcome = Outcome::NotRun;
    QStringList mListOfNote;
    QString mRecordPath;
    // Records written since this run began are its own, not earlier updates'.
    QDateTime mStarted;
    bool mStagingBegun = false;
    bool mStaged = false;
    bool mExchanged = false;
    bool mHookEnded = false;
    bool mUnfinishedWritten = false;
    McResult mHookResult;
    static ClientDeployment* sActive;
    // The files the verify proved in the staging folder, with the stamps they had then.
    struct StagedFile
    {
        QString relative;  // below the folder, with its leading '/'
        McLib::MD5 md5;
        QxBase::FileStamp stamp;
    };
    std::vector<StagedFile> mListOfStaged;
    // Cache items that are links to files of the installed version, made by this run's seed.
    QStringList mListOfLinkedItem;
};
}
