#include "FileWriterThreaded.h"

#include "Common.h"
#include "ResourceFileDirectory.h"
#include "ResourceFileEntry.h"

using namespace KsDeploy;

FileWriterThreaded::FileWriterThreaded(int inWorkers) : mQueue(inWorkers) {}

McResult FileWriterThreaded::install(Resource& inResource)
{
    QString item, target;
    ResourceFileEntry* entry = dynamic_cast<ResourceFileEntry*>(&inResource);
    if (entry && entry->installPlan(item, target))
    {
        // A file this run has hashed (it was there when the change began) is most likely in
        // place already, which this thread sees at one look; the workers are for files to
        // create. A file depends on nothing before it but its folder, made on this thread.
        if (scanFileSeen(target))
        {
            McResult res = entry->install();
            if (res.isOk())
                res << written(512);
            return res;
        }
        mQueue.add(item, target, entry);
        return written(512);
    }
    // A folder does not depend on the files before it; anything else may.
    McResult res;
    if (!dynamic_cast<ResourceFileDirectory*>(&inResource))
        res << written(0);
    if (res.isOk())
        res << inResource.install();
    return res;
}

McResult FileWriterThreaded::finish() { return written(0); }

McResult FileWriterThreaded::written(size_t inKeep)
{
    McResult res;
    void* tag = nullptr;
    QString target;
    bool created = false;
    QxBase::FileStamp stamp;
    // Past the bound the backlog is taken down to half of it, so that this thread sleeps once per
    // many files rather than once per file.
    const size_t keep = mQueue.backlog() > inKeep ? inKeep / 2 : inKeep;
    while (res.isOk() && mQueue.next(mQueue.backlog() > keep, tag, target, created, stamp))
    {
        ResourceFileEntry* entry = static_cast<ResourceFileEntry*>(tag);
        if (created)
            entry->installCreated(target, stamp);
        else
            res << entry->install();
    }
    return res;
}
