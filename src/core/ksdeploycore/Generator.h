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

    // Appends a value resource for each value of inKey and, with inRecursive, a key resource for
    // each subkey (with its values and subkeys in turn), each linked to its key as container.
    // inKey itself is not appended. On failure the array is left as it was.
    static McResult generateFromRegistry(const McHandle<ResourceRegistryKey>& inKey,
                                         McDArray<McHandle<Resource>>& outResources, bool inRecursive);
    // The chain of key resources for "ROOT\a\b", root first, appended to outResources; outKey is
    // the last one. Fails for an unknown root name or an empty key name, appending nothing.
    static McResult registryKeyChain(const QString& inKeyPath, McDArray<McHandle<Resource>>& outResources,
                                     McHandle<ResourceRegistryKey>& outKey);
};
}
