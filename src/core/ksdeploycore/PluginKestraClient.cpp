// The client plugin: activation (launch values, translations, folder checks, the published
// product description, the version question) and the start of the client.
#include "PluginKestraClient.h"

#include "Cache.h"
#include "ClientDeployment.h"
#include "Engine.h"
#include "Generator.h"
#include "Progress.h"
#include "Resource.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"
#include "WidgetProgress.h"
#include "XmlSerializer.h"

#include "QxDownload.h"
#include "QxFile.h"
#include "QxMessageBox.h"
#include "QxSignatureCheck.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QPushButton>
#include <QRegularExpression>
#include <QStringDecoder>
#include <QTranslator>
#include <QUrl>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
// An update.ini is a handful of lines; anything much larger is not one.
const qint64 sReplyMaxBytes = 64 * 1024;

const char* const sReplyKeys[] = {"UpdateIsOptional",
                                  "UpdateIsImpossible",
                                  "VersionOfClientRecommended",
                                  "VersionsOfClientSupportedByServer",
                                  "VersionOfProtocolCurrent",
                                  "UpdateMessage",
                                  "Product",
                                  "DowngradeIsWanted"};

bool replyKeyIsKnown(const QString& inKey)
{
    for (const char* key : sReplyKeys)
        if (inKey == QLatin1String(key))
            return true;
    return false;
}

// A reply flag: a decimal number, non-zero meaning true; anything else counts as 0.
bool replyFlag(const Configuration& inReply, const char* inKey)
{
    bool ok = false;
    const int value = inReply.value(QLatin1String(inKey)).trimmed().toInt(&ok, 10);
    return ok && value != 0;
}

// The path a file entry names, its references left in place, so a failure can show it.
QString pathUnresolved(const ResourceFileEntry& inEntry)
{
    QStringList parts{inEntry.name()};
    McHandle<ResourceFileDirectory> dir = inEntry.container();
    // A loaded description cannot link folders in a circle, but a bound costs nothing.
    for (int depth = 0; dir.isNotNull() && depth < 1000; ++depth)
    {
        parts.prepend(dir->name());
        dir = dir->container();
    }
    return parts.join(QLatin1Char('/'));
}

// Orders two versions of four decimal numbers: negative, zero or positive. A missing or
// non-numeric part counts as 0.
int versionCompare(const QString& inLeft, const QString& inRight)
{
    const QStringList left = inLeft.split(QLatin1Char('.'));
    const QStringList right = inRight.split(QLatin1Char('.'));
    for (int i = 0; i < std::max(left.size(), right.size()); ++i)
    {
        const qlonglong a = i < left.size() ? left[i].toLongLong() : 0;
        const qlonglong b = i < right.size() ? right[i].toLongLong() : 0;
        if (a != b)
            return a < b ? -1 : 1;
    }
    return 0;
}

// Where the published files are: a URL as given, a plain folder as a file URL.
QString serverBase(const QString& inUrl)
{
    QString base = inUrl.trimmed();
    while (base.size() > 1 && base.endsWith(QLatin1Char('/')))
        base.chop(1);
    if (!base.contains(QLatin1String("://")))
        base = QUrl::fromLocalFile(QFileInfo(base).absoluteFilePath()).toString();
    return base;
}

void consoleWrite(const QString& inText)
{
    std::fputs(inText.toLatin1().constData(), stdout);
    std::fflush(stdout);
}

// The console form of a message box: the title and text, then the answer. With a terminal on
// standard input the user types it; without one the default button answers, so that machines
// nobody sits at update by themselves.
QMessageBox::StandardButton consoleAsk(const QString& inTitle, const QString& inText,
                                       QMessageBox::StandardButtons inButtons, QMessageBox::StandardButton inDefault)
{
    consoleWrite(inTitle + QLatin1Char('\n') + inText + QLatin1Char('\n'));
    if (!(inButtons & QMessageBox::Yes))
        return inDefault;
    const QString yes = PluginKestraClient::tr("Yes");
    const QString no = PluginKestraClient::tr("No");
    const bool defaultYes = inDefault == QMessageBox::Yes;
    if (!isatty(STDIN_FILENO))
    {
        consoleWrite(PluginKestraClient::tr("Answer: %1 (no terminal to ask, the default answer is taken)")
                         .arg(defaultYes ? yes : no) +
                     QLatin1Char('\n'));
        return inDefault;
    }
    for (;;)
    {
        consoleWrite(defaultYes ? PluginKestraClient::tr("[Y/n] ") : PluginKestraClient::tr("[y/N] "));
        char line[256];
        if (!std::fgets(line, sizeof line, stdin))
        {
            consoleWrite(QStringLiteral("\n"));
            return inDefault;
        }
        const QString answer = QString::fromLocal8Bit(line).trimmed().toLower();
        if (answer.isEmpty())
            return inDefault;
        if (answer == QLatin1String("y") || answer == QLatin1String("yes") || answer == yes.toLower())
            return QMessageBox::Yes;
        if (answer == QLatin1String("n") || answer == QLatin1String("no") || answer == no.toLower())
            return QMessageBox::No;
    }
}
}

PluginKestraClient& PluginKestraClient::instance()
{
    static PluginKestraClient sInstance;
    return sInstance;
}

PluginKestraClient::PluginKestraClient() : Plugin(QStringLiteral("KestraClient")) {}

PluginKestraClient::~PluginKestraClient() = default;

int PluginKestraClient::statusDescriptorTake(const Configuration& inConfig)
{
    bool ok = false;
    const int fd = inConfig.value(QStringLiteral("KSC_STATUS_FD")).toInt(&ok, 10);
    // Our own standard descriptors are never the launcher's status pipe.
    if (!ok || fd <= 2)
        return -1;
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0)
        return -1;
    // Before any client starts: a client holding the pipe would keep the launcher waiting for
    // the client's end rather than ours.
    ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    return fd;
}

