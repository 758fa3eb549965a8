// The ksdeploy host: creates the engine from the process environment, runs the command
// line, and shuts the engine down.
#include "ConsoleProgress.h"
#include "Engine.h"

#include <QApplication>
#include <QCoreApplication>

#include <cstdio>
#include <memory>

extern char** environ;

namespace
{
// Every failure reported through Ks::fail reaches the user on standard error.
bool printFailure(const McResult& inResult)
{
    std::fprintf(stderr, "error: %s\n", inResult.text());
    if (*inResult.condition())
        std::fprintf(stderr, "  %s at %s:%d\n", inResult.condition(), inResult.location(), inResult.line());
    std::fflush(stderr);
    return true;
}
}

int main(int argc, char** argv)
{
    QCoreApplication::setApplicationName(QStringLiteral("ksdeploy"));
    QCoreApplication app(argc, argv);

    McResult::notificationCallbackAdd(&printFailure);
    KsDeploy::Engine::instanceInit(environ);
    KsDeploy::Engine& engine = KsDeploy::Engine::instance();
    engine.quietSet(true);

    int exitCode = 0;
    const QStringList args = app.arguments();
    if (args.size() > 1)
    {
        engine.trace(McLogLevelInfo, QStringLiteral("ksdeploy: commands are not available yet"));
        exitCode = 2;
    }

    KsDeploy::Engine::instanceShutdown();
    McResult::notificationCallbackRemove(&printFailure);
    return exitCode;
}
