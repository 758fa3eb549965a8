#include "BenchHarness.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace KsBench
{
double timeOf(const std::function<void()>& inWork)
{
    const auto t0 = std::chrono::steady_clock::now();
    inWork();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

int run(const std::string& inCommand)
{
    std::fflush(stdout);
    const int rc = std::system(inCommand.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 255;
}

double timeCommand(const std::string& inCommand)
{
    return timeOf([&] {
        if (run(inCommand) != 0)
        {
            std::fprintf(stderr, "bench: command failed: %s\n", inCommand.c_str());
            std::exit(2);
        }
    });
}

double timeCommand(const std::string& inCommand, int inRepeats)
{
    double best = 1e30;
    for (int i = 0; i < inRepeats; ++i)
        best = std::min(best, timeCommand(inCommand));
    return best;
}

Timed command(const std::string& inCommand)
{
    return [inCommand] { return timeCommand(inCommand); };
}

Timed call(const std::function<void()>& inWork)
{
    return [inWork] { return timeOf(inWork); };
}

namespace
{
std::vector<std::string> sScratch;
void removeScratch()
{
    for (const auto& d : sScratch)
    {
        std::error_code ec;
        std::filesystem::remove_all(d, ec);
    }
}

// Processor seconds used so far by this process and its waited-for children.
double cpuSeconds()
{
    double total = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN})
    {
        rusage u{};
        getrusage(who, &u);
        total += static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
                 static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
    }
    return total;
}

// Both sides start with the other's writes on disk, not in the page cache's write-back queue.
void settle(const std::function<void()>& inPrepare)
{
    if (inPrepare)
        inPrepare();
    ::sync();
}
}

std::string scratchDir(const std::string& inName)
{
    const char* base = std::getenv("KSDEPLOY_BENCH_DIR");
    std::string root = base && *base ? base : std::filesystem::temp_directory_path().string();
    const std::string dir = root + "/ksdeploy-bench-" + inName;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    // Kept on request, so that a step can be run again by hand (under a profiler, say).
    const char* keep = std::getenv("KSDEPLOY_BENCH_KEEP");
    if (sScratch.empty() && !(keep && *keep == '1'))
        std::atexit(&removeScratch);
    sScratch.push_back(dir);
    return dir;
}

void settleRemovedFiles()
{
    ::sync();
    long centiseconds = 3000;
    if (FILE* f = std::fopen("/proc/sys/vm/dirty_expire_centisecs", "r"))
    {
        if (std::fscanf(f, "%ld", &centiseconds) != 1)
            centiseconds = 3000;
        std::fclose(f);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(centiseconds * 10 + 2000));
}

void makeFile(const std::string& inPath, unsigned long long inBytes, bool inCompressible, unsigned inSeed)
{
    std::filesystem::create_directories(std::filesystem::path(inPath).parent_path());
    std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
    std::mt19937_64 rng(inSeed);
    static const char* const sWords[] = {"deploy ",    "resource ", "cache ", "product ", "install ", "verify ",
                                         "directory ", "entry ",    "link ",  "\n",       "0123 ",    "digest "};
    std::string block;
    const size_t blockLen = static_cast<size_t>(std::min<unsigned long long>(inBytes, 1u << 20));
    block.reserve(blockLen + 16);
    while (inBytes > 0)
    {
        block.clear();
        while (block.size() < blockLen)
        {
            if (inCompressible)
                block += sWords[rng() % 12];
            else
            {
                const uint64_t v = rng();
                block.append(reinterpret_cast<const char*>(&v), 8);
            }
        }
        const size_t n = static_cast<size_t>(std::min<unsigned long long>(inBytes, block.size()));
        out.write(block.data(), static_cast<std::streamsize>(n));
        inBytes -= n;
    }
}

bool quick()
{
    const char* v = std::getenv("KSDEPLOY_BENCH_QUICK");
    return v && *v && std::strcmp(v, "0") != 0;
}

long long sizeFromEnv(const char* inName, long long inFull, long long inQuick)
{
    const char* v = std::getenv(inName);
    if (v && *v)
        return std::atoll(v);
    return quick() ? inQuick : inFull;
}

int rounds()
{
    const char* v = std::getenv("KSDEPLOY_BENCH_ROUNDS");
    return std::max(5, v ? std::atoi(v) : 5);
}

bool wanted(const std::string& inKey)
{
    const char* only = std::getenv("KSDEPLOY_BENCH_ONLY");
    if (!only || !*only)
        return true;
    const std::string list = only;
    size_t start = 0;
    while (start <= list.size())
    {
        const size_t comma = list.find(',', start);
        const std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!item.empty() && inKey.find(item) != std::string::npos)
            return true;
        if (comma == std::string::npos)
            break;
        start = comma + 1;
    }
    return false;
}

double median(std::vector<double> inValues)
{
    if (inValues.empty())
        return 0.0;
    std::sort(inValues.begin(), inValues.end());
    const size_t n = inValues.size();
    return n % 2 ? inValues[n / 2] : (inValues[n / 2 - 1] + inValues[n / 2]) / 2.0;
}

