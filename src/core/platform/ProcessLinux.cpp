// Process start on Linux: a detached program is forked twice so that it is not our child (it
// outlives us and never becomes our zombie); an attached one is forked once and waited for.
// A held program blocks on a pipe before execve.
#include "Process.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace KsPlatform
{
namespace
{
std::vector<char*> pointers(std::vector<std::string>& inStrings)
{
    std::vector<char*> out;
    for (std::string& s : inStrings)
        out.push_back(&s[0]);
    out.push_back(nullptr);
    return out;
}

ssize_t readFull(int inFd, void* outBuf, size_t inSize)
{
    size_t done = 0;
    while (done < inSize)
    {
        const ssize_t n = read(inFd, static_cast<char*>(outBuf) + done, inSize - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return n < 0 ? n : static_cast<ssize_t>(done);
        done += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

void closeFd(int& inoutFd)
{
    if (inoutFd >= 0)
        close(inoutFd);
    inoutFd = -1;
}

// The last steps in the process that becomes the program: async-signal-safe calls only.
[[noreturn]] void becomeProgram(int inGate, int inReport, const char* inCwd, char* const* inArgv, char* const* inEnv)
{
    if (inGate >= 0)
    {
        char c;
        while (read(inGate, &c, 1) < 0 && errno == EINTR)
        {
        }
        close(inGate);
    }
    if (inCwd && chdir(inCwd) != 0)
    {
        const int e = errno;
        (void)!write(inReport, &e, sizeof(e));
        _exit(127);
    }
    execve(inArgv[0], inArgv, inEnv);
    const int e = errno;
    (void)!write(inReport, &e, sizeof(e));
    _exit(127);
}
}

Process::Process() = default;

Process::~Process()
{
    if (mGate >= 0)
        resume();
    closeFd(mReport);
    // An attached program that has ended is reaped; one still running stays our child.
    if (!mDetached && !mReaped && mPid > 0)
        waitpid(static_cast<pid_t>(mPid), nullptr, WNOHANG);
}

Status Process::start(const ProcessStart& inStart, bool inHeld)
{
    if (mPid >= 0)
        return Status::bad(EBUSY, "'" + inStart.program + "': this process object has already started a program");
    if (inStart.program.empty() || access(inStart.program.c_str(), X_OK) != 0)
        return Status::bad(inStart.program.empty() ? ENOENT : errno,
                           "cannot start '" + inStart.program + "': not an executable file (" +
                               std::strerror(inStart.program.empty() ? ENOENT : errno) + ")");
    mProgram = inStart.program;

    // Everything the children need is prepared now: after fork only async-signal-safe calls.
    std::vector<std::string> args(1, inStart.program);
    args.insert(args.end(), inStart.arguments.begin(), inStart.arguments.end());
    std::vector<char*> argv = pointers(args);
    std::vector<std::string> env = inStart.environment;
    std::vector<char*> envp = pointers(env);
    char** const useEnv = inStart.environment.empty() ? environ : envp.data();
    const char* const cwd = inStart.workingDirectory.empty() ? nullptr : inStart.workingDirectory.c_str();
    const bool newSession = inStart.newSession;
    const bool detached = inStart.detached;

    int gate[2] = {-1, -1};
    int report[2] = {-1, -1};
    int pidPipe[2] = {-1, -1};
    if ((inHeld && pipe2(gate, O_CLOEXEC) != 0) || pipe2(report, O_CLOEXEC) != 0 || pipe2(pidPipe, O_CLOEXEC) != 0)
    {
        const int e = errno;
        for (int fd : {gate[0], gate[1], report[0], report[1], pidPipe[0], pidPipe[1]})
            if (fd >= 0)
                close(fd);
        return Status::bad(e, std::string("cannot start '") + mProgram + "': " + std::strerror(e));
    }

    const pid_t child = fork();
    if (child == 0)
    {
        close(pidPipe[0]);
        close(report[0]);
        if (gate[1] >= 0)
            close(gate[1]);
        if (newSession)
            setsid();
        if (detached)
        {
            const pid_t grandchild = fork();
            if (grandchild != 0)
            {
                const long long id = grandchild;
                (void)!write(pidPipe[1], &id, sizeof(id));
                _exit(grandchild > 0 ? 0 : 127);
            }
        }
        close(pidPipe[1]);
        becomeProgram(gate[0], report[1], cwd, argv.data(), useEnv);
    }
    const int forkErrno = errno;
    close(pidPipe[1]);
    close(report[1]);
    if (gate[0] >= 0)
        close(gate[0]);
    if (child < 0)
    {
        close(pidPipe[0]);
        close(report[0]);
        if (gate[1] >= 0)
            close(gate[1]);
        return Status::bad(forkErrno, std::string("cannot start '") + mProgram + "': " + std::strerror(forkErrno));
    }
    long long id = child;
    ssize_t n = static_cast<ssize_t>(sizeof(id));
    if (detached)
    {
        // The intermediate child reports the program's id and ends at once.
        n = readFull(pidPipe[0], &id, sizeof(id));
        int status = 0;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR)
        {
        }
    }
    close(pidPipe[0]);
    mGate = gate[1];
    mReport = report[0];
    mDetached = detached;
    if (n != static_cast<ssize_t>(sizeof(id)) || id <= 0)
    {
        closeFd(mGate);
        closeFd(mReport);
        return Status::bad(EAGAIN, "cannot start '" + mProgram + "': the system refused a new process");
    }
    mPid = id;
    char state = 0;
    Process::stateOf(mPid, state, mStartTime);
    return inHeld ? Status::ok() : waitForExec();
}

Status Process::resume()
{
    if (mGate < 0)
        return Status::bad(EINVAL, "'" + mProgram + "' is not held");
    const char c = 'g';
    while (write(mGate, &c, 1) < 0 && errno == EINTR)
    {
    }
    closeFd(mGate);
    return waitForExec();
}

Status Process::waitForExec()
{
    // The report pipe closes on a successful exec; an errno arrives when it failed.
    int childErrno = 0;
    const ssize_t n = mReport >= 0 ? readFull(mReport, &childErrno, sizeof(childErrno)) : 0;
    closeFd(mReport);
    if (n != static_cast<ssize_t>(sizeof(childErrno)))
        return Status::ok();
    if (!mDetached)
    {
        // Our own child has already ended with 127: it is reaped here, not left a zombie.
        int status = 0;
        reap(status);
    }
    return Status::bad(childErrno, "cannot start '" + mProgram + "': " + std::strerror(childErrno));
}

void Process::reap(int& outStatus)
{
    outStatus = 0;
    while (waitpid(static_cast<pid_t>(mPid), &outStatus, 0) < 0 && errno == EINTR)
    {
    }
    mReaped = true;
}

// Only an attached program of ours can be waited for; a held one is let go first.
Status Process::waitPrepare()
{
    if (mPid <= 0 || mDetached || mReaped)
        return Status::bad(EINVAL, "'" + mProgram + "' is not a started program of ours to wait for");
    return mGate >= 0 ? resume() : Status::ok();
}

// The exit status, or 128 plus the signal that ended the program.
int Process::exitCodeOf(int inWaitStatus)
{
    if (WIFEXITED(inWaitStatus))
        return WEXITSTATUS(inWaitStatus);
    return 128 + (WIFSIGNALED(inWaitStatus) ? WTERMSIG(inWaitStatus) : 0);
}

Status Process::waitForExit(int& outExitCode)
{
    outExitCode = -1;
    const Status waitable = waitPrepare();
    if (waitable.isBad())
        return waitable;
    int status = 0;
    reap(status);
    outExitCode = exitCodeOf(status);
    return Status::ok();
}

Status Process::waitForExitWithin(int inTimeoutMs, bool& outEnded, int& outExitCode)
{
    outEnded = false;
    outExitCode = -1;
    const Status waitable = waitPrepare();
    if (waitable.isBad())
        return waitable;
    // Polled: a child's end cannot be waited for with a time limit otherwise without a signal
    // handler, and a few milliseconds of delay do not matter here.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(inTimeoutMs);
    for (;;)
    {
        int status = 0;
        const pid_t r = waitpid(static_cast<pid_t>(mPid), &status, WNOHANG);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0)
            return Status::bad(errno, "'" + mProgram + "': " + std::strerror(errno));
        if (r == static_cast<pid_t>(mPid))
        {
            mReaped = true;
            outEnded = true;
            outExitCode = exitCodeOf(status);
            return Status::ok();
        }
        if (std::chrono::steady_clock::now() >= deadline)
            return Status::ok();
        usleep(10000);
    }
}

bool Process::isRunning() const
{
    if (mPid <= 0)
        return false;
    char state = 0;
    unsigned long long startTime = 0;
    if (!Process::stateOf(mPid, state, startTime))
        return false;
    // A zombie has ended; a different start time is another program that got the same id.
    return state != 'Z' && state != 'X' && (mStartTime == 0 || startTime == mStartTime);
}

bool Process::stateOf(long long inPid, char& outState, unsigned long long& outStartTime)
{
    std::ifstream in("/proc/" + std::to_string(inPid) + "/stat");
    std::string line;
    if (!std::getline(in, line))
        return false;
    // The command name may hold blanks and parentheses: the fields follow the last ')'.
    const size_t close = line.rfind(')');
    if (close == std::string::npos)
        return false;
    std::istringstream fields(line.substr(close + 1));
    std::string field;
    fields >> outState;
    // Field 22 is the start time; after the state (field 3) come 18 more before it.
    for (int i = 4; i < 22 && fields >> field; ++i)
    {
    }
    return static_cast<bool>(fields >> outStartTime);
}

}
