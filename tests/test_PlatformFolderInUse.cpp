// Programs that hold on to a folder: found by executable, working directory or mapped file,
// never the caller itself nor a program in a folder that merely shares the name's beginning.
#include "FolderInUse.h"
#include "Process.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
std::string scratch()
{
    static int sCounter = 0;
    const char* tmp = std::getenv("TMPDIR");
    const std::string dir =
        std::string(tmp ? tmp : "/tmp") + "/inuse-test-" + std::to_string(getpid()) + "-" + std::to_string(++sCounter);
    mkdir(dir.c_str(), 0755);
    return dir;
}

bool exists(const std::string& inPath) { return access(inPath.c_str(), F_OK) == 0; }

// A program of ours that runs until the test ends; ready once inReadyFile exists.
struct Holder
{
    std::unique_ptr<Process> process = std::make_unique<Process>();
    long long pid = -1;

    void start(const std::string& inProgram, const std::vector<std::string>& inArgs, const std::string& inCwd,
               const std::string& inReadyFile = std::string())
    {
        ProcessStart s;
        s.program = inProgram;
        s.arguments = inArgs;
        s.workingDirectory = inCwd;
        s.detached = false;
        ASSERT_TRUE(process->start(s, false).isOk());
        pid = process->processId();
        while (!inReadyFile.empty() && !exists(inReadyFile))
            usleep(5000);
    }
    ~Holder()
    {
        if (pid > 0)
        {
            kill(static_cast<pid_t>(pid), SIGKILL);
            int code = 0;
            process->waitForExit(code);
        }
    }
};

const FolderUser* find(const std::vector<FolderUser>& inUsers, long long inPid)
{
    for (const FolderUser& u : inUsers)
        if (u.pid == inPid)
            return &u;
    return nullptr;
}
}

TEST(PlatformFolderInUse, ExecutableWorkingDirectoryAndMappedFileEachBlock)
{
    const std::string root = scratch();
    const std::string app = root + "/app";
    const std::string other = root + "/app2";  // shares the beginning of the name only
    mkdir(app.c_str(), 0755);
    mkdir((app + "/bin").c_str(), 0755);
    mkdir(other.c_str(), 0755);
    std::ofstream(app + "/data.bin") << std::string(8192, 'd');

    Holder byCwd, byExe, byMap, elsewhere;
    byCwd.start("/bin/sleep", {"60"}, app + "/bin");
    ASSERT_EQ(0, system(("cp /bin/sleep '" + app + "/bin/ksclient'").c_str()));
    byExe.start(app + "/bin/ksclient", {"60"}, root);
    byMap.start("/usr/bin/python3",
                {"-c",
                 "import mmap,sys,time\n"
                 "f=open(sys.argv[1],'rb'); m=mmap.mmap(f.fileno(),0,access=mmap.ACCESS_READ)\n"
                 "open(sys.argv[2],'w').close(); time.sleep(60)",
                 app + "/data.bin", root + "/mapped"},
                "/", root + "/mapped");
    elsewhere.start("/bin/sleep", {"60"}, other);

    std::vector<FolderUser> users;
    ASSERT_TRUE(FolderInUse::list(app, users).isOk());
    ASSERT_NE(nullptr, find(users, byCwd.pid));
    EXPECT_EQ("sleep", find(users, byCwd.pid)->name);
    EXPECT_EQ("working directory " + app + "/bin", find(users, byCwd.pid)->reason);
    ASSERT_NE(nullptr, find(users, byExe.pid));
    EXPECT_EQ("ksclient", find(users, byExe.pid)->name);
    EXPECT_EQ("executable " + app + "/bin/ksclient", find(users, byExe.pid)->reason);
    ASSERT_NE(nullptr, find(users, byMap.pid));
    EXPECT_EQ("mapped file " + app + "/data.bin", find(users, byMap.pid)->reason);
    EXPECT_EQ(nullptr, find(users, elsewhere.pid)) << "app2 is not inside app";
    EXPECT_EQ(3u, users.size());

    // Once they have ended, nothing holds the folder; the caller's own working directory there
    // does not count.
    for (Holder* h : {&byCwd, &byExe, &byMap})
    {
        kill(static_cast<pid_t>(h->pid), SIGKILL);
        int code = 0;
        h->process->waitForExit(code);
        h->pid = -1;
    }
    char here[4096];
    ASSERT_NE(nullptr, getcwd(here, sizeof(here)));
    ASSERT_EQ(0, chdir(app.c_str()));
    const Status s = FolderInUse::list(app, users);
    ASSERT_EQ(0, chdir(here));
    ASSERT_TRUE(s.isOk());
    EXPECT_TRUE(users.empty());

    EXPECT_TRUE(FolderInUse::list(root + "/missing", users).isBad());
    // A library replaced while mapped still holds the folder it was in.
    EXPECT_TRUE(FolderInUse::pathIsInside("/opt/app/lib.so (deleted)", "/opt/app"));
}
