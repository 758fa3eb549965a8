// The client update end to end against what a user would do by hand, same data, same run:
//   the update of an installed client (1 GiB in a few hundred files of mixed sizes) to a version
//   in which 1% of the files changed, by the real ksdeploy from nginx
//     vs  cp -r of the application folder followed by curl fetching the changed items
//   the bytes nginx sent during our update / the size of the changed items (a limit)
// The client started after the exchange is the sample client, which exits at once; the start
// watch is set short through its launch value, so its waiting is not what is measured.
// Sizes: KSDEPLOY_BENCH_UPDATE_MIB and KSDEPLOY_BENCH_UPDATE_FILES (KSDEPLOY_BENCH_QUICK=1 shrinks both).
#include "BenchHarness.h"
#include "BenchNginx.h"

#include <QCoreApplication>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{
// Runs as "bench_client_update --reap COMMAND": runs the shell command and then waits for every
// process it left behind. The update's engine hands over to a copy of itself that outlives the
// command; as the subreaper this process waits for it too, and its processor time is counted.
const char* const sReapFlag = "--reap";

int reapMain(const char* inCommand)
{
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    const int rc = std::system(inCommand);
    while (::wait(nullptr) > 0 || errno == EINTR)
        ;
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 255;
}

std::string sSelf;
// The output of the last ksdeploy run, shown when a step fails.
std::string sLog;

