#include "QxProcess.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace QxBase
{
struct Process::Private
{
    pid_t pid = -1;
    int gateWrite = -1; // the held child starts the program when this pipe is written or closed
};

Process::Process() : d(new Private) {}

Process::~Process()
{
    // Never leave a held program waiting forever: letting go means letting it run.
    if (d->gateWrite >= 0)
        resume();
}

long long Process::processId() const { return d->pid; }

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

std::vector<char*> toArgv(std::vector<std::string>& inStrings)
{
    std::vector<char*> out;
    for (std::string& s : inStrings)
        out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}
}

McResult Process::start(bool inRunAtOnce, bool inNewSession, bool inWait)
{
    McResult retVal;
    const QFileInfo program(mProgram);
    if (MC_CHECK(retVal, program.isFile() && program.isExecutable(),
                 QStringLiteral("not an executable file: '%1'").arg(mProgram)))
        return retVal;

    // Everything the child needs is prepared before fork: only async-signal-safe calls after it.
    std::vector<std::string> args = toStrings(QStringList(mProgram) + mArguments);
    std::vector<char*> argv = toArgv(args);
    std::vector<std::string> env = toStrings(mEnvironment);
    std::vector<char*> envp = toArgv(env);
    const std::string path = mProgram.toLocal8Bit().toStdString();
    const std::string cwd = mWorkingDirectory.toLocal8Bit().toStdString();

    int gate[2] = {-1, -1};
    if (!inRunAtOnce && pipe2(gate, O_CLOEXEC) != 0)
    {
        MC_CHECK_WIN(retVal, false, "pipe");
        return retVal;
    }
    // Reports a failed exec back to the parent; closed by a successful exec.
    int report[2] = {-1, -1};
    if (pipe2(report, O_CLOEXEC) != 0)
    {
        MC_CHECK_WIN(retVal, false, "pipe");
        return retVal;
    }

    const pid_t pid = fork();
    if (pid == 0)
    {
        close(report[0]);
        if (gate[1] >= 0)
            close(gate[1]);
        // A second fork detaches the program from us, so it outlives the engine and is never a zombie.
        if (!inWait)
        {
            const pid_t grandchild = fork();
            if (grandchild != 0)
                _exit(grandchild > 0 ? 0 : 127);
        }
        if (inNewSession)
            setsid();
        if (gate[0] >= 0)
        {
            char c;
            while (read(gate[0], &c, 1) < 0 && errno == EINTR)
            {
            }
            close(gate[0]);
        }
        if (!cwd.empty() && chdir(cwd.c_str()) != 0)
        {
            const int e = errno;
            (void)!write(report[1], &e, sizeof(e));
            _exit(127);
        }
        execve(path.c_str(), argv.data(), env.empty() ? environ : envp.data());
        const int e = errno;
        (void)!write(report[1], &e, sizeof(e));
        _exit(127);
    }
    close(report[1]);
    if (gate[0] >= 0)
        close(gate[0]);
    if (pid < 0)
    {
        close(report[0]);
        if (gate[1] >= 0)
            close(gate[1]);
        MC_CHECK_WIN(retVal, false, "fork");
        return retVal;
    }
    d->pid = pid;
    d->gateWrite = gate[1];

    if (!inWait)
    {
        // The intermediate child exits at once.
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        {
        }
        d->pid = -1;
    }
    if (inRunAtOnce || inWait)
    {
        if (d->gateWrite >= 0)
            resume();
        int childErrno = 0;
        ssize_t n;
        while ((n = read(report[0], &childErrno, sizeof(childErrno))) < 0 && errno == EINTR)
        {
        }
        close(report[0]);
        if (MC_CHECK(retVal, n <= 0,
                     QStringLiteral("failed to start '%1': %2").arg(mProgram, QString::fromLocal8Bit(std::strerror(childErrno)))))
            return retVal;
    }
    else
    {
        // Held: the exec happens after resume(); its failure cannot be reported any more.
        close(report[0]);
    }
    if (inWait && d->pid > 0)
    {
        int status = 0;
        while (waitpid(d->pid, &status, 0) < 0 && errno == EINTR)
        {
        }
        d->pid = -1;
        MC_CHECK(retVal, WIFEXITED(status) && WEXITSTATUS(status) == 0,
                 QStringLiteral("'%1' ended with status %2").arg(mProgram).arg(WIFEXITED(status) ? WEXITSTATUS(status) : -1));
    }
    return retVal;
}

McResult Process::resume()
{
    McResult retVal;
    if (MC_CHECK(retVal, d->gateWrite >= 0, "no held process to resume"))
        return retVal;
    const char c = 'g';
    ssize_t n;
    while ((n = write(d->gateWrite, &c, 1)) < 0 && errno == EINTR)
    {
    }
    close(d->gateWrite);
    d->gateWrite = -1;
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