namespace
{
void statusLineWrite(int inFd, const char* inLine)
{
    // A launcher that is gone is no reason to end: the write fails instead of raising SIGPIPE.
    struct sigaction ignore = {};
    struct sigaction before = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &ignore, &before);
    std::string line(inLine);
    line += '\n';
    const char* at = line.data();
    size_t left = line.size();
    while (left > 0)
    {
        const ssize_t n = ::write(inFd, at, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        at += n;
        left -= static_cast<size_t>(n);
    }
    ::sigaction(SIGPIPE, &before, nullptr);
}
}

void PluginKestraClient::statusWrite(const char* inLine)
{
    if (mStatusFd < 0)
        return;
    statusLineWrite(mStatusFd, inLine);
    ::close(mStatusFd);
    mStatusFd = -1;
}

McResult PluginKestraClient::onActivate()
{
    mDeploying = Engine::instance().configuration().valueIsDefined(QStringLiteral("KSC_DEPLOY_PARENT"));
    mStatusFd = statusDescriptorTake(Engine::instance().configuration());
    mDeployOutcome = ClientDeployment::Outcome::NotRun;
    McResult retVal = activate();
    // The engine that deploys was started for an update the user agreed to: whatever stopped it
    // before the update ran, the user is told and gets the installed client.
    if (retVal.isBad() && mDeploying && !mDeployRan)
    {
        Engine& e = Engine::instance();
        e.progress().reportUpdateFailure();
        const QString old = mDirBin + QStringLiteral("/ksclient.exe");
        if (!mDirBin.isEmpty() && QFileInfo(old).isFile())
        {
            e.trace(McLogLevelInfo, tr("Starting %1").arg(old));
            retVal << e.sideExecutionInvoke(old, clientArguments(mListOfArgument, mUser, mPass, mServer),
                                            mClientEnvironment, false, false);
        }
    }
    // The launcher's exit status follows the update it handed over.
    if (mDeploying)
        statusWrite(mDeployOutcome == ClientDeployment::Outcome::Updated      ? "updated"
                    : mDeployOutcome == ClientDeployment::Outcome::RolledBack ? "rolled back"
                                                                              : "unchanged");
    return retVal;
}

namespace
{
// The first product of a loaded description and the version its uninstall entry names.
void productAndVersionOf(const McDArray<McHandle<Resource>>& inLoaded, McHandle<ResourceProduct>& outProduct,
                         QString& outVersion)
{
    for (int64_t i = 0; i < inLoaded.size(); ++i)
    {
        if (auto* p = dynamic_cast<ResourceProduct*>(inLoaded[i].ptr()); p && outProduct.isNull())
            outProduct = p;
        auto* value = dynamic_cast<ResourceRegistryValue*>(inLoaded[i].ptr());
        if (value && value->name() == QLatin1String("DisplayVersion"))
            outVersion = value->value();
    }
}

// The deployment whose staging install this is, or none: the hooks leave every other install
// alone.
ClientDeployment* deploymentOf(const McHandle<ResourceProduct>& inProduct)
{
    ClientDeployment* deployment = ClientDeployment::active();
    return deployment && deployment->stages(inProduct.ptr()) ? deployment : nullptr;
}
}

McResult PluginKestraClient::onInstallPre(const McHandle<ResourceProduct>& inProduct)
{
    McResult retVal;
    ClientDeployment* deployment = deploymentOf(inProduct);
    if (!deployment)
        return retVal;
    // Refused here, the install stops before anything is fetched or written.
    retVal << deployment->waitUntilNotInUse();
    if (retVal.isOk())
        deployment->stagingBegin();
    return retVal;
}

McResult PluginKestraClient::onInstall(const McHandle<ResourceProduct>& inProduct)
{
    McResult retVal;
    ClientDeployment* deployment = deploymentOf(inProduct);
    if (!deployment)
        return retVal;
    retVal << deployment->stagingVerify();
    // Programs may have started while the new version was staged.
    if (retVal.isOk())
        retVal << deployment->waitUntilNotInUse();
    if (retVal.isOk())
        retVal << deployment->exchange();
    return retVal;
}

void PluginKestraClient::onInstallPost(const McHandle<ResourceProduct>& inProduct, bool inFailed)
{
    ClientDeployment* deployment = deploymentOf(inProduct);
    if (!deployment)
        return;
    McResult result;
    if (!inFailed)
    {
        const McResult started = deployment->clientStart(true);
        if (started.isOk())
            deployment->succeeded();
        else
        {
            const McResult back = deployment->exchangeBack();
            result << started << back;
            result = deployment->failed(result, back.isOk() ? ClientDeployment::Outcome::RolledBack
                                                            : ClientDeployment::Outcome::Updated);
        }
    }
    else if (deployment->exchanged())
    {
        // The install was undone after the exchange (an interrupt, a failed flush): the replaced
        // version goes back into place.
        const McResult back = deployment->exchangeBack();
        result << back;
        result = deployment->failed(result, back.isOk() ? ClientDeployment::Outcome::Unchanged
                                                        : ClientDeployment::Outcome::Updated);
    }
    else
    {
        result << deployment->stagingAbandon();
        result = deployment->failed(result, ClientDeployment::Outcome::Unchanged);
    }
    freeResources();
    deployment->hookResultAdd(result);
}

