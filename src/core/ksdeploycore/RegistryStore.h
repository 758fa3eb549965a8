#pragma once
// The engine's access to the registry through the platform layer: which store, one shared
// connection, and the grouping of a product operation's changes into one transaction.
#include "KsGlobal.h"

#include "Registry.h"

#include <QString>

namespace KsDeploy
{
class RegistryStore
{
public:
    // The registry of this process, opened on first use: the file given to locationSet, by
    // default "ksdeploy/registry.sqlite" under the XDG data folder. A changed location opens the
    // other store on the next call.
    static McResult instance(KsPlatform::Registry*& outRegistry);
    static QString location();
    // The store's file, chosen by the host (the library reads no environment); the empty text
    // goes back to the default.
    static void locationSet(const QString& inPath);
    // Closes the connection; kept open (and reported) while a transaction scope has begun.
    static void close();

    // "HKEY_CURRENT_USER\a\b" into root and "a\b" (Latin-1); false for an unknown root name.
    static bool splitPath(const QString& inPath, KsPlatform::RegistryRoot& outRoot, std::string& outSubPath);
};

// Groups the registry changes made while it lives into one atomic store transaction; a
// product operation opens one so that its changes land together or not at all. Nests.
// The store transaction begins on the first registry access within the scope, so that a
// product without registry resources never opens (or waits for) the store.
class RegistryTransaction
{
public:
    RegistryTransaction();
    // Rolls back unless committed.
    ~RegistryTransaction();
    RegistryTransaction(const RegistryTransaction&) = delete;
    RegistryTransaction& operator=(const RegistryTransaction&) = delete;

    // Makes the scope's changes durable (a no-op when the scope touched no registry).
    McResult commit();
    // Undoes every change made in the scope.
    McResult rollback();
    // True once a registry access inside the scope has begun its store transaction.
    bool isBegun() const;

private:
    McResult end(bool inCommit);

    int mLevel = 0;  // nesting level of this scope, 1 for the outermost
    bool mOpen = true;
};

// A failed store call: reports the store's message with the condition "val[<code>]  exp[0]".
bool registryCheck(McResult& inoutResult, const KsPlatform::Status& inStatus, int inLine, const char* inFile,
                   const char* inPrettyFunction);
}

// One-line checked store call: true (and RESULT bad) when STATUS failed.
#define KS_CHECK_REGISTRY(RESULT, STATUS)                                                                              \
    ::KsDeploy::registryCheck((RESULT), (STATUS), __LINE__, __FILE__, __PRETTY_FUNCTION__)
