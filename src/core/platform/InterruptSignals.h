#pragma once
// Interrupt, terminate and hang-up signals while a product is being changed: the handler only
// notes the signal, the install and uninstall loops look at it between resources and stop there,
// so that the change can be rolled back. Outside such a change the signals keep their usual
// effect. Qt-free.
namespace KsPlatform
{
class InterruptSignals
{
public:
    // Installs the handlers for SIGINT, SIGTERM and SIGHUP (once per process).
    static void install();
    // While armed, a signal is noted instead of ending the process. Arming clears what was noted.
    static void armedSet(bool inArmed);
    // The first signal noted since arming (0: none).
    static int pending();
    // While a rollback runs, further signals are ignored and each says so on standard error.
    static void rollingBackSet(bool inRollingBack);
    // A signal noted but not acted on (the change was complete when it came) now has its usual
    // effect; the handlers stay for the next change.
    static void deliverPending();
    // "SIGINT", "SIGTERM", "SIGHUP" (or "signal N").
    static const char* name(int inSignal);
};
}
