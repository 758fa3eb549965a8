#include "FileWriter.h"

#include "FileWriterDirect.h"
#include "FileWriterThreaded.h"

#include <algorithm>
#include <thread>

using namespace KsDeploy;

FileWriter::~FileWriter() = default;

std::unique_ptr<FileWriter> FileWriter::create(size_t inResourceCount, bool inRollbackMode)
{
    // Threads pay off only for many files; a few go faster without them.
    if (inRollbackMode || inResourceCount <= 64)
        return std::unique_ptr<FileWriter>(new FileWriterDirect);
    const int workers = static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
    return std::unique_ptr<FileWriter>(new FileWriterThreaded(workers));
}
