#pragma once
#include "QxGlobal.h"

#include <QString>
#include <QStringList>

#include <memory>

namespace QxBase
{
// A program started on its own: it outlives this object and the engine.
class Process
{
public:
    Process();
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void programSet(const QString& inProgram) { mProgram = inProgram; }
    void workingDirectorySet(const QString& inDir) { mWorkingDirectory = inDir; }
    void argumentsAppend(const QStringList& inArguments) { mArguments += inArguments; }
    // "KEY=value" entries; an empty list passes the caller's environment on.
    void environmentSet(const QStringList& inEnvironment) { mEnvironment = inEnvironment; }

    // inRunAtOnce: the program runs immediately; otherwise it is held before it starts
    // until resume(). inNewSession: the program leaves the caller's session and terminal.
    // inWait: wait for the program to end (its exit status decides the result).
    McResult start(bool inRunAtOnce, bool inNewSession, bool inWait);
    McResult resume();
    long long processId() const;

    // Splits a command line by shell rules (quotes, backslashes), without expansion.
    static QStringList splitCommandLine(const QString& inCommandLine);

private:
    struct Private;
    QString mProgram;
    QString mWorkingDirectory;
    QStringList mArguments;
    QStringList mEnvironment;
    std::unique_ptr<Private> d;
};
}
