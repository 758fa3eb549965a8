#pragma once
// Runs a measurement of ours and of a peer tool on the same data in the same run, and prints
// both figures and the ratio.
#include <functional>
#include <string>
#include <vector>

namespace KsBench
{
// Wall-clock seconds of one call (best of inRepeats).
double timeBest(const std::function<void()>& inWork, int inRepeats = 3);
// Wall-clock seconds of a shell command (best of inRepeats); exits on a failing command.
double timeCommand(const std::string& inCommand, int inRepeats = 3);
// Runs a shell command once and returns its exit status.
int run(const std::string& inCommand);
// A scratch folder under $KSDEPLOY_BENCH_DIR or the system temp folder, removed at exit.
std::string scratchDir(const std::string& inName);
// Writes inBytes pseudo-random (inCompressible: text-like) bytes.
void makeFile(const std::string& inPath, unsigned long long inBytes, bool inCompressible, unsigned inSeed = 1);

struct Row
{
    std::string what;
    double ours;          // seconds
    double peer;          // seconds
    std::string peerName;
    double limit;         // the allowed ratio ours/peer
};

// Prints "what  ours  peer  ratio  limit  PASS/MISS"; returns false when a ratio misses its limit.
bool report(const std::vector<Row>& inRows, const std::string& inTitle);
}
