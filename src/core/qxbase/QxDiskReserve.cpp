#include "QxDiskReserve.h"

#include <algorithm>
#include <sys/statvfs.h>

using namespace QxBase;

long long DiskReserve::bytesFor(long long inTotalBytes) const
{
    return std::max(mMinBytes, inTotalBytes / 100 * mPercent);
}

bool DiskReserve::check(int inFd, QString& outWhy) const
{
    struct statvfs st;
    if (::fstatvfs(inFd, &st) != 0)
    {
        // A file system that cannot tell its free space is not refused for it.
        return true;
    }
    const long long unit = static_cast<long long>(st.f_frsize ? st.f_frsize : st.f_bsize);
    const long long total = static_cast<long long>(st.f_blocks) * unit;
    const long long free = static_cast<long long>(st.f_bavail) * unit;
    const long long reserve = bytesFor(total);
    if (free >= reserve)
        return true;
    outWhy = QStringLiteral("No space left on device (%1 MiB free, %2 MiB must stay free)")
                 .arg(free >> 20)
                 .arg(reserve >> 20);
    return false;
}

bool DiskReserve::checkBefore(int inFd, long long inBytes, QString& outWhy) const
{
    const long long before = mUnchecked.load(std::memory_order_relaxed);
    if (before >= 0 && before + inBytes < checkInterval())
    {
        mUnchecked.fetch_add(inBytes, std::memory_order_relaxed);
        return true;
    }
    if (!check(inFd, outWhy))
    {
        mUnchecked.store(-1, std::memory_order_relaxed);
        return false;
    }
    mUnchecked.store(inBytes, std::memory_order_relaxed);
    return true;
}
