#pragma once
#include "KsGlobal.h"

#include <memory>

namespace KsDeploy
{
class Resource;

// Installs the resources of one install in the order the walk gives them. Which way is chosen
// once for the operation (create): the new files of a big product are written by worker threads
// (FileWriterThreaded), everything else right here (FileWriterDirect).
class FileWriter
{
public:
    virtual ~FileWriter();
    // Installs one resource, or hands its file to the workers; the results of files handed over
    // before may come back here.
    virtual McResult install(Resource& inResource) = 0;
    // Waits for every file handed over and gives their results: called before anything is
    // committed or rolled back.
    virtual McResult finish() = 0;

    // The writer for an install of inResourceCount resources. A rollback writes on this thread
    // only, resource by resource, so that it puts back as much as it can.
    static std::unique_ptr<FileWriter> create(size_t inResourceCount, bool inRollbackMode);
};
}
