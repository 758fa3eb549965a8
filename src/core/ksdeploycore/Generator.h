#pragma once
#include "KsGlobal.h"

#include <QString>
#include <QStringList>

namespace KsDeploy
{
class Resource;
class ResourceFileDirectory;
class ResourceRegistryKey;

// Builds resource graphs from what is on the machine.
class Generator
{
public:
    // Appends a directory resource for inDirPath (handed back in outDirectory) and a file
    // entry for each file matching inFilters; with inRecursive also the sub-directories.
    // inExcludes: name patterns of files and folders left out entirely.
    static McResult generateFromDirectory(McHandle<ResourceFileDirectory>& outDirectory,
                                          McDArray<McHandle<Resource>>& outResources, const QString& inDirPath,
                                          bool inRecursive, const QStringList& inFilters,
                                          const QStringList& inExcludes);
};
}
