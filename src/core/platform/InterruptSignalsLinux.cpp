#include "InterruptSignals.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <unistd.h>

namespace KsPlatform
{
namespace
{
std::atomic<int> sPending{0};
std::atomic<bool> sArmed{false};
std::atomic<bool> sRollingBack{false};
std::atomic<bool> sInstalled{false};

void say(const char* inText)
{
    // write(2) is what a signal handler may call; stdio is not.
    ssize_t ignored = ::write(STDERR_FILENO, inText, std::strlen(inText));
    (void)ignored;
}

void onSignal(int inSignal)
{
    if (!sArmed.load())
    {
        // Not changing anything: the usual effect of the signal.
        std::signal(inSignal, SIG_DFL);
        std::raise(inSignal);
        return;
    }
    // During a rollback a signal is not even noted: afterwards it must not end the process either.
    int none = 0;
    if (!sRollingBack.load() && sPending.compare_exchange_strong(none, inSignal))
        return;
    say("interrupt ignored: rolling back\n");
}
}

void InterruptSignals::install()
{
    if (sInstalled.exchange(true))
        return;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sa.sa_handler = &onSignal;
    sigemptyset(&sa.sa_mask);
    // Slow calls (a download waiting for data) go on; the loops look at the flag soon enough.
    sa.sa_flags = SA_RESTART;
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(sig, &sa, nullptr);
}

void InterruptSignals::armedSet(bool inArmed)
{
    if (inArmed)
        sPending.store(0);
    sArmed.store(inArmed);
}

void InterruptSignals::deliverPending()
{
    const int sig = sPending.exchange(0);
    if (sig == 0)
        return;
    sArmed.store(false);
    std::raise(sig);
}

int InterruptSignals::pending() { return sPending.load(); }

void InterruptSignals::rollingBackSet(bool inRollingBack) { sRollingBack.store(inRollingBack); }

const char* InterruptSignals::name(int inSignal)
{
    switch (inSignal)
    {
    case SIGINT:
        return "SIGINT";
    case SIGTERM:
        return "SIGTERM";
    case SIGHUP:
        return "SIGHUP";
    default:
        return "signal";
    }
}
}
