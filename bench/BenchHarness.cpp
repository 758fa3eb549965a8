#include "BenchHarness.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace KsBench
{
double timeBest(const std::function<void()>& inWork, int inRepeats)
{
    double best = 1e30;
    for (int i = 0; i < inRepeats; ++i)
    {
        const auto t0 = std::chrono::steady_clock::now();
        inWork();
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        if (s < best)
            best = s;
    }
    return best;
}

int run(const std::string& inCommand)
{
    const int rc = std::system(inCommand.c_str());
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : 255;
}

double timeCommand(const std::string& inCommand, int inRepeats)
{
    return timeBest(
        [&] {
            if (run(inCommand) != 0)
            {
                std::fprintf(stderr, "bench: command failed: %s\n", inCommand.c_str());
                std::exit(2);
            }
        },
        inRepeats);
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
}

std::string scratchDir(const std::string& inName)
{
    const char* base = std::getenv("KSDEPLOY_BENCH_DIR");
    std::string root = base && *base ? base : std::filesystem::temp_directory_path().string();
    const std::string dir = root + "/ksdeploy-bench-" + inName;
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    if (sScratch.empty())
        std::atexit(&removeScratch);
    sScratch.push_back(dir);
    return dir;
}

void makeFile(const std::string& inPath, unsigned long long inBytes, bool inCompressible, unsigned inSeed)
{
    std::filesystem::create_directories(std::filesystem::path(inPath).parent_path());
    std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
    std::mt19937_64 rng(inSeed);
    static const char* const sWords[] = {"deploy ", "resource ", "cache ", "product ", "install ", "verify ",
                                         "directory ", "entry ", "link ", "\n", "0123 ", "digest "};
    std::string block;
    block.reserve(1 << 20);
    while (inBytes > 0)
    {
        block.clear();
        while (block.size() < (1u << 20))
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

bool report(const std::vector<Row>& inRows, const std::string& inTitle)
{
    bool ok = true;
    std::printf("\n== %s\n", inTitle.c_str());
    std::printf("%-58s %10s %10s %-30s %7s %7s\n", "measurement", "ours [s]", "peer [s]", "peer", "ratio", "limit");
    for (const Row& r : inRows)
    {
        const double ratio = r.peer > 0 ? r.ours / r.peer : 0.0;
        const bool pass = ratio <= r.limit;
        ok = ok && pass;
        std::printf("%-58s %10.3f %10.3f %-30s %7.3f %7.2f %s\n", r.what.c_str(), r.ours, r.peer, r.peerName.c_str(),
                    ratio, r.limit, pass ? "PASS" : "MISS");
    }
    std::fflush(stdout);
    return ok;
}
}
