#pragma once
#include "QxGlobal.h"

#include <QString>

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

    // True while the file system of the open descriptor keeps the reserve free; otherwise
    // outWhy says how much is left and how much must stay.
    bool check(int inFd, QString& outWhy) const;
    // The reserve on a file system of inTotalBytes.
    long long bytesFor(long long inTotalBytes) const;
    // How many bytes may be written between two checks.
    static long long checkInterval() { return 4ll << 20; }

private:
    long long mMinBytes = 1ll << 30;
    int mPercent = 5;
};
}
