#pragma once
// Making written data survive a power loss, in the few steps a transaction needs. Qt-free.
#include "PlatformStatus.h"

#include <string>

namespace KsPlatform
{
// Flushes one file's data and metadata to its device (a folder too: that makes the names
// created or removed in it durable).
Status fileFlush(const std::string& inPath);
// Flushes everything written to the file system that holds inPath, in one call: far cheaper
// than a flush per file when a transaction wrote thousands of them.
Status fileSystemFlush(const std::string& inPath);
// The identity of the file system holding inPath (false when it cannot be looked at), so that
// each one is flushed once.
bool fileSystemId(const std::string& inPath, unsigned long long& outId);
}