QStringList PluginKestraClient::freeResources() const
{
    if (ClientDeployment* deployment = ClientDeployment::active())
        return deployment->freeResources();
    ClientDeployment deployment;
    if (!mDirApp.isEmpty())
        deployment.applicationDirSet(QDir(mDirApp).absolutePath());
    QString cache;
    if (Engine::instance().pathToCache(cache).isOk())
        deployment.workDirSet(cache);
    return deployment.freeResources();
}

McResult PluginKestraClient::activate()
{
    McResult retVal;
    Engine& e = Engine::instance();
    mDeployRan = false;
    const QString programDir = QCoreApplication::applicationDirPath();

    // Run from a sandbox (a copy made for an update): that copy goes at the next reboot.
    if (e.sandboxIsValidDir(programDir))
    {
        e.sandboxRemove(QDir(programDir).dirName(), true);
        // The launch values (the password among them) were read with the command line.
        QFile::remove(programDir + QStringLiteral("/deploy.commands"));
    }

    Configuration& config = e.configuration();
    mDirBin = config.value(QStringLiteral("KSC_DIR_BIN"));
    mDirApp = config.value(QStringLiteral("KSC_DIR_APP"));
    mUser = config.value(QStringLiteral("KSC_USER"));
    mPass = config.value(QStringLiteral("KSC_PASS"));
    mServer = config.value(QStringLiteral("KSC_SERVER"));
    mUrl = config.value(QStringLiteral("KSC_URL"));
    mLanguage = config.value(QStringLiteral("KSC_LANGUAGE"));
    QStringList version;
    for (int i = 0; i < 4; ++i)
        version.append(config.value(QStringLiteral("KSC_VERSION_%1").arg(i)));
    mVersion = version.join(QLatin1Char('.'));
    mStartWatchMs = config.value(QStringLiteral("KSC_DEPLOY_WATCH_MS"));
    mDeployAfterStart = false;

    if (!mLanguage.isEmpty())
        translationsLoad();

    // Launched from inside the installation (bin/<platform> of the application folder).
    QString applicationPath = mDirApp.isEmpty() ? QString() : QDir(mDirApp).absolutePath();
    if (!mDirApp.isEmpty() && applicationPath == QDir(programDir).absolutePath())
    {
        QDir appDir(applicationPath);
        for (int i = 0; i < 2; ++i)
            if (MC_CHECK(retVal, appDir.cdUp(), "Internal Error"))
                return retVal;
        applicationPath = appDir.absolutePath();
    }

    mListOfArgument.clear();
    mListOfEnvironment.clear();
    for (int i = 0; i < 1000 && config.valueIsDefined(QStringLiteral("KSC_ARG_%1").arg(i)); ++i)
        mListOfArgument.append(config.value(QStringLiteral("KSC_ARG_%1").arg(i)));
    for (int i = 0; i < 1000 && config.valueIsDefined(QStringLiteral("KSC_ENV_%1").arg(i)); ++i)
        mListOfEnvironment.append(config.value(QStringLiteral("KSC_ENV_%1").arg(i)));

    // The client sees our environment with its own entries added (a later entry of the same
    // name replaces an earlier one).
    mClientEnvironment.clear();
    for (auto it = e.environment().constBegin(); it != e.environment().constEnd(); ++it)
        mClientEnvironment.append(it.key() + QLatin1Char('=') + it.value());
    for (const QString& entry : mListOfEnvironment)
    {
        const QString name = entry.section(QLatin1Char('='), 0, 0) + QLatin1Char('=');
        mClientEnvironment.erase(std::remove_if(mClientEnvironment.begin(), mClientEnvironment.end(),
                                                [&name](const QString& inOld) { return inOld.startsWith(name); }),
                                 mClientEnvironment.end());
        mClientEnvironment.append(entry);
    }

    // An update killed half way through its folder exchange is finished or undone first.
    if (!applicationPath.isEmpty())
    {
        retVal << ClientDeployment::recoverInterrupted(applicationPath);
        if (retVal.isBad())
            return retVal;
    }

    // The installation is <target>/<vendor>/<application>; all three must be there.
    if (MC_CHECK_DETAIL(retVal, !applicationPath.isEmpty(), "the application folder does not exist",
                        std::string("KSC_DIR_APP: no folder given")))
        return retVal;
    const QDir dir_Application(applicationPath);
    if (MC_CHECK_DETAIL(retVal, dir_Application.exists(), "the application folder does not exist",
                        McLib::osDetail(QFile::encodeName(applicationPath).toStdString(), ENOENT)))
        return retVal;
    const QString vendorPath = QFileInfo(dir_Application.absolutePath()).absolutePath();
    const QDir dir_Vendor(vendorPath);
    if (MC_CHECK_DETAIL(retVal, dir_Vendor.exists(), "the vendor folder does not exist",
                        McLib::osDetail(QFile::encodeName(vendorPath).toStdString(), ENOENT)))
        return retVal;
    const QString targetPath = QFileInfo(vendorPath).absolutePath();
    const QDir dir_Target(targetPath);
    if (MC_CHECK_DETAIL(retVal, dir_Target.exists(), "the target folder does not exist",
                        McLib::osDetail(QFile::encodeName(targetPath).toStdString(), ENOENT)))
        return retVal;

    // The launch values are copied: from here on the configuration names the installation.
    config.valueClearAll();
    config.valueSet(QStringLiteral("PRODUCT_NAME"), QStringLiteral("Kestra Client"), false);
    config.valueSet(QStringLiteral("DIR_TARGET"), dir_Target.canonicalPath(), false);
    config.valueSet(QStringLiteral("DIR_VENDOR"), dir_Vendor.dirName(), false);
    config.valueSet(QStringLiteral("DIR_APPLICATION"), dir_Application.dirName(), false);
    e.resourceUnregisterAll();

    // The published description, fetched into a cache folder of its own.
    if (MC_CHECK_TEXT(retVal, !mUrl.trimmed().isEmpty(), "!url.isEmpty()", "no server address given (KSC_URL)"))
        return retVal;
    QString cacheBase;
    retVal << e.pathToCache(cacheBase);
    if (retVal.isBad())
        return retVal;
    if (!cacheBase.endsWith(QLatin1String("/DEPLOY_CACHE")))
        e.pathToCacheSet(cacheBase + QStringLiteral("/DEPLOY_CACHE"));
    QString deployCache;
    retVal << e.pathToCache(deployCache);
    if (retVal.isBad())
        return retVal;
    // An update killed after its folder exchange left the records naming the old version.
    {
        const McResult finished = unfinishedUpdateComplete(applicationPath);
        if (finished.isBad())
            e.trace(McLogLevelWarning, QStringLiteral("update: the interrupted update could not be finished: %1")
                                           .arg(QString::fromLocal8Bit(finished.text())));
    }
    const QString description = deployCache + QStringLiteral("/product.xml");
    retVal << Cache::loadFileHTTP(description, serverBase(mUrl) + QStringLiteral("/product.xml"), McLib::MD5());
    if (retVal.isBad())
        return retVal;
    retVal << descriptionSignatureCheck(applicationPath, description);
    if (retVal.isBad())
        return retVal;
    XmlSerializer serializer;
    McDArray<McHandle<Resource>> loaded;
    retVal << serializer.deserialize(description, loaded);
    if (retVal.isBad())
        return retVal;

    // The server's answers: a broken file stops everything before anything starts.
    bool replyFound = false;
    retVal << replyLoad(replyFound);
    if (retVal.isBad())
        return retVal;

    McHandle<ResourceFileEntry> exe;
    for (int64_t i = 0; i < loaded.size() && exe.isNull(); ++i)
    {
        auto* entry = dynamic_cast<ResourceFileEntry*>(loaded[i].ptr());
        if (entry && entry->name() == QLatin1String("ksclient.exe") && !entry->absence())
            exe = entry;
    }
    if (MC_CHECK_DETAIL(retVal, exe.isNotNull(), "the product description holds no 'ksclient.exe'",
                        (serverBase(mUrl) + QStringLiteral("/product.xml")).toStdString()))
        return retVal;
    QString exePath = pathUnresolved(*exe);
    const QString unresolved = exePath;
    if (MC_CHECK(retVal, e.configuration().resolve(exePath).isOk(),
                 QStringLiteral("unable to resolve executable '%1'").arg(unresolved)))
        return retVal;

    if (mDeploying)
    {
        McHandle<ResourceProduct> product;
        QString published;
        productAndVersionOf(loaded, product, published);
        if (MC_CHECK_DETAIL(retVal, product.isNotNull(), "the product description holds no product",
                            (serverBase(mUrl) + QStringLiteral("/product.xml")).toStdString()))
            return retVal;
        if (published.isEmpty())
            published = mReplyConfiguration.value(QStringLiteral("VersionOfClientRecommended"));
        const bool downgradeWanted = replyFlag(mReplyConfiguration, "DowngradeIsWanted");
        if (MC_CHECK_DETAIL(retVal, downgradeWanted || versionCompare(published, mVersion) >= 0,
                            "the published client is older than the installed one",
                            QStringLiteral("%1: version %2, installed %3 (update.ini: DowngradeIsWanted=1 allows it)")
                                .arg(serverBase(mUrl) + QStringLiteral("/product.xml"), published, mVersion)
                                .toStdString()))
            return retVal;
        mDeployRan = true;
        const QString installed = QStringList{e.configuration().value(QStringLiteral("DIR_TARGET")),
                                              e.configuration().value(QStringLiteral("DIR_VENDOR")),
                                              e.configuration().value(QStringLiteral("DIR_APPLICATION"))}
                                      .join(QLatin1Char('/'));
        retVal << deployHere(installed, product->name(), exePath, mClientEnvironment, description);
        return retVal;
    }

    if (replyFound && replyAsksQuestion() && askUserIfHeWantsToUpdate())
    {
        // The old client is not started: the update replaces it.
        retVal << deploy();
        return retVal;
    }

    e.trace(McLogLevelInfo, tr("Starting %1").arg(exePath));
    retVal << e.sideExecutionInvoke(exePath, clientArguments(mListOfArgument, mUser, mPass, mServer),
                                    mClientEnvironment, false, false);
    if (retVal.isOk() && mDeployAfterStart)
        retVal << deploy();
    return retVal;
}

