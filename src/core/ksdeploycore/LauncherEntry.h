#pragma once
#include <QString>

namespace KsDeploy
{
// Publishes a progress value on the desktop's task bar through the launcher-entry signal of
// the session bus. Without a session bus every call does nothing.
class LauncherEntry
{
public:
    explicit LauncherEntry(const QString& inDesktopFileName = QStringLiteral("ksdeploy.desktop"));
    ~LauncherEntry();
    LauncherEntry(const LauncherEntry&) = delete;
    LauncherEntry& operator=(const LauncherEntry&) = delete;

    // inFraction is clamped to 0..1 (a NaN counts as 0). Only changes of a tenth of a percent or
    // more are sent, so a product of many thousand files costs a few hundred signals at most.
    void progressSet(double inFraction);
    void visibleSet(bool inVisible);

    static const char* const sObjectPath;
    static const char* const sInterface;

private:
    void send();

    QString mAppUri;
    int mPermille = -1;
    int mSentPermille = -2;
    bool mVisible = false;
    bool mSentVisible = false;
    // Decided at the first send: whether a session bus exists at all.
    int mBusState = 0;
};
}
