// A product install of many small files with the progress dialog up on Xvfb against the same
// install with quiet=true (console sink, output to /dev/null). The two alternate, A B A B, and
// the figure is the median of the per-round ratios; min and max show the spread.
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

double median(std::vector<double> inValues)
{
    std::sort(inValues.begin(), inValues.end());
    const size_t n = inValues.size();
    return n % 2 ? inValues[n / 2] : (inValues[n / 2 - 1] + inValues[n / 2]) / 2.0;
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    // Scale 1 = 10,000 files; rounds at least 5.
    const double scale = argc > 1 ? std::atof(argv[1]) : 1.0;
    const int rounds = std::max(5, argc > 2 ? std::atoi(argv[2]) : 5);
    const int files = static_cast<int>(10000 * scale);
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
    const std::string env = "env -u DBUS_SESSION_BUS_ADDRESS -u WAYLAND_DISPLAY -u QT_QPA_PLATFORM DISPLAY=:" +
                            display + " XDG_RUNTIME_DIR='" + sDir + "' TMPDIR='" + tmp + "' ";
    KsBench::run("mkdir -p '" + tmp + "' && chmod 700 '" + sDir + "'");
    if (KsBench::run(env + "'" + sBin + "' --flags quiet=true --generate type=directory path='" + src +
                     "' 'name=${TARGET}' product=P --save target='" + sDir + "/p.xml' --cache action=precache dir='" +
                     src + "' > /dev/null") != 0)
        return 2;
    const std::string target = sDir + "/target";
    const std::string install = "--load file='" + sDir + "/p.xml' --config TARGET='" + target +
                                "' --product action=install > /dev/null 2>&1";
    const std::string dialog = env + "'" + sBin + "' " + install;
    const std::string quiet = env + "'" + sBin + "' --flags quiet=true " + install;

    // A round only counts when every file arrived.
    const auto complete = [&] {
        const bool ok = KsBench::run("test \"$(find '" + target + "' -type f | wc -l)\" -eq " + std::to_string(files)) == 0;
        if (!ok)
            std::fprintf(stderr, "bench: the install did not write all %d files\n", files);
        return ok;
    };
    std::vector<double> ratios;
    std::vector<double> timesDialog;
    std::vector<double> timesQuiet;
    // Wall time is what the target is about; processor time shows the same with less noise from
    // the disk on a shared machine.
    std::vector<double> cpuRatios;
    for (int round = 0; round < rounds; ++round)
    {
        KsBench::run("rm -rf '" + target + "'; sync");
        childCpuSeconds();
        const double a = KsBench::timeCommand(dialog, 1);
        const double cpuA = childCpuSeconds();
        if (!complete())
            return 2;
        KsBench::run("rm -rf '" + target + "'; sync");
        childCpuSeconds();
        const double b = KsBench::timeCommand(quiet, 1);
        const double cpuB = childCpuSeconds();
        if (!complete())
            return 2;
        timesDialog.push_back(a);
        timesQuiet.push_back(b);
        ratios.push_back(a / b);
        cpuRatios.push_back(cpuA / cpuB);
        std::printf("round %d: dialog %.3f s (cpu %.3f s), quiet %.3f s (cpu %.3f s), ratio %.3f (cpu %.3f)\n",
                    round + 1, a, cpuA, b, cpuB, a / b, cpuA / cpuB);
        std::fflush(stdout);
    }
    KsBench::run("kill " + xvfbPid + " 2>/dev/null");

    const double ratio = median(ratios);
    const double limit = 1.15;
    std::printf("install %d files, dialog on Xvfb vs quiet=true, %d rounds\n", files, rounds);
    std::printf("  median dialog %.3f s, median quiet %.3f s\n", median(timesDialog), median(timesQuiet));
    std::printf("  ratio median %.3f  min %.3f  max %.3f  limit %.2f  %s\n", ratio,
                *std::min_element(ratios.begin(), ratios.end()), *std::max_element(ratios.begin(), ratios.end()),
                limit, ratio <= limit ? "PASS" : "MISS");
    std::printf("  processor-time ratio median %.3f  min %.3f  max %.3f\n", median(cpuRatios),
                *std::min_element(cpuRatios.begin(), cpuRatios.end()),
                *std::max_element(cpuRatios.begin(), cpuRatios.end()));
    return ratio <= limit ? 0 : 1;
}
