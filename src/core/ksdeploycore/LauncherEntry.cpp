#include "LauncherEntry.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QVariantMap>

#include <cmath>
#include <cstdlib>

using namespace KsDeploy;

const char* const LauncherEntry::sObjectPath = "/com/ksdeploy/ksdeploy";
const char* const LauncherEntry::sInterface = "com.canonical.Unity.LauncherEntry";

namespace
{
// Asking Qt for the session bus when no address is known may start a bus of its own (autolaunch);
// a deployment run must not leave daemons behind, so only an announced bus is used.
bool sessionBusAnnounced()
{
    const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address && *address)
        return true;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return runtime && *runtime && QFileInfo::exists(QString::fromLocal8Bit(runtime) + QStringLiteral("/bus"));
}
}

LauncherEntry::LauncherEntry(const QString& inDesktopFileName)
    : mAppUri(QStringLiteral("application://") + inDesktopFileName)
{
}

LauncherEntry::~LauncherEntry()
{
    if (mSentVisible)
        visibleSet(false);
}

void LauncherEntry::progressSet(double inFraction)
{
    double fraction = std::isnan(inFraction) ? 0.0 : inFraction;
    fraction = fraction < 0.0 ? 0.0 : (fraction > 1.0 ? 1.0 : fraction);
    mPermille = static_cast<int>(fraction * 1000.0);
    mVisible = true;
    send();
}

void LauncherEntry::visibleSet(bool inVisible)
{
    mVisible = inVisible;
    send();
}

void LauncherEntry::send()
{
    if (mPermille == mSentPermille && mVisible == mSentVisible)
        return;
    if (mBusState == 0)
        mBusState = sessionBusAnnounced() && QDBusConnection::sessionBus().isConnected() ? 1 : -1;
    if (mBusState < 0)
        return;
    QDBusMessage signal = QDBusMessage::createSignal(QString::fromLatin1(sObjectPath), QString::fromLatin1(sInterface),
                                                     QStringLiteral("Update"));
    QVariantMap properties;
    properties.insert(QStringLiteral("progress"), (mPermille < 0 ? 0 : mPermille) / 1000.0);
    properties.insert(QStringLiteral("progress-visible"), mVisible);
    signal << mAppUri << properties;
    QDBusConnection::sessionBus().send(signal);
    mSentPermille = mPermille;
    mSentVisible = mVisible;
}
