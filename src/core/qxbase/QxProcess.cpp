// QxBase::Process is the Qt face of the platform launcher: it adds the QString interface, the
// engine's messages and the wait for an exit status; the fork and exec happen in KsPlatform::Process.
#include "QxProcess.h"

#include "Process.h"

#include <QFileInfo>

#include <cstring>
#include <string>
#include <vector>

namespace QxBase
{
struct Process::Private
{
    KsPlatform::Process process;
};

Process::Process() : d(new Private) {}

// A held program is let go by the platform process: it never waits forever for us.
Process::~Process() = default;

long long Process::processId() const { return d->process.processId(); }

namespace
{
std::vector<std::string> toStrings(const QStringList& inList)
{
    std::vector<std::string> out;
    out.reserve(static_cast<size_t>(inList.size()));
    for (const QString& s : inList)
        out.push_back(s.toLocal8Bit().toStdString());
    return out;
}

QString startFailure(const QString& inProgram, const KsPlatform::Status& inStatus)
{
    return QStringLiteral("failed to start '%1': %2")
        .arg(inProgram, QString::fromLocal8Bit(std::strerror(static_cast<int>(inStatus.code))));
}
}

McResult Process::start(bool inRunAtOnce, bool inNewSession, bool inWait)
{
    McResult retVal;
    const QFileInfo program(mProgram);
    if (MC_CHECK(retVal, program.isFile() && program.isExecutable(),
                 QStringLiteral("not an executable file: '%1'").arg(mProgram)))
        return retVal;

    KsPlatform::ProcessStart start;
    start.program = mProgram.toLocal8Bit().toStdString();
    start.arguments = toStrings(mArguments);
    start.workingDirectory = mWorkingDirectory.toLocal8Bit().toStdString();
    start.environment = toStrings(mEnvironment);
    start.newSession = inNewSession;
    // A program we wait for stays our child; any other outlives us.
    start.detached = !inWait;
    const KsPlatform::Status started = d->process.start(start, !inRunAtOnce && !inWait);
    if (MC_CHECK(retVal, started.isOk(), startFailure(mProgram, started)))
        return retVal;
    if (!inWait)
        return retVal;

    int exitCode = -1;
    const KsPlatform::Status ended = d->process.waitForExit(exitCode);
    if (MC_CHECK(retVal, ended.isOk(), QString::fromLocal8Bit(ended.text.c_str())))
        return retVal;
    MC_CHECK(retVal, exitCode == 0, QStringLiteral("'%1' ended with status %2").arg(mProgram).arg(exitCode));
    return retVal;
}

McResult Process::resume()
{
    McResult retVal;
    if (MC_CHECK(retVal, d->process.isHeld(), "no held process to resume"))
        return retVal;
    // The exec happens now: a program that cannot run is reported here.
    const KsPlatform::Status resumed = d->process.resume();
    MC_CHECK(retVal, resumed.isOk(), startFailure(mProgram, resumed));
    return retVal;
}

QStringList Process::splitCommandLine(const QString& inCommandLine)
{
    QStringList out;
    QString current;
    bool inWord = false;
    QChar quote;
    for (int i = 0; i < inCommandLine.size(); ++i)
    {
        const QChar c = inCommandLine.at(i);
        if (quote == QLatin1Char('\''))
        {
            if (c == QLatin1Char('\''))
                quote = QChar();
            else
                current += c;
            continue;
        }
        if (quote == QLatin1Char('"'))
        {
            if (c == QLatin1Char('"'))
                quote = QChar();
            else if (c == QLatin1Char('\\') && i + 1 < inCommandLine.size() &&
                     QStringLiteral("\"\\$`").contains(inCommandLine.at(i + 1)))
                current += inCommandLine.at(++i);
            else
                current += c;
            continue;
        }
        if (c.isSpace())
        {
            if (inWord)
            {
                out.append(current);
                current.clear();
                inWord = false;
            }
            continue;
        }
        inWord = true;
        if (c == QLatin1Char('\'') || c == QLatin1Char('"'))
            quote = c;
        else if (c == QLatin1Char('\\') && i + 1 < inCommandLine.size())
            current += inCommandLine.at(++i);
        else
            current += c;
    }
    if (inWord)
        out.append(current);
    return out;
}
}
