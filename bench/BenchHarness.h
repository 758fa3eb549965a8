#pragma once
// The one way every benchmark row is measured: ours and the peer take turns (A B A B, the side
// that goes first changing every round) over at least five rounds after a warm-up round, each
// run starting from the same prepared state with the page cache's writes flushed, and the
// verdict is the median of the per-round ratios, shown with their minimum and maximum.
#include <functional>
#include <string>
#include <vector>

namespace KsBench
{
// Seconds of one timed run.
using Timed = std::function<double()>;

// Times one call.
double timeOf(const std::function<void()>& inWork);
// Runs a shell command once and returns its exit status.
int run(const std::string& inCommand);
// Times a shell command as a whole process, as a user would run it; exits on a failing command.
double timeCommand(const std::string& inCommand);
// Best of inRepeats runs of the command; only for the durability figures, which take turns of
// their own. Rows use compare().
double timeCommand(const std::string& inCommand, int inRepeats);
// A Timed side that runs the shell command.
Timed command(const std::string& inCommand);
// A Timed side that calls inWork.
Timed call(const std::function<void()>& inWork);

// A scratch folder under $KSDEPLOY_BENCH_DIR or the system temp folder, removed at exit.
std::string scratchDir(const std::string& inName);
// Flushes and waits until files removed so far are older than the kernel's write-back expiry.
// ext4 without a journal passes over inodes freed more recently than that whenever it makes a
// file, at a cost that depends on the folder's block group: a row of many new files that follows
// a row which removed many would otherwise time that, differently for each side's folder.
void settleRemovedFiles();
// Writes inBytes pseudo-random (inCompressible: text-like) bytes.
void makeFile(const std::string& inPath, unsigned long long inBytes, bool inCompressible, unsigned inSeed = 1);
// True when KSDEPLOY_BENCH_QUICK is set: every program shrinks its data.
bool quick();
// An integer size from the environment variable inName, else inQuick in a quick run, else inFull.
long long sizeFromEnv(const char* inName, long long inFull, long long inQuick);
// Timed rounds per row: KSDEPLOY_BENCH_ROUNDS, never fewer than 5.
int rounds();
// True unless KSDEPLOY_BENCH_ONLY names other rows (a comma list matched as substrings).
bool wanted(const std::string& inKey);

struct Comparison
{
    std::string row;       // what is measured, with its size
    double target = 1.0;   // the highest allowed median of ours / peer
    std::string peerName;  // the peer as a user would type it
    Timed ours;
    Timed peer;
    // Untimed, before every timed run of either side (e.g. removing the last run's output);
    // a sync follows it.
    std::function<void()> prepare;
    // Untimed check after every run of ours (e.g. that every file arrived); exits when false.
    std::function<bool()> oursCheck;
};

struct Result
{
    std::string row;
    std::string peerName;
    double target = 0;
    double median = 0, min = 0, max = 0;    // of the per-round ratios (or of the values, for a limit)
    double oursMedian = 0, peerMedian = 0;  // seconds (values, for a limit)
    double oursMin = 0, oursMax = 0;
    // The same rounds' ratios of processor time (user and system, ours and any programs run):
    // less disturbed by other work on a shared machine, shown beside the verdict, not judged.
    double cpuMedian = 0, cpuMin = 0, cpuMax = 0;
    int rounds = 0;
    bool pass = false;
};

// Runs one warm-up round and rounds() timed rounds of the comparison.
Result compare(const Comparison& inComparison);
// For figures with no peer tool (a fixed limit in seconds or KiB): the median of inRounds
// measurements against inLimit; inPrepare runs untimed before each, followed by a sync.
Result limit(const std::string& inRow, double inLimit, const std::string& inUnit, const Timed& inMeasure,
             const std::function<void()>& inPrepare = {}, int inRounds = 0);
// The median of the values (the mean of the middle two for an even count).
double median(std::vector<double> inValues);

// Prints the table (row, target, median, min, max, pass/miss); with KSDEPLOY_BENCH_TABLE set,
// appends the rows to that file for scripts/bench.sh's summary. False when a row misses.
bool report(const std::vector<Result>& inResults, const std::string& inTitle);
}