QList<QString> PluginKestraClient::clientArguments(const QList<QString>& inCollected, const QString& inUser,
                                                   const QString& inPassword, const QString& inServer)
{
    QList<QString> arguments;
    // The first entry is the launcher itself; its "--start" pair is replaced by ours.
    for (int i = 1; i < inCollected.size(); ++i)
    {
        if (inCollected[i] == QLatin1String("--start"))
        {
            ++i;
            continue;
        }
        arguments.append(inCollected[i]);
    }
    arguments.append(QStringLiteral("--start"));
    arguments.append(QStringLiteral("%1:%2@%3").arg(inUser, inPassword, inServer));
    return arguments;
}

void PluginKestraClient::translationsLoad() const
{
    QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/share/translations/");
    // The Debian package keeps the catalogs under /usr/share, not beside /usr/bin/ksdeploy.
    const QString packaged =
        QCoreApplication::applicationDirPath() + QStringLiteral("/../share/ksdeploy/translations/");
    if (!QFileInfo::exists(folder) && QFileInfo::exists(packaged))
        folder = QDir::cleanPath(packaged) + QLatin1Char('/');
    const QStringList files{QStringLiteral("kestra.qm"), QStringLiteral("qt_%1.qm").arg(mLanguage),
                            QStringLiteral("kestra_%1.qm").arg(mLanguage)};
    for (const QString& file : files)
    {
        const QString path = folder + file;
        // QTranslator::load falls back to shorter names ("kestra_xx.qm" -> "kestra.qm"): a missing
        // file must be reported as missing, not silently replaced by the source-language catalog.
        auto* translator = new QTranslator(QCoreApplication::instance());
        if (!QFileInfo::exists(path) || !translator->load(path))
        {
            getTheLogInstance().tracef(McLogLevelWarning, "KsDeploy", "Failed to load Qt translation file %s",
                                       QFile::encodeName(path).constData());
            delete translator;
            continue;
        }
        if (!QCoreApplication::installTranslator(translator))
        {
            getTheLogInstance().tracef(McLogLevelWarning, "KsDeploy", "Failed to install Qt translation from file %s",
                                       QFile::encodeName(path).constData());
            delete translator;
        }
    }
}

