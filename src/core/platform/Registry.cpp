#include "Registry.h"

namespace
{
const char* const sRootNames[] = {"HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG", "HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE",
                                  "HKEY_USERS"};
}

bool KsPlatform::registryRootFromName(const std::string& inName, RegistryRoot& outRoot)
{
    for (int i = 0; i < 5; ++i)
    {
        if (inName == sRootNames[i])
        {
            outRoot = static_cast<RegistryRoot>(i);
            return true;
        }
    }
    return false;
}

const char* KsPlatform::registryRootName(RegistryRoot inRoot)
{
    const int i = static_cast<int>(inRoot);
    return (i >= 0 && i < 5) ? sRootNames[i] : "";
}

bool KsPlatform::registrySplitPath(const std::string& inFullPath, RegistryRoot& outRoot, std::string& outPath)
{
    const size_t sep = inFullPath.find('\\');
    if (!registryRootFromName(inFullPath.substr(0, sep), outRoot))
        return false;
    outPath = sep == std::string::npos ? std::string() : inFullPath.substr(sep + 1);
    return true;
}