Result compare(const Comparison& inComparison)
{
    const Comparison& c = inComparison;
    const int count = rounds();
    std::vector<double> ratios, ours, peers, cpuRatios;
    // Round 0 warms both sides up (page cache, servers, first-touch costs) and is not counted.
    for (int round = 0; round <= count; ++round)
    {
        double a = 0, b = 0, cpuA = 0, cpuB = 0;
        const auto runOurs = [&] {
            settle(c.prepare);
            const double cpu = cpuSeconds();
            a = c.ours();
            cpuA = cpuSeconds() - cpu;
            if (c.oursCheck && !c.oursCheck())
            {
                std::fprintf(stderr, "bench: %s: our run did not do its work\n", c.row.c_str());
                std::exit(2);
            }
        };
        const auto runPeer = [&] {
            settle(c.prepare);
            const double cpu = cpuSeconds();
            b = c.peer();
            cpuB = cpuSeconds() - cpu;
        };
        if (round % 2 == 0)
            runOurs(), runPeer();
        else
            runPeer(), runOurs();
        if (round == 0)
            continue;
        ours.push_back(a);
        peers.push_back(b);
        ratios.push_back(b > 0 ? a / b : 0.0);
        cpuRatios.push_back(cpuB > 0 ? cpuA / cpuB : 0.0);
        std::fprintf(stderr, "  %s, round %d/%d: ours %.3f s, %s %.3f s, ratio %.3f (processor time %.3f s / %.3f s)\n",
                     c.row.c_str(), round, count, a, c.peerName.c_str(), b, ratios.back(), cpuA, cpuB);
    }
    settle(c.prepare);
    Result r;
    r.row = c.row;
    r.peerName = c.peerName;
    r.target = c.target;
    r.median = median(ratios);
    r.min = *std::min_element(ratios.begin(), ratios.end());
    r.max = *std::max_element(ratios.begin(), ratios.end());
    r.oursMedian = median(ours);
    r.oursMin = *std::min_element(ours.begin(), ours.end());
    r.oursMax = *std::max_element(ours.begin(), ours.end());
    r.peerMedian = median(peers);
    r.cpuMedian = median(cpuRatios);
    r.cpuMin = *std::min_element(cpuRatios.begin(), cpuRatios.end());
    r.cpuMax = *std::max_element(cpuRatios.begin(), cpuRatios.end());
    r.rounds = count;
    r.pass = r.median <= r.target;
    return r;
}

Result limit(const std::string& inRow, double inLimit, const std::string& inUnit, const Timed& inMeasure,
             const std::function<void()>& inPrepare, int inRounds)
{
    const int count = inRounds > 0 ? inRounds : rounds();
    std::vector<double> values;
    for (int round = 0; round < count; ++round)
    {
        settle(inPrepare);
        values.push_back(inMeasure());
        std::fprintf(stderr, "  %s, round %d/%d: %.3f %s\n", inRow.c_str(), round + 1, count, values.back(),
                     inUnit.c_str());
    }
    Result r;
    r.row = inRow;
    r.peerName = "limit (" + inUnit + ")";
    r.target = inLimit;
    r.median = median(values);
    r.min = *std::min_element(values.begin(), values.end());
    r.max = *std::max_element(values.begin(), values.end());
    r.oursMedian = r.median;
    r.oursMin = r.min;
    r.oursMax = r.max;
    r.peerMedian = inLimit;
    r.rounds = count;
    r.pass = r.median <= inLimit;
    return r;
}

bool report(const std::vector<Result>& inResults, const std::string& inTitle)
{
    bool ok = true;
    std::printf("\n== %s\n", inTitle.c_str());
    std::printf("%-52s %8s %8s %8s %8s  %-4s  %10s %10s  %-22s  %s\n", "row", "target", "median", "min", "max", "",
                "ours", "peer", "cpu median (min-max)", "peer (medians of the rounds)");
    const char* table = std::getenv("KSDEPLOY_BENCH_TABLE");
    FILE* out = table && *table ? std::fopen(table, "a") : nullptr;
    for (const Result& r : inResults)
    {
        ok = ok && r.pass;
        const char* verdict = r.pass ? "pass" : "MISS";
        char cpu[64] = "-";
        if (r.cpuMedian > 0)
            std::snprintf(cpu, sizeof cpu, "%.3f (%.3f-%.3f)", r.cpuMedian, r.cpuMin, r.cpuMax);
        std::printf("%-52s %8.2f %8.3f %8.3f %8.3f  %-4s  %10.3f %10.3f  %-22s  %s\n", r.row.c_str(), r.target,
                    r.median, r.min, r.max, verdict, r.oursMedian, r.peerMedian, cpu, r.peerName.c_str());
        if (out)
            std::fprintf(out, "%s\t%.2f\t%.3f\t%.3f\t%.3f\t%s\t%.3f\t%.3f\t%s\t%d\t%s\n", r.row.c_str(), r.target,
                         r.median, r.min, r.max, verdict, r.oursMedian, r.peerMedian, r.peerName.c_str(), r.rounds,
                         cpu);
    }
    if (out)
        std::fclose(out);
    std::fflush(stdout);
    return ok;
}
}