McResult PluginKestraClient::replyParse(const QByteArray& inText, const QString& inOrigin, Configuration& outReply)
{
    McResult retVal;
    const char* const message = "the server's update.ini is not valid";
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder(inText);
    if (MC_CHECK_DETAIL(retVal, !decoder.hasError(), message,
                        QStringLiteral("%1: not UTF-8 text").arg(inOrigin).toStdString()))
        return retVal;
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    QHash<QString, QString> values;
    const QStringList lines = text.split(QLatin1Char('\n'));
    for (int i = 0; i < lines.size(); ++i)
    {
        const QString line = lines[i].trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        const QString where = QStringLiteral("%1, line %2").arg(inOrigin).arg(i + 1);
        const int equals = line.indexOf(QLatin1Char('='));
        if (MC_CHECK_DETAIL(retVal, equals > 0, message,
                            QStringLiteral("%1: not a Key=Value line: %2").arg(where, line.left(80)).toStdString()))
            return retVal;
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if (MC_CHECK_DETAIL(retVal, replyKeyIsKnown(key), message,
                            QStringLiteral("%1: unknown key '%2'").arg(where, key.left(80)).toStdString()))
            return retVal;
        if (MC_CHECK_DETAIL(retVal, !values.contains(key), message,
                            QStringLiteral("%1: '%2' is given twice").arg(where, key).toStdString()))
            return retVal;
        // A word here is a mistake of the publisher, not a quiet "mandatory".
        static const QRegularExpression sDecimal(QStringLiteral("^[+-]?[0-9]{1,9}$"));
        const bool isFlag = key == QLatin1String("UpdateIsOptional") || key == QLatin1String("UpdateIsImpossible") ||
                            key == QLatin1String("DowngradeIsWanted");
        if (MC_CHECK_DETAIL(retVal, !isFlag || sDecimal.match(value).hasMatch(), message,
                            QStringLiteral("%1: %2 must be a decimal number, not '%3'")
                                .arg(where, key, value.left(80))
                                .toStdString()))
            return retVal;
        values.insert(key, value);
    }
    outReply.valueClearAll();
    for (auto it = values.constBegin(); it != values.constEnd(); ++it)
        outReply.valueSet(it.key(), it.value(), false);
    return retVal;
}

McResult PluginKestraClient::replyLoad(bool& outFound)
{
    McResult retVal;
    outFound = false;
    mReplyConfiguration.valueClearAll();
    Engine& e = Engine::instance();
    const QString url = serverBase(mUrl) + QStringLiteral("/update.ini");
    QByteArray bytes;
    const QUrl parsed(url);
    if (parsed.isLocalFile())
    {
        const QString path = parsed.toLocalFile();
        if (!QFileInfo::exists(path))
            return retVal;
        QFile file(path);
        if (MC_CHECK_DETAIL(retVal, file.open(QIODevice::ReadOnly), "unable to read the server's update.ini",
                            McLib::osDetail(QFile::encodeName(path).toStdString(), errno)))
            return retVal;
        bytes = file.read(sReplyMaxBytes + 1);
    }
    else
    {
        QString folder;
        retVal << e.pathToCache(folder);
        if (retVal.isBad())
            return retVal;
        QxDownload::Request request;
        request.url = url;
        request.destination = folder + QStringLiteral("/update.ini");
        request.maxBytes = sReplyMaxBytes;
        e.trace(McLogLevelInfo, QStringLiteral("download: %1 -> %2").arg(request.url, request.destination));
        QxDownload::createInstance()->download(request);
        // No update.ini on the server: no update check.
        if (request.result == QxDownload::ResultHttpError && request.error == QLatin1String("HTTP 404"))
            return retVal;
        if (MC_CHECK_DETAIL(retVal, request.result == QxDownload::ResultOk, "unable to load the server's update.ini",
                            QStringLiteral("%1: %2").arg(url, request.error).toStdString()))
            return retVal;
        QFile file(request.destination);
        if (MC_CHECK_DETAIL(retVal, file.open(QIODevice::ReadOnly), "unable to read the server's update.ini",
                            McLib::osDetail(QFile::encodeName(request.destination).toStdString(), errno)))
            return retVal;
        bytes = file.read(sReplyMaxBytes + 1);
    }
    if (MC_CHECK_DETAIL(retVal, bytes.size() <= sReplyMaxBytes, "the server's update.ini is not valid",
                        QStringLiteral("%1: larger than %2 bytes").arg(url).arg(sReplyMaxBytes).toStdString()))
        return retVal;
    retVal << replyParse(bytes, url, mReplyConfiguration);
    if (retVal.isBad())
        return retVal;
    mReplyConfiguration.valueSet(QStringLiteral("VersionOfClientCurrent"), mVersion, false);
    outFound = true;
    return retVal;
}

