#pragma once
#include "FileWriter.h"

#include "QxFileCreateQueue.h"

namespace KsDeploy
{
// New files are created by worker threads (QxBase::FileCreateQueue) while this thread goes on;
// a file they could not simply create is installed here again, the usual way, which also says
// why it failed. Everything else waits until the files before it are written.
class FileWriterThreaded : public FileWriter
{
public:
    explicit FileWriterThreaded(int inWorkers);
    McResult install(Resource& inResource) override;
    McResult finish() override;

private:
    // Takes finished files back, waiting while more than inKeep are outstanding: a bounded
    // backlog keeps memory small and brings a failure to light soon.
    McResult written(size_t inKeep);

    QxBase::FileCreateQueue mQueue;
};
}
