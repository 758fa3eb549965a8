#pragma once
// Registry access with Windows semantics, Qt-free. A build implements Registry::open: the
// native one maps it onto the system registry, the portable one keeps an SQLite store.
//
// Semantics every implementation keeps:
// - a key path is relative to one of the five roots, names separated by one backslash; the
//   empty path is the root itself;
// - key and value names compare without regard to ASCII letter case and keep the case they
//   were created with; the empty value name is the key's default value;
// - a key that still has subkeys cannot be deleted; deleting a key deletes its values;
// - a value keeps its type number and its raw bytes exactly;
// - enumeration is ordered by name, case-insensitively;
// - every change is atomic; changes between transactionBegin and transactionCommit become
//   visible together or not at all.
// Names and texts are Latin-1 byte strings. Result codes are the Windows system error
// numbers below, so that both builds report the same numbers.
#include "PlatformStatus.h"

#include <memory>
#include <string>
#include <vector>

namespace KsPlatform
{
enum RegistryCode : long
{
    RegistryOk = 0,
    RegistryNotFound = 2,           // ERROR_FILE_NOT_FOUND: a key or value does not exist
    RegistryAccessDenied = 5,       // ERROR_ACCESS_DENIED: e.g. deleting a key with subkeys
    RegistryInvalidParameter = 87,  // ERROR_INVALID_PARAMETER: a malformed path or name
    RegistryBusy = 170,             // ERROR_BUSY: another process kept the store locked
    RegistryNoTransaction = 1306,   // commit or rollback without a transaction begun
    RegistryCorrupt = 1015,         // ERROR_REGISTRY_CORRUPT: the store is damaged or foreign
    RegistryIoFailed = 1016,        // ERROR_REGISTRY_IO_FAILED: the store cannot be read or written
};

enum class RegistryRoot
{
    ClassesRoot,
    CurrentConfig,
    CurrentUser,
    LocalMachine,
    Users,
};

// "HKEY_CLASSES_ROOT", "HKEY_CURRENT_CONFIG", "HKEY_CURRENT_USER", "HKEY_LOCAL_MACHINE",
// "HKEY_USERS", compared exactly.
bool registryRootFromName(const std::string& inName, RegistryRoot& outRoot);
const char* registryRootName(RegistryRoot inRoot);

struct RegistryValue
{
    std::string name;
    unsigned long type = 0;  // the REG_* number
    std::string data;        // raw bytes
};

class Registry
{
public:
    virtual ~Registry() = default;

    // Opens the registry. inLocation is the store file for a build that keeps its own store
    // (its folder is created when missing); a native build ignores it. Null on failure.
    static std::unique_ptr<Registry> open(const std::string& inLocation, Status& outStatus);

    // Where the data lives, for messages (the store file, or the name of the system registry).
    virtual std::string location() const = 0;

    // Succeeds when the key exists.
    virtual Status keyOpen(RegistryRoot inRoot, const std::string& inPath) = 0;
    // Creates the key and any missing parents; an existing key is left as it is.
    virtual Status keyCreate(RegistryRoot inRoot, const std::string& inPath) = 0;
    // Deletes a key without subkeys, together with its values. A root cannot be deleted.
    virtual Status keyDelete(RegistryRoot inRoot, const std::string& inPath) = 0;

    virtual Status valueSet(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName,
                            unsigned long inType, const std::string& inData) = 0;
    virtual Status valueQuery(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName,
                              unsigned long& outType, std::string& outData) = 0;
    virtual Status valueDelete(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName) = 0;

    // The names of the direct subkeys / the values of a key, ordered by name.
    virtual Status subKeys(RegistryRoot inRoot, const std::string& inKeyPath, std::vector<std::string>& outNames) = 0;
    virtual Status values(RegistryRoot inRoot, const std::string& inKeyPath, std::vector<RegistryValue>& outValues) = 0;

    // Groups changes into one atomic unit. Transactions nest: an inner rollback undoes only
    // the inner changes; the outermost commit makes everything durable at once.
    virtual Status transactionBegin() = 0;
    virtual Status transactionCommit() = 0;
    virtual Status transactionRollback() = 0;
    virtual int transactionDepth() const = 0;

    // How long a change waits for another process that holds the store (milliseconds).
    virtual void waitLimitSet(int inMilliseconds) = 0;
};

// Splits "ROOT\a\b" into the root and "a\b". False for an unknown root name.
bool registrySplitPath(const std::string& inFullPath, RegistryRoot& outRoot, std::string& outPath);
}