std::string readText(const std::string& inPath)
{
    std::ifstream in(inPath, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string q(const std::string& inText)
{
    std::string out = "'";
    for (const char c : inText)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// A timed side: the command and whatever it leaves running, as one whole.
double timeReaped(const std::string& inCommand)
{
    return KsBench::timeCommand(q(sSelf) + " " + sReapFlag + " " + q(inCommand));
}

void fail(const std::string& inWhat)
{
    std::fprintf(stderr, "bench_client_update: %s\n", inWhat.c_str());
    std::exit(2);
}

void mustRun(const std::string& inCommand, const std::string& inWhat)
{
    if (KsBench::run(inCommand) != 0)
        fail(inWhat + " failed: " + inCommand + "\n" + readText(sLog));
}

std::string md5Of(const std::string& inPath)
{
    FILE* p = ::popen(("md5sum " + q(inPath)).c_str(), "r");
    char buffer[64] = {};
    const bool ok = p && std::fread(buffer, 1, 32, p) == 32;
    if (p)
        ::pclose(p);
    if (!ok)
        fail("cannot digest " + inPath);
    return std::string(buffer, 32);
}

long long fileSize(const std::string& inPath)
{
    struct stat st;
    return ::stat(inPath.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

struct DataFile
{
    std::string rel;  // below the build folder
    unsigned long long bytes = 0;
    bool text = false;
};

// inFiles files, log-uniform from 4 KiB to 64 MiB scaled to inBytes in all, every third one
// text-like, in a few folders.
std::vector<DataFile> plan(int inFiles, unsigned long long inBytes)
{
    std::mt19937_64 rng(19);
    std::vector<double> weights(static_cast<size_t>(inFiles));
    double sum = 0;
    for (double& w : weights)
    {
        w = std::exp(std::uniform_real_distribution<double>(std::log(4096.0), std::log(64.0 * 1048576))(rng));
        sum += w;
    }
    std::vector<DataFile> files;
    for (int i = 0; i < inFiles; ++i)
    {
        DataFile f;
        f.rel = "data/d" + std::to_string(i % 12) + "/f" + std::to_string(i) + ".dat";
        f.bytes = std::max<unsigned long long>(
            1, static_cast<unsigned long long>(weights[static_cast<size_t>(i)] / sum * static_cast<double>(inBytes)));
        f.text = i % 3 == 0;
        files.push_back(f);
    }
    return files;
}

// The files version 2 changes: 1% of them (at least one), each the one closest in size to its
// share of 1% of the bytes, so that count and bytes both change by about 1%.
std::vector<size_t> changedFiles(const std::vector<DataFile>& inFiles, unsigned long long inBytes)
{
    const size_t count = std::max<size_t>(1, (inFiles.size() + 50) / 100);
    const double share = static_cast<double>(inBytes) / 100.0 / static_cast<double>(count);
    std::vector<size_t> order(inFiles.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
        return std::fabs(static_cast<double>(inFiles[a].bytes) - share) <
               std::fabs(static_cast<double>(inFiles[b].bytes) - share);
    });
    order.resize(count);
    return order;
}

struct Setup
{
    std::string dir;     // the scratch folder
    std::string bin;     // ksdeploy
    std::string env;     // the environment both the set-up and our update run in
    std::string www;     // served by nginx; the client is published in www/client
    std::string target;  // the installed client is target/Kestra/Client
    std::string app;
    std::string pristine;  // what the update rewrites besides the folders, as installed
    std::string tmp;       // the user's temporary folder: the maintenance folder and its cache
    std::string copy;      // the peer's copy
    std::string report;    // the client's report of its start
    std::string log;       // our update's output
};

std::string ks(const Setup& inSetup, const std::string& inArgs)
{
    return inSetup.env + " " + q(inSetup.bin) + " --flags quiet=true " + inArgs + " > " + q(inSetup.log) + " 2>&1";
}

void publish(const Setup& inSetup, const std::string& inBuild, const std::string& inVersion)
{
    const std::string description = inSetup.www + "/client/product.xml";
    const bool first = fileSize(description) < 0;
    mustRun(ks(inSetup, "--generate type=directory path=" + q(inBuild) +
                            " --plugin name=KestraClientBuildSystem --generateProductXML name=KestraClient"
                            " 'displayname=Kestra Client' version=" +
                            inVersion + " file=" + q(description) + " updateini=true optional=false deployer=" +
                            q(inSetup.bin) + (first ? std::string() : " previous=" + q(description))),
            "publishing " + inVersion);
    // Plain items only: the row is about what is fetched, not about decoding.
    mustRun(ks(inSetup, "--cache action=precache dir=" + q(inBuild) + " targetdir=" + q(inSetup.www + "/client/items")),
            "publishing the items of " + inVersion);
}

// The body bytes of the requests nginx logged from inOffset on, and the paths it served that are
// neither the description, update.ini nor one of inAllowed.
unsigned long long bytesServed(const std::string& inLog, long long inOffset, const std::set<std::string>& inAllowed,
                               std::vector<std::string>& outOthers)
{
    std::ifstream in(inLog, std::ios::binary);
    in.seekg(inOffset);
    std::string line;
    unsigned long long total = 0;
    while (std::getline(in, line))
    {
        // connection, its requests, request line, status, body bytes; tab-separated.
        std::vector<std::string> fields;
        std::stringstream s(line);
        for (std::string f; std::getline(s, f, '\t');)
            fields.push_back(f);
        if (fields.size() != 5)
            continue;
        total += std::strtoull(fields[4].c_str(), nullptr, 10);
        const size_t a = fields[2].find(' '), b = fields[2].rfind(' ');
        const std::string path = a == std::string::npos || b <= a ? fields[2] : fields[2].substr(a + 1, b - a - 1);
        const std::string name = path.substr(path.rfind('/') + 1);
        std::string item = name;
        if (item.size() > 5 && item.compare(item.size() - 5, 5, ".lzma") == 0)
            item.resize(item.size() - 5);
        if (fields[3] == "200" && name != "product.xml" && name != "update.ini" && !inAllowed.count(item))
            outOthers.push_back(path);
    }
    return total;
}
}

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], sReapFlag) == 0)
        return reapMain(argv[2]);
    QCoreApplication application(argc, argv);
    for (const char* v : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        qunsetenv(v);
    sSelf = QCoreApplication::applicationFilePath().toStdString();
    const std::string binDir = QCoreApplication::applicationDirPath().toStdString();
    const std::string sample = binDir + "/../sample";

    const long long mib = KsBench::sizeFromEnv("KSDEPLOY_BENCH_UPDATE_MIB", 1024, 128);
    const int fileCount = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_UPDATE_FILES", 300, 60));
    const unsigned long long totalBytes = static_cast<unsigned long long>(mib) << 20;

    Setup s;
    s.dir = KsBench::scratchDir("client-update");
    s.bin = binDir + "/ksdeploy";
    s.www = s.dir + "/www";
    s.target = s.dir + "/target";
    s.app = s.target + "/Kestra/Client";
    s.pristine = s.dir + "/pristine";
    s.tmp = s.dir + "/tmp";
    s.copy = s.dir + "/copy";
    s.report = s.dir + "/client-report.txt";
    s.log = s.dir + "/ksdeploy.log";
    sLog = s.log;
    const std::string home = s.dir + "/home";
    mustRun("mkdir -p " + q(home) + " " + q(s.tmp) + " " + q(s.www + "/client/items") + " " + q(s.target) + " " +
                q(s.pristine),
            "making the folders");
    // No display: the version question takes its default answer (update) and no box is shown.
    s.env = "env -u DISPLAY -u WAYLAND_DISPLAY HOME=" + q(home) + " TMPDIR=" + q(s.tmp) +
            " KSDEPLOY_REGISTRY=" + q(s.dir + "/registry.sqlite") +
            " KSCLIENT_STAY_SECONDS=0 KSCLIENT_REPORT=" + q(s.report);

    // Version 1: the sample client and its launcher with the data; version 2 changes 1% of it.
    const std::vector<DataFile> files = plan(fileCount, totalBytes);
    const std::vector<size_t> changed = changedFiles(files, totalBytes);
    const std::string v1 = s.dir + "/build-1", v2 = s.dir + "/build-2";
    std::fprintf(stderr, "bench_client_update: making %d files, %lld MiB\n", fileCount, mib);
    mustRun("mkdir -p " + q(v1) + " && cp " + q(sample + "/ksclient.exe") + " " + q(sample + "/ksweblaunch.exe") + " " +
                q(v1) + " && echo 1.0.0.1 > " + q(v1 + "/ksclient.version"),
            "copying the sample client");
    for (size_t i = 0; i < files.size(); ++i)
        KsBench::makeFile(v1 + "/" + files[i].rel, files[i].bytes, files[i].text, static_cast<unsigned>(i + 1));
    mustRun("cp -al " + q(v1) + " " + q(v2) + " && rm " + q(v2 + "/ksclient.version") + " && echo 1.0.0.2 > " +
                q(v2 + "/ksclient.version"),
            "making version 2");
    unsigned long long changedBytes = 0;
    std::set<std::string> changedItems;
    std::vector<std::pair<std::string, std::string>> fetches;  // relative path, item
    for (const size_t i : changed)
    {
        // A hard link to version 1 until here: replaced, not written through.
        const std::string path = v2 + "/" + files[i].rel;
        ::unlink(path.c_str());
        KsBench::makeFile(path, files[i].bytes, files[i].text, static_cast<unsigned>(100000 + i));
        changedBytes += files[i].bytes;
        fetches.emplace_back(files[i].rel, md5Of(path));
    }
    {
        const std::string version = v2 + "/ksclient.version";
        changedBytes += static_cast<unsigned long long>(fileSize(version));
        fetches.emplace_back("ksclient.version", md5Of(version));
    }
    for (const auto& f : fetches)
        changedItems.insert(f.second);

    // Published and installed as the client suites do it; version 2 is published afterwards.
    publish(s, v1, "1.0.0.1");
    mustRun(ks(s, "--load file=" + q(s.www + "/client/product.xml") + " --config DIR_TARGET=" + q(s.target) +
                      " DIR_VENDOR=Kestra DIR_APPLICATION=Client --product action=resolve confkey=DIR_TARGET"
                      " confkey=DIR_VENDOR confkey=DIR_APPLICATION --product action=install url=" +
                      q("file://" + s.www + "/client/items") + " --save target=" + q(s.app + ".xml")),
            "installing version 1");
    publish(s, v2, "1.0.0.2");
    mustRun("cp " + q(s.app + ".xml") + " " + q(s.dir + "/registry.sqlite") + " " + q(s.pristine), "keeping the state");
    mustRun("rm -rf " + q(v1) + " " + q(v2 + "/data"), "clearing the builds");

    KsBench::BenchNginx nginx(s.www);
    const std::string url = nginx.url() + "/client";
    // The launch values the client's launcher hands over, the start watch set short.
    const std::string commands = s.dir + "/launch.commands";
    {
        std::ofstream out(commands);
        out << "--flags\nquiet=true\n--config\nKSC_DIR_BIN=" << s.app << "\nKSC_DIR_APP=" << s.app
            << "\nKSC_VERSION_0=1\nKSC_VERSION_1=0\nKSC_VERSION_2=0\nKSC_VERSION_3=1\nKSC_USER=bench\nKSC_PASS=\n"
               "KSC_SERVER=\nKSC_URL="
            << url << "\nKSC_LANGUAGE=\nKSC_ARG_0=" << s.app << "/ksweblaunch.exe\nKSC_DEPLOY_WATCH_MS=1000\n"
            << "--plugin\nname=KestraClient\n";
    }
    std::string peer = "cp -r " + q(s.app) + " " + q(s.copy) + " && curl -s --fail";
    for (const auto& f : fetches)
        peer += " -o " + q(s.copy + "/" + f.first) + " " + q(url + "/items/" + f.second);

    std::vector<double> byteRatios;
    KsBench::Comparison c;
    c.row = "client update " + std::to_string(fileCount) + " files, " + std::to_string(mib) + " MiB, " +
            std::to_string(fetches.size()) + " changed";
    c.target = 1.5;
    c.peerName = "cp -r + curl of the changed items";
    // The installed version 1 back, the copy and the cache gone; the page cache keeps version 1
    // warm for both sides.
    c.prepare = [&] {
        mustRun("rm -rf " + q(s.copy) + " " + q(s.app + ".staging") + " " + q(s.tmp) + " " + q(s.report) +
                    " && if [ -d " + q(s.app + ".previous") + " ]; then rm -rf " + q(s.app) + " && mv " +
                    q(s.app + ".previous") + " " + q(s.app) + "; fi && mkdir " + q(s.tmp) + " && cp " +
                    q(s.pristine + "/Client.xml") + " " + q(s.target + "/Kestra/") + " && cp " +
                    q(s.pristine + "/registry.sqlite") + " " + q(s.dir) + " && rm -f " + q(s.dir + "/registry.sqlite") +
                    "-*",
                "putting version 1 back");
    };
    std::vector<std::string> unexpected;
    bool fetchedOthers = false;
    c.ours = [&] {
        const long long offset = std::max(0LL, fileSize(nginx.accessLog()));
        const double seconds = timeReaped(s.env + " " + q(s.bin) + " --commands file=" + q(commands) +
                                          " < /dev/null > " + q(s.log) + " 2>&1");
        byteRatios.push_back(static_cast<double>(bytesServed(nginx.accessLog(), offset, changedItems, unexpected)) /
                             static_cast<double>(changedBytes));
        return seconds;
    };
    c.oursCheck = [&] {
        bool ok = readText(s.app + "/ksclient.version") == "1.0.0.2\n" &&
                  readText(s.report).find("version=1.0.0.2\n") != std::string::npos && fileSize(s.app + ".staging") < 0;
        for (size_t i = 0; ok && i < fetches.size(); ++i)
            ok = md5Of(s.app + "/" + fetches[i].first) == fetches[i].second;
        if (!ok)
            std::fprintf(stderr, "bench_client_update: the update did not complete; its output:\n%s\n",
                         readText(s.log).c_str());
        for (const std::string& path : unexpected)
            std::fprintf(stderr, "bench_client_update: fetched an unchanged item: %s\n", path.c_str());
        fetchedOthers = fetchedOthers || !unexpected.empty();
        unexpected.clear();
        return ok;
    };
    c.peer = [&] { return timeReaped(peer); };
    std::vector<KsBench::Result> rows;
    rows.push_back(KsBench::compare(c));

    // The same update when the installed version came from an update: the record of what that
    // one proved stays (its inodes are the ones version 1 has again), everything else as above.
    KsBench::Comparison after = c;
    after.row = "client update after an update, " + std::to_string(fileCount) + " files, " + std::to_string(mib) +
                " MiB, " + std::to_string(fetches.size()) + " changed";
    const std::string kept = s.dir + "/installed.digests.kept", keptAt = s.dir + "/installed.digests.at";
    after.prepare = [&] {
        mustRun("rm -f " + q(kept) + " " + q(keptAt) + " && r=$(find " + q(s.tmp) +
                    " -name installed.digests | head -n 1) && if [ -n \"$r\" ]; then cp \"$r\" " + q(kept) +
                    " && echo \"$r\" > " + q(keptAt) + "; fi",
                "keeping the update's record");
        c.prepare();
        mustRun("if [ -f " + q(keptAt) + " ]; then r=$(cat " + q(keptAt) +
                    ") && mkdir -p \"$(dirname \"$r\")\" && cp " + q(kept) + " \"$r\"; fi",
                "putting the update's record back");
    };
    rows.push_back(KsBench::compare(after));

    // Every round of ours, the warm-up too: the bytes do not depend on the machine's load.
    size_t at = 0;
    rows.push_back(KsBench::limit(
        "client update, bytes fetched / changed items' size", 1.05, "ratio", [&] { return byteRatios[at++]; }, {},
        static_cast<int>(byteRatios.size())));
    if (fetchedOthers)
        rows.back().pass = false;
    const bool ok = KsBench::report(rows, "client update (ratio = ours / peer, time; bytes fetched)");
    return ok ? 0 : 1;
}