bool PluginKestraClient::replyAsksQuestion() const
{
    const QString recommended = mReplyConfiguration.value(QStringLiteral("VersionOfClientRecommended"));
    if (recommended.isEmpty())
        return false;
    // A mandatory "update" to the running version is the server's mistake, and said so.
    return recommended != mReplyConfiguration.value(QStringLiteral("VersionOfClientCurrent")) ||
           !replyFlag(mReplyConfiguration, "UpdateIsOptional");
}

QString PluginKestraClient::updateQuestionText(bool inOptional, bool inImpossible) const
{
    const Configuration& reply = mReplyConfiguration;
    const QString recommended = reply.value(QStringLiteral("VersionOfClientRecommended"));
    QStringList blocks;
    blocks.append(inOptional ? tr("A new client version is available.")
                             : tr("Your client version is not supported by this server."));
    QString message = reply.value(QStringLiteral("UpdateMessage"));
    if (!message.isEmpty())
        blocks.append(message.replace(QLatin1String("\\n"), QLatin1String("\n")));
    blocks.append(tr("Current client version: %1").arg(reply.value(QStringLiteral("VersionOfClientCurrent"))) +
                  QLatin1Char('\n') + tr("Recommended client version: %1").arg(recommended));
    const QString supported = reply.value(QStringLiteral("VersionsOfClientSupportedByServer"));
    if (!supported.isEmpty())
        blocks.append(
            tr("Protocol version of client: %1").arg(reply.value(QStringLiteral("VersionOfProtocolCurrent"))) +
            QLatin1Char('\n') + tr("Protocol version of server: %1").arg(supported));
    if (!inImpossible)
        blocks.append(tr("Do you want to update your client to version %1?").arg(recommended));
    return blocks.join(QStringLiteral("\n\n"));
}

bool PluginKestraClient::askUserIfHeWantsToUpdate()
{
    const Configuration& reply = mReplyConfiguration;
    const bool optional = replyFlag(reply, "UpdateIsOptional");
    bool impossible = replyFlag(reply, "UpdateIsImpossible");
    const bool configError = !optional && reply.value(QStringLiteral("VersionOfClientRecommended")) ==
                                              reply.value(QStringLiteral("VersionOfClientCurrent"));
    QString title;
    QString text;
    QMessageBox::Icon icon = QMessageBox::Warning;
    QMessageBox::StandardButtons buttons = QMessageBox::Ok;
    QMessageBox::StandardButton btnDefault = QMessageBox::Ok;
    if (configError)
    {
        impossible = true;
        title = tr("Configuration error.");
        text = tr("The recommended client version is not supported by this server.\n"
                  "Please contact your system administrator.");
    }
    else
    {
        const QString product = reply.value(QStringLiteral("Product"));
        title = optional ? tr("%1 Auto-Update").arg(product) : tr("%1 Client Version Mismatch").arg(product);
        text = updateQuestionText(optional, impossible);
        icon = impossible ? QMessageBox::Warning : QMessageBox::Question;
        buttons = impossible ? QMessageBox::StandardButtons(QMessageBox::Ok) : QMessageBox::Yes | QMessageBox::No;
        btnDefault = impossible ? QMessageBox::Ok : QMessageBox::Yes;
    }
    MC_DBC_TEXT(DbCCheck, btnDefault != 0, "btnDefault!=0");

    if (!WidgetProgress::available())
    {
        const QMessageBox::StandardButton answer = consoleAsk(title, text, buttons, btnDefault);
        if (optional && !impossible)
        {
            // No box stays up on a console: the update follows the client's start.
            mDeployAfterStart = answer == QMessageBox::Yes;
            return false;
        }
        return answer == QMessageBox::Yes;
    }

    auto* box = new QMessageBox(icon, title, text, buttons);
    box->setObjectName(QStringLiteral("PluginKestraClientQuestion"));
    box->setDefaultButton(btnDefault);
    box->setAccessibleName(title);
    box->setAccessibleDescription(text);
    if (optional && !impossible)
    {
        // The client starts meanwhile; the host keeps the box up until it is answered.
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setWindowModality(Qt::WindowModal);
        connect(box, &QMessageBox::buttonClicked, this, [this, box](QAbstractButton* inButton) {
            if (box->standardButton(inButton) == QMessageBox::Yes)
                QMetaObject::invokeMethod(
                    this, [this]() { deploy(); }, Qt::QueuedConnection);
        });
        box->show();
        box->raise();
        return false;
    }
    box->exec();
    const bool yes = box->standardButton(box->clickedButton()) == QMessageBox::Yes;
    delete box;
    return yes;
}

