#pragma once
#include "ClientDeployment.h"
#include "Configuration.h"
#include "KsGlobal.h"
#include "Plugin.h"

#include <QList>
#include <QObject>
#include <QString>

namespace KsDeploy
{
// The client's launcher runs the engine with this plugin: it takes the launch values, loads the
// published product description, decides with the user whether to update and starts the client.
class PluginKestraClient : public QObject, public Plugin
{
    Q_OBJECT

public:
    static PluginKestraClient& instance();

    McResult onActivate() override;
    // The update's steps around the install of the new version, when this engine deploys it; an
    // install of any other product passes them by. Before anything is fetched: no program may
    // hold the application folder. After the files are written: they are verified and take the
    // application folder's place. After the install: the new client starts under a watch, and a
    // failure brings the old version back, starts its client and tells the user.
    McResult onInstallPre(const McHandle<ResourceProduct>& inProduct) override;
    McResult onInstall(const McHandle<ResourceProduct>& inProduct) override;
    void onInstallPost(const McHandle<ResourceProduct>& inProduct, bool inFailed) override;

    // The version question of the reply configuration. True only when the user chose Yes in a
    // box that waits for the answer; the optional offer returns false at once and queues deploy().
    bool askUserIfHeWantsToUpdate();

    // The server's answers, read from "update.ini" beside the product description.
    Configuration& replyConfiguration() { return mReplyConfiguration; }
    // Fills outReply from the text of an "update.ini": "Key=Value" lines, "#" comments, UTF-8.
    // Refuses the whole text (outReply untouched) for a line without "=", an unknown or repeated
    // key, or a flag that is not a decimal number; inOrigin names the file in the message.
    static McResult replyParse(const QByteArray& inText, const QString& inOrigin, Configuration& outReply);

    // The client's arguments: the launcher's own (without its program and its "--start" pair),
    // then "--start" and the credentials.
    static QList<QString> clientArguments(const QList<QString>& inCollected, const QString& inUser,
                                          const QString& inPassword, const QString& inServer);

    // The main text and details of the version question, as the box shows them.
    QString updateQuestionText(bool inOptional, bool inImpossible) const;

    // Removes the leftovers of earlier updates (staging folders beside the application folder,
    // older "*.log" and "*.xml" records in the cache's "DEPLOY_CACHE" folder) and names each.
    QStringList freeResources() const;

public slots:
    // Updates the client; reports a failed update through the progress sink.
    McResult deploy();

private:
    PluginKestraClient();
    ~PluginKestraClient() override;
    // The one instance belongs to the library: the registry's handles never delete it.
    void notifyDelete() override {}

    McResult activate();
    // With a public key in the installation, the description must carry the publisher's signature
    // ("product.xml.sig" beside it on the server).
    McResult descriptionSignatureCheck(const QString& inApplicationDir, const QString& inDescription);
    // The engine started by deploy(): replaces the installed client by the loaded product.
    McResult deployHere(const QString& inApplicationDir, const QString& inProductKey, const QString& inExecutable,
                        const QStringList& inEnvironment, const QString& inDescription);
    // The installed product's records for the files now in the folder: the product's install
    // (start-menu and uninstall entries) and the resolved description beside the folder.
    McResult installedRecordsWrite(const QString& inApplicationDir, const QString& inProductKey);
    // An update killed after its folder exchange: when the folder holds the version it brought,
    // its records are written now (nothing is fetched, the files are there); otherwise the update
    // was undone and only its note goes.
    McResult unfinishedUpdateComplete(const QString& inApplicationDir);
    void translationsLoad() const;
    // Reads "update.ini" beside the product description; outFound false when the server has none.
    McResult replyLoad(bool& outFound);
    // Whether the reply asks a question of the running client at all.
    bool replyAsksQuestion() const;
    QString ksweblaunchExePath();
    // The launcher's status descriptor (KSC_STATUS_FD): taken at activation and kept from every
    // program this engine starts but the copy that deploys. Returns -1 without one.
    static int statusDescriptorTake(const Configuration& inConfig);
    // Writes one line to the status descriptor and closes it: the launcher's read ends there.
    void statusWrite(const char* inLine);

    Configuration mReplyConfiguration;
    McDArray<QString> mListOfText;
    QString mDirBin;
    QString mDirApp;
    QString mUser;
    QString mPass;
    QString mServer;
    QString mUrl;
    QString mLanguage;
    QString mVersion;
    int32_t mCounter = 0;
    QList<QString> mListOfArgument;
    QList<QString> mListOfEnvironment;
    // Set by a Yes given on the console to the optional offer: the update follows the client's start.
    bool mDeployAfterStart = false;
    // This engine was started by deploy() of another one (KSC_DEPLOY_PARENT) to do the update.
    bool mDeploying = false;
    // The deployment itself ran: it has reported its own failure and started a client.
    bool mDeployRan = false;
    int mStatusFd = -1;
    // How the deployment this engine ran ended.
    ClientDeployment::Outcome mDeployOutcome = ClientDeployment::Outcome::NotRun;
    // How long a new client is watched for a failed start (KSC_DEPLOY_WATCH_MS), as given.
    QString mStartWatchMs;
    QList<QString> mClientEnvironment;
};
}
