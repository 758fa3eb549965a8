#pragma once
#include "QxGlobal.h"

#include <QString>

#include <atomic>

namespace QxBase
{
// The free space a writer must leave on a file system: the larger of a fixed amount and a share
// of the file system's size. A download or a decoder that never ends would otherwise fill the
// disk; asking now and then (not per byte) is enough, since the reserve is large.
class DiskReserve
{
public:
    DiskReserve() = default;
    DiskReserve(long long inMinBytes, int inPercent) : mMinBytes(inMinBytes), mPercent(inPercent) {}
    DiskReserve(const DiskReserve&) = delete;
    DiskReserve& operator=(const DiskReserve&) = delete;

    // True while the file system of the open descriptor keeps the reserve free; otherwise
    // outWhy says how much is left and how much must stay.
    bool check(int inFd, QString& outWhy) const;
    // The reserve on a file system of inTotalBytes.
    long long bytesFor(long long inTotalBytes) const;
    // How many bytes may be written between two checks.
    static long long checkInterval() { return 4ll << 20; }
    // Before inBytes are written to inFd: checks as check() does, but only once checkInterval()
    // bytes have gone through this reserve since its last good check, counted over all writers
    // (a cache of many small items is not asked about for each one). Until a check has passed,
    // every call checks.
    bool checkBefore(int inFd, long long inBytes, QString& outWhy) const;

private:
    long long mMinBytes = 1ll << 30;
    int mPercent = 5;
    // Bytes written since the last good check; -1 until one passed (or after a failed one).
    mutable std::atomic<long long> mUnchecked{-1};
};
}
