// The sample client: says how it was started (its version, arguments, working folder and the
// environment entries meant for it) and then ends, or stays up for a while.
//
//   KSCLIENT_REPORT        file the report is written to (standard output when unset)
//   KSCLIENT_STAY_SECONDS  how long to stay up after the report (default 0)
//
// A build that must fail its start ships "ksclient.exitstatus" beside the program: the client
// then ends with that status right after its report.
//
// The version comes from "ksclient.version" beside the program, the way a build stamps it.
// Entries of the environment whose names start with "KSCLIENT_" are reported.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

extern char** environ;

namespace
{
std::string programFolder()
{
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0)
        return ".";
    std::string path(buffer, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::string version()
{
    std::ifstream in(programFolder() + "/ksclient.version");
    std::string line;
    if (!std::getline(in, line) || line.empty())
        return "unknown";
    return line;
}
}

int main(int argc, char** argv)
{
    std::ostringstream report;
    report << "version=" << version() << "\n";
    char cwd[4096];
    report << "cwd=" << (getcwd(cwd, sizeof cwd) ? cwd : "?") << "\n";
    for (int i = 1; i < argc; ++i)
        report << "arg=" << argv[i] << "\n";
    for (char** entry = environ; *entry; ++entry)
        if (std::strncmp(*entry, "KSCLIENT_", 9) == 0)
            report << "env=" << *entry << "\n";

    const char* target = std::getenv("KSCLIENT_REPORT");
    if (target && *target)
    {
        // Written under another name first, so that whoever waits for the file sees all of it.
        const std::string partial = std::string(target) + ".part";
        {
            std::ofstream out(partial, std::ios::binary | std::ios::trunc);
            out << report.str();
            if (!out.flush())
            {
                std::fprintf(stderr, "ksclient.exe: cannot write %s: %s\n", partial.c_str(), std::strerror(errno));
                return 1;
            }
        }
        if (std::rename(partial.c_str(), target) != 0)
        {
            std::fprintf(stderr, "ksclient.exe: cannot write %s: %s\n", target, std::strerror(errno));
            return 1;
        }
    }
    else
        std::cout << report.str() << std::flush;

    std::ifstream failing(programFolder() + "/ksclient.exitstatus");
    int status = 0;
    if (failing >> status && status != 0)
        return status;

    const char* stay = std::getenv("KSCLIENT_STAY_SECONDS");
    if (stay && *stay)
        std::this_thread::sleep_for(std::chrono::seconds(std::atoi(stay)));
    return 0;
}