McResult PluginKestraClient::deploy()
{
    McResult retVal;
    Engine& e = Engine::instance();
    // The update replaces the folder this engine may run from and must outlive it: a copy of the
    // engine in a sandbox does it, and this engine ends.
    QDir box;
    retVal << e.sandboxGenerate(box);
    const QString self = QCoreApplication::applicationFilePath();
    const QString copy = box.filePath(QStringLiteral("ksdeploy"));
    if (retVal.isOk())
        MC_CHECK_DETAIL(retVal, QFile::copy(self, copy), QStringLiteral("cannot copy the engine into '%1'").arg(box.path()),
                        McLib::osDetail(QFile::encodeName(self).toStdString(), errno));
    if (retVal.isOk())
    {
        QString translations = QCoreApplication::applicationDirPath() + QStringLiteral("/share/translations");
        const QString packaged =
            QCoreApplication::applicationDirPath() + QStringLiteral("/../share/ksdeploy/translations");
        if (!QFileInfo::exists(translations) && QFileInfo::exists(packaged))
            translations = QDir::cleanPath(packaged);
        const QString into = box.filePath(QStringLiteral("share/translations"));
        QDir().mkpath(into);
        for (const QFileInfo& fi : QDir(translations).entryInfoList(QDir::Files))
            if (MC_CHECK_DETAIL(retVal, QFile::copy(fi.filePath(), into + QLatin1Char('/') + fi.fileName()),
                                QStringLiteral("cannot copy the engine into '%1'").arg(box.path()),
                                McLib::osDetail(QFile::encodeName(fi.filePath()).toStdString(), errno)))
                break;
    }
    // The launch values go in a file of the sandbox (private to the user), not on a command
    // line where every user could read the password.
    const QString commandsPath = box.filePath(QStringLiteral("deploy.commands"));
    if (retVal.isOk())
    {
        QStringList lines;
        if (e.quiet())
            lines << QStringLiteral("--flags") << QStringLiteral("quiet=true");
        lines << QStringLiteral("--config") << QStringLiteral("KSC_DIR_BIN=") + mDirBin
              << QStringLiteral("KSC_DIR_APP=") + mDirApp;
        const QStringList version = mVersion.split(QLatin1Char('.'));
        for (int i = 0; i < 4; ++i)
            lines << QStringLiteral("KSC_VERSION_%1=%2").arg(i).arg(i < version.size() ? version[i] : QString());
        lines << QStringLiteral("KSC_USER=") + mUser << QStringLiteral("KSC_PASS=") + mPass
              << QStringLiteral("KSC_SERVER=") + mServer << QStringLiteral("KSC_URL=") + mUrl
              << QStringLiteral("KSC_LANGUAGE=") + mLanguage;
        for (int i = 0; i < mListOfArgument.size(); ++i)
            lines << QStringLiteral("KSC_ARG_%1=%2").arg(i).arg(mListOfArgument[i]);
        for (int i = 0; i < mListOfEnvironment.size(); ++i)
            lines << QStringLiteral("KSC_ENV_%1=%2").arg(i).arg(mListOfEnvironment[i]);
        if (!mStartWatchMs.isEmpty())
            lines << QStringLiteral("KSC_DEPLOY_WATCH_MS=") + mStartWatchMs;
        lines << QStringLiteral("KSC_DEPLOY_PARENT=%1").arg(QCoreApplication::applicationPid());
        if (mStatusFd >= 0)
            lines << QStringLiteral("KSC_STATUS_FD=%1").arg(mStatusFd);
        lines << QStringLiteral("--plugin") << QStringLiteral("name=KestraClient");
        QFile file(commandsPath);
        const bool written =
            file.open(QIODevice::WriteOnly) && file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) &&
            QxBase::File::writeAll(file, (lines.join(QLatin1Char('\n')) + QLatin1Char('\n')).toUtf8()).isOk();
        MC_CHECK_DETAIL(retVal, written, QStringLiteral("cannot write the update's launch values"),
                        McLib::osDetail(QFile::encodeName(commandsPath).toStdString(), errno));
    }
    if (retVal.isOk())
    {
        QStringList environment;
        for (auto it = e.environment().constBegin(); it != e.environment().constEnd(); ++it)
            environment.append(it.key() + QLatin1Char('=') + it.value());
        e.trace(McLogLevelInfo, tr("Starting the update from %1").arg(box.path()));
        // The launcher learns that the outcome comes from the copy, which alone inherits the pipe;
        // a copy that ends without its line has failed.
        if (mStatusFd >= 0)
        {
            statusLineWrite(mStatusFd, "deploying");
            ::fcntl(mStatusFd, F_SETFD, 0);
        }
        retVal << e.sideExecutionInvoke(copy, {QStringLiteral("--commands"), QStringLiteral("file=") + commandsPath},
                                        environment, true, true);
        if (mStatusFd >= 0)
        {
            ::close(mStatusFd);
            mStatusFd = -1;
        }
    }
    if (retVal.isBad())
    {
        if (!box.path().isEmpty() && box.path() != QStringLiteral("."))
            QxBase::File::removeDir(box.path(), true, {}, {});
        e.progress().reportUpdateFailure();
    }
    return retVal;
}

McResult PluginKestraClient::descriptionSignatureCheck(const QString& inApplicationDir, const QString& inDescription)
{
    McResult retVal;
    const QString key = inApplicationDir + QStringLiteral("/share/ksdeploy/update-key.pem");
    // Without a key the installation does not ask for signed descriptions.
    if (!QFileInfo::exists(key))
        return retVal;
    const QString signature = inDescription + QStringLiteral(".sig");
    QFile::remove(signature);
    const QString url = serverBase(mUrl) + QStringLiteral("/product.xml.sig");
    const McResult fetched = Cache::loadFileHTTP(signature, url, McLib::MD5());
    if (MC_CHECK_DETAIL(retVal, fetched.isOk(), "the product description is not signed",
                        QStringLiteral("%1: %2").arg(url, QString::fromLatin1(fetched.text())).toStdString()))
        return retVal;
    const McResult checked = QxBase::SignatureCheck::verifyFile(inDescription, signature, key);
    MC_CHECK_DETAIL(retVal, checked.isOk(), "the product description's signature is not valid",
                    QStringLiteral("%1: %2").arg(url, QString::fromLatin1(checked.text())).toStdString());
    return retVal;
}

