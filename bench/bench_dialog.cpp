// A product install of many small files with the progress dialog up on Xvfb against the same
// install with quiet=true (console sink, output to /dev/null), through the harness's turns.
#include "BenchHarness.h"

#include <QCoreApplication>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

namespace
{
std::string sBin;
std::string sDir;

std::string readFile(const std::string& inPath)
{
    std::ifstream in(inPath);
    std::string text;
    std::getline(in, text);
    return text;
}

// Processor seconds (user and system) of the children that ended since the last call.
double childCpuSeconds()
{
    static double sLast = 0.0;
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const double now = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    const double delta = now - sLast;
    sLast = now;
    return delta;
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int files = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_DIALOG_FILES", 10000, 1000));
    sBin = QCoreApplication::applicationDirPath().toStdString() + "/ksdeploy";
    sDir = KsBench::scratchDir("dialog");

    // A display of our own: a high number without lock or socket, used once xdpyinfo answers.
    std::string display;
    std::srand(static_cast<unsigned>(getpid()));
    for (int attempt = 0; attempt < 50 && display.empty(); ++attempt)
    {
        const std::string number = std::to_string(100 + std::rand() % 3900);
        if (KsBench::run("test ! -e /tmp/.X" + number + "-lock -a ! -e /tmp/.X11-unix/X" + number) != 0)
            continue;
        KsBench::run("Xvfb :" + number + " -screen 0 1280x1024x24 -nolisten tcp >/dev/null 2>&1 & echo $! > '" + sDir +
                     "/xvfb.pid'");
        for (int i = 0; i < 200; ++i)
        {
            if (KsBench::run("xdpyinfo -display :" + number + " >/dev/null 2>&1") == 0)
            {
                display = number;
                break;
            }
            if (KsBench::run("kill -0 $(cat '" + sDir + "/xvfb.pid') 2>/dev/null") != 0)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    if (display.empty())
    {
        std::fprintf(stderr, "Xvfb did not start\n");
        return 2;
    }
    const std::string xvfbPid = readFile(sDir + "/xvfb.pid");

    const std::string src = sDir + "/src";
    for (int i = 0; i < files; ++i)
        KsBench::makeFile(src + "/d" + std::to_string(i % 100) + "/f" + std::to_string(i) + ".txt",
                          200 + static_cast<unsigned>(i % 800), true, static_cast<unsigned>(i) + 1);
    const std::string tmp = sDir + "/tmp";
    const std::string env =
        "env -u DBUS_SESSION_BUS_ADDRESS -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM DISPLAY=:" + display +
        " XDG_RUNTIME_DIR='" + sDir + "' TMPDIR='" + tmp + "' ";
    KsBench::run("mkdir -p '" + tmp + "' && chmod 700 '" + sDir + "'");
    if (KsBench::run(env + "'" + sBin + "' --flags quiet=true --generate type=directory path='" + src +
                     "' 'name=${TARGET}' product=P --save target='" + sDir + "/p.xml' --cache action=precache dir='" +
                     src + "' > /dev/null") != 0)
        return 2;
    const std::string target = sDir + "/target";
    const std::string install =
        "--load file='" + sDir + "/p.xml' --config TARGET='" + target + "' --product action=install > /dev/null 2>&1";
    const std::string dialog = env + "'" + sBin + "' " + install;
    const std::string quiet = env + "'" + sBin + "' --flags quiet=true " + install;

    // A run only counts when every file arrived.
    const auto complete = [&] {
        const bool ok =
            KsBench::run("test \"$(find '" + target + "' -type f | wc -l)\" -eq " + std::to_string(files)) == 0;
        if (!ok)
            std::fprintf(stderr, "bench: the install did not write all %d files\n", files);
        return ok;
    };
    // Wall time is what the target is about; processor time shows the same with less noise from
    // the disk on a shared machine.
    std::vector<double> cpuDialog, cpuQuiet;
    const auto timed = [&](const std::string& inCommand, std::vector<double>& outCpu) {
        return [&, inCommand] {
            childCpuSeconds();
            const double t = KsBench::timeCommand(inCommand);
            outCpu.push_back(childCpuSeconds());
            if (!complete())
                std::exit(2);
            return t;
        };
    };
    KsBench::Comparison c;
    c.row = "install " + std::to_string(files) + " files, dialog on Xvfb";
    c.target = 1.15;
    c.peerName = "the same install, quiet=true";
    c.prepare = [&] { KsBench::run("rm -rf '" + target + "'"); };
    c.ours = timed(dialog, cpuDialog);
    c.peer = timed(quiet, cpuQuiet);
    const KsBench::Result result = KsBench::compare(c);
    KsBench::run("kill " + xvfbPid + " 2>/dev/null");

    // The warm-up round's figures are left out, as in the wall-time ratios.
    std::vector<double> cpuRatios;
    for (size_t i = 1; i < cpuDialog.size() && i < cpuQuiet.size(); ++i)
        cpuRatios.push_back(cpuDialog[i] / cpuQuiet[i]);
    std::printf("processor-time ratio of the same rounds: median %.3f  min %.3f  max %.3f\n",
                KsBench::median(cpuRatios), *std::min_element(cpuRatios.begin(), cpuRatios.end()),
                *std::max_element(cpuRatios.begin(), cpuRatios.end()));
    return KsBench::report({result}, "progress dialog") ? 0 : 1;
}
