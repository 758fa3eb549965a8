#include "ConsoleProgress.h"

#include "Engine.h"

#include <cstdio>
#include <unistd.h>

using namespace KsDeploy;

void ConsoleProgress::taskCountSet(unsigned int) {}

void ConsoleProgress::taskStartNext(const QString& inTaskName)
{
    Engine::instance().trace(McLogLevelInfo, inTaskName + QStringLiteral(" ..."));
}

void ConsoleProgress::print(const QString& inText)
{
    const QByteArray bytes = inText.toLatin1();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fputc('\n', stdout);
    // A person watching sees each line at once; a log file or pipe gets them in blocks, which
    // spares a system call per line on products of many thousand files.
    static const bool sInteractive = isatty(fileno(stdout)) != 0;
    if (sInteractive)
        std::fflush(stdout);
}

void ConsoleProgress::reportUpdateFailure()
{
    std::fputs("Automatic update has failed.\nPlease install manually.\n", stdout);
    std::fflush(stdout);
}

void ConsoleProgress::progressSet(float) {}

float ConsoleProgress::progress()
{
    // A console keeps no fraction; asking for one is a programming error.
    dbc_event(DbCCheck, "0", "ConsoleProgress", 65, "KsDeploy::ConsoleProgress::progress", nullptr);
    return 0.0f;
}