McResult PluginKestraClient::deployHere(const QString& inApplicationDir, const QString& inProductKey,
                                        const QString& inExecutable, const QStringList& inEnvironment,
                                        const QString& inDescription)
{
    McResult retVal;
    Engine& e = Engine::instance();
    ClientDeployment deployment;
    deployment.applicationDirSet(inApplicationDir);
    deployment.productKeySet(inProductKey);
    deployment.clientSet(inExecutable, clientArguments(mListOfArgument, mUser, mPass, mServer), inEnvironment);
    bool ok = false;
    const qint64 parent = e.configuration().value(QStringLiteral("KSC_DEPLOY_PARENT")).toLongLong(&ok);
    deployment.parentPidSet(ok ? parent : 0);
    const int watch = mStartWatchMs.toInt(&ok);
    deployment.startWatchMsSet(ok && watch > 0 ? watch : 10000);
    QString cache;
    if (e.pathToCache(cache).isOk())
        deployment.workDirSet(cache);
    if (WidgetProgress::available())
        deployment.inUseQuestionSet([](const QStringList& inPrograms) {
            QMessageBox box(QMessageBox::Warning, tr("Programs in use"),
                            tr("These programs use the client's folder. Close them, then choose Retry.") +
                                QStringLiteral("\n\n") + inPrograms.join(QLatin1Char('\n')),
                            QMessageBox::Retry | QMessageBox::Abort);
            box.setObjectName(QStringLiteral("PluginKestraClientInUse"));
            box.setDefaultButton(QMessageBox::Retry);
            QxMessageBox::copyableSet(box);
            return box.exec() == QMessageBox::Retry;
        });
    e.cache().httpUrlAdd(serverBase(mUrl) + QStringLiteral("/items"));
    e.cache().httpUrlAdd(serverBase(mUrl));
    deployment.descriptionSet(inDescription);
    retVal << deployment.run();
    mDeployOutcome = deployment.outcome();
    if (retVal.isBad())
        return retVal;
    retVal << installedRecordsWrite(inApplicationDir, inProductKey);
    return retVal;
}

McResult PluginKestraClient::installedRecordsWrite(const QString& inApplicationDir, const QString& inProductKey)
{
    McResult retVal;
    Engine& e = Engine::instance();
    // The files are in place; the rest of the product (start-menu entry, uninstall entry with
    // the new version) follows, and the resolved description the uninstall entry runs from. Its
    // places (the start menu) are the system's folders, which activation cleared away.
    e.configuration().autodetect();
    retVal << e.productInstall(inProductKey, false);
    if (retVal.isOk())
        retVal << e.productResolve(inProductKey, {QStringLiteral("DIR_TARGET"), QStringLiteral("DIR_VENDOR"),
                                                  QStringLiteral("DIR_APPLICATION")});
    if (retVal.isOk())
    {
        McDArray<McHandle<Resource>> resources;
        e.resources(resources);
        XmlSerializer serializer;
        retVal << serializer.serialize(inApplicationDir + QStringLiteral(".xml"), resources);
    }
    // The records name the version in the folder: the update is finished.
    if (retVal.isOk())
        QFile::remove(ClientDeployment::unfinishedDescription(inApplicationDir));
    return retVal;
}

McResult PluginKestraClient::unfinishedUpdateComplete(const QString& inApplicationDir)
{
    McResult retVal;
    Engine& e = Engine::instance();
    const QString unfinished = ClientDeployment::unfinishedDescription(inApplicationDir);
    if (!QFileInfo::exists(unfinished))
        return retVal;
    XmlSerializer serializer;
    McDArray<McHandle<Resource>> loaded;
    retVal << serializer.deserialize(unfinished, loaded);
    if (retVal.isBad())
        return retVal;
    McHandle<ResourceProduct> product;
    QString version;
    productAndVersionOf(loaded, product, version);
    if (MC_CHECK_DETAIL(retVal, product.isNotNull(), "the product description holds no product",
                        QFile::encodeName(unfinished).toStdString()))
        return retVal;
    // The folder holds another version than the one that was coming in: the update was undone
    // and the records already name what is there.
    if (versionCompare(version, mVersion) != 0)
    {
        e.trace(McLogLevelInfo, QStringLiteral("update: the update to version %1 was undone; version %2 is installed")
                                    .arg(version, mVersion));
        e.resourceUnregisterAll();
        QFile::remove(unfinished);
        return retVal;
    }
    e.trace(McLogLevelInfo, QStringLiteral("update: finishing the interrupted update to version %1").arg(version));
    e.cache().httpUrlAdd(serverBase(mUrl) + QStringLiteral("/items"));
    e.cache().httpUrlAdd(serverBase(mUrl));
    const Configuration saved = e.configuration();
    retVal << installedRecordsWrite(inApplicationDir, product->name());
    e.configuration() = saved;
    e.resourceUnregisterAll();
    return retVal;
}

QString PluginKestraClient::ksweblaunchExePath()
{
    Engine& e = Engine::instance();
    const Configuration& config = e.configuration();
    const QString application =
        QStringList{config.value(QStringLiteral("DIR_TARGET")), config.value(QStringLiteral("DIR_VENDOR")),
                    config.value(QStringLiteral("DIR_APPLICATION"))}
            .join(QLatin1Char('/'));
    McHandle<ResourceFileDirectory> root;
    McDArray<McHandle<Resource>> found;
    QString retVal;
    if (Generator::generateFromDirectory(root, found, application, true, QStringList(), QStringList()).isOk())
    {
        for (int64_t i = 0; i < found.size() && retVal.isEmpty(); ++i)
        {
            auto* entry = dynamic_cast<ResourceFileEntry*>(found[i].ptr());
            if (entry && entry->name() == QLatin1String("ksweblaunch.exe"))
                retVal = entry->path();
        }
    }
    // The scan's resources were only a means: the pool keeps the product's own.
    for (int64_t i = 0; i < found.size(); ++i)
        e.resourceUnregister(found[i]);
    return retVal;
}
