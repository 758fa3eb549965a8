// The ksdeploy host: creates the engine from the process environment, runs the commands of
// the command line in order, and shuts the engine down.
//
// Exit status: 0 success, 1 a command failed, 2 the arguments are not a valid command line,
// 128 + the signal number when SIGINT, SIGTERM or SIGHUP stopped a change that was rolled back.
#include "Cache.h"
#include "Command_commands.h"
#include "ConsoleProgress.h"
#include "Engine.h"
#include "KsCommand.h"
#include "QxCommand.h"
#include "RegistryStore.h"
#include "WidgetProgress.h"

#include "InterruptSignals.h"

#include <QApplication>
#include <QCoreApplication>
#include <QEventLoop>

#include <cstdio>
#include <cstdlib>
#include <memory>

extern char** environ;

namespace
{
// The progress dialog, when the engine shows one.
KsDeploy::WidgetProgress* dialogFind()
{
    if (!KsDeploy::WidgetProgress::available())
        return nullptr;
    for (QWidget* widget : QApplication::topLevelWidgets())
        if (auto* dialog = qobject_cast<KsDeploy::WidgetProgress*>(widget))
            return dialog;
    return nullptr;
}

// Every failure reported through Ks::fail reaches the user on standard error.
bool printFailure(const McResult& inResult)
{
    // A rollback gathers its failures and reports them once.
    if (KsDeploy::Engine::failureReportsHeld())
        return true;
    // Progress lines written before the failure come first when both streams share one file.
    std::fflush(stdout);
    std::fprintf(stderr, "error: %s\n", inResult.text());
    if (*inResult.detail())
        std::fprintf(stderr, "  %s\n", inResult.detail());
    if (*inResult.condition())
        std::fprintf(stderr, "  %s at %s:%d\n", inResult.condition(), inResult.location(), inResult.line());
    std::fflush(stderr);
    // A desktop user reads the failure in the dialog's log, which stays open after a failure.
    if (KsDeploy::WidgetProgress* dialog = dialogFind())
    {
        dialog->print(QStringLiteral("error: ") + QString::fromLatin1(inResult.text()));
        if (*inResult.detail())
            dialog->print(QStringLiteral("  ") + QString::fromLatin1(inResult.detail()));
    }
    return true;
}

// The run's end on the dialog: closed at once after success; after a failure it stays until
// the user closes it, so the log can be read.
void dialogFinish(bool inSucceeded)
{
    KsDeploy::WidgetProgress* dialog = dialogFind();
    if (!dialog)
        return;
    dialog->makeCloseable();
    if (inSucceeded)
        dialog->close();
    while (dialog->isVisible())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

// A window the run left open (a plugin's offer of an optional update) is answered before the
// process ends, and whatever its answer queued runs then.
void windowsLeftOpenWait()
{
    if (!KsDeploy::WidgetProgress::available())
        return;
    for (;;)
    {
        QCoreApplication::processEvents();
        bool open = false;
        for (QWidget* widget : QApplication::topLevelWidgets())
            open = open || widget->isVisible();
        if (!open)
            return;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

// The window system ends the process when the display goes away; say what happened in our words.
bool sDisplayLost = false;
QtMessageHandler sMessageHandlerPrevious = nullptr;
void messageHandler(QtMsgType inType, const QMessageLogContext& inContext, const QString& inMessage)
{
    if (inMessage.contains(QLatin1String("connection broke")))
        sDisplayLost = true;
    if (sMessageHandlerPrevious)
        sMessageHandlerPrevious(inType, inContext, inMessage);
}
void displayLostReport()
{
    if (sDisplayLost)
        std::fputs("ksdeploy: the display went away; the run was stopped\n", stderr);
}

// A message box (the debug pause) needs a display; without one the host stays a console program.
bool displayAvailable()
{
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    if (platform && *platform)
        return true;
    const char* x11 = std::getenv("DISPLAY");
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    return (x11 && *x11) || (wayland && *wayland);
}

// A command stream's lines are read as if they followed it on the command line.
// Its arguments are checked as they are read; a mistake is named by file and line.
McResult expandStream(const McHandle<QxBase::Command>& inCommand, bool& outExpanded, QList<QString>& outArguments,
                      QStringList& outOrigins)
{
    outExpanded = false;
    auto* stream = dynamic_cast<KsDeploy::Command_commands*>(inCommand.ptr());
    if (!stream)
        return McResult();
    outExpanded = true;
    QList<int> lines;
    const McResult retVal = stream->getArguments(outArguments, lines);
    for (const int line : lines)
        outOrigins.append(QStringLiteral("%1, line %2").arg(stream->streamPath()).arg(line));
    return retVal;
}
}

int main(int argc, char** argv)
{
    QCoreApplication::setApplicationName(QStringLiteral("ksdeploy"));
    // The command line is ours alone: Qt would take "--plugin", "-style" and the like for itself
    // and remove them. Qt gets the program name only; it must outlive the application object.
    QList<QString> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.append(QString::fromLocal8Bit(argv[i]));
    static int sQtArgc = 1;
    static char* sQtArgv[] = {argv[0], nullptr};
    std::unique_ptr<QCoreApplication> app;
    if (displayAvailable())
    {
        sMessageHandlerPrevious = qInstallMessageHandler(&messageHandler);
        std::atexit(&displayLostReport);
        app.reset(new QApplication(sQtArgc, sQtArgv));
    }
    else
        app.reset(new QCoreApplication(sQtArgc, sQtArgv));

    KsDeploy::commandsRegisterAll();
    if (arguments.isEmpty())
    {
        QxBase::Command::usage(QString(), true);
        return 0;
    }
    // Nothing runs, not even the engine's start-up, for arguments that are no command line. What
    // follows a plugin may use the plugin's commands: it is checked once the plugin is registered.
    int checkedEnd = 0;
    const QString syntaxError = QxBase::CommandLine::syntaxCheck(arguments, false, QStringList(), &checkedEnd);
    if (!syntaxError.isEmpty())
    {
        std::fprintf(stderr, "ksdeploy: %s (run ksdeploy without arguments for the list of commands)\n",
                     syntaxError.toLocal8Bit().constData());
        return 2;
    }

    McResult::notificationCallbackAdd(&printFailure);
    KsPlatform::InterruptSignals::install();
    // The library reads no environment key; the host chooses the registry store's file and the
    // download limits before the engine starts, since its start may already roll a change back.
    KsDeploy::RegistryStore::locationSet(QString::fromLocal8Bit(qgetenv("KSDEPLOY_REGISTRY")));
    // A stall limit, and an optional limit on a whole transfer. Not set, or not a number above 0:
    // the defaults.
    KsDeploy::Cache::downloadLimitsSet(qEnvironmentVariableIntValue("KSDEPLOY_STALL_TIMEOUT_MS"),
                                       qEnvironmentVariableIntValue("KSDEPLOY_DOWNLOAD_TIMEOUT_MS"));
    KsDeploy::Engine::instanceInit(environ);
    KsDeploy::Engine& engine = KsDeploy::Engine::instance();
    // For benchmarks only: "1" leaves out the flushes that make a change survive a power loss,
    // "journal" the journal too (then a change does not survive the process either).
    const QByteArray noFlush = qgetenv("KSDEPLOY_BENCH_NO_FLUSH");
    if (!noFlush.isEmpty() && noFlush != "0")
        engine.transactionDurabilitySet(false, noFlush != "journal");

    QxBase::CommandLine commandLine(&expandStream);
    const QxBase::CommandLine::Outcome outcome = commandLine.run(arguments);
    int exitCode = 0;
    if (outcome == QxBase::CommandLine::OutcomeSyntaxError)
    {
        std::fprintf(stderr, "ksdeploy: %s\n", commandLine.syntaxError().toLocal8Bit().constData());
        exitCode = 2;
    }
    else if (outcome == QxBase::CommandLine::OutcomeFailed && !engine.interruptedOperation().isEmpty() &&
             !engine.rollbackIncomplete())
    {
        const int signal = KsPlatform::InterruptSignals::pending();
        std::fflush(stdout);
        std::fprintf(stderr, "%s interrupted by %s: rolled back\n",
                     engine.interruptedOperation().toLatin1().constData(), KsPlatform::InterruptSignals::name(signal));
        exitCode = 128 + signal;
    }
    else if (outcome == QxBase::CommandLine::OutcomeFailed)
    {
        engine.trace(commandLine.result());
        exitCode = 1;
    }
    dialogFinish(exitCode == 0);
    windowsLeftOpenWait();

    KsDeploy::Engine::instanceShutdown();
    McResult::notificationCallbackRemove(&printFailure);
    return exitCode;
}
