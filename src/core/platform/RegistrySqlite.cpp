// The portable registry: one SQLite database holds the five roots (schema in README.md,
// "Registry store"). Used where there is no system registry.
#include "Registry.h"

#include <sqlite3.h>

#include <filesystem>
#include <map>

namespace KsPlatform
{
namespace
{
// "KSRG": marks the file as ours, so a foreign database is never taken for a store.
const int sApplicationId = 0x4B535247;
const int sSchemaVersion = 1;
// Long enough for another process's product operation to finish its batch of changes.
const int sBusyTimeoutMs = 15000;
const size_t sMaxKeyNameLength = 255;
const size_t sMaxValueNameLength = 16383;

const char* const sSchema = "CREATE TABLE registry_key ("
                            " id INTEGER PRIMARY KEY,"
                            " parent INTEGER NOT NULL,"
                            " name TEXT NOT NULL COLLATE NOCASE,"
                            " UNIQUE (parent, name));"
                            "CREATE TABLE registry_value ("
                            " key INTEGER NOT NULL REFERENCES registry_key(id),"
                            " name TEXT NOT NULL COLLATE NOCASE,"
                            " type INTEGER NOT NULL,"
                            " data BLOB NOT NULL,"
                            " PRIMARY KEY (key, name)) WITHOUT ROWID;"
                            "INSERT INTO registry_key (id, parent, name) VALUES"
                            " (1, 0, 'HKEY_CLASSES_ROOT'), (2, 0, 'HKEY_CURRENT_CONFIG'), (3, 0, 'HKEY_CURRENT_USER'),"
                            " (4, 0, 'HKEY_LOCAL_MACHINE'), (5, 0, 'HKEY_USERS');"
                            "PRAGMA application_id = 1263751751;"
                            "PRAGMA user_version = 1;";

std::string fromDb(const unsigned char* inText, int inBytes)
{
    const std::string utf8(inText ? reinterpret_cast<const char*>(inText) : "",
                           inText ? static_cast<size_t>(inBytes) : 0);
    std::string latin1;
    // A name put in by hand with characters beyond Latin-1 is passed on as it is.
    return utf8ToLatin1(utf8, latin1) ? latin1 : utf8;
}

class RegistrySqlite : public Registry
{
public:
    RegistrySqlite(sqlite3* inDb, const std::string& inPath) : mDb(inDb), mPath(inPath) {}
    ~RegistrySqlite() override
    {
        while (mDepth > 0)
            transactionRollback();
        for (auto& s : mStatements)
            sqlite3_finalize(s.second);
        sqlite3_close(mDb);
    }

    Status init();

    std::string location() const override { return mPath; }
    Status keyOpen(RegistryRoot inRoot, const std::string& inPath) override;
    Status keyCreate(RegistryRoot inRoot, const std::string& inPath) override;
    Status keyDelete(RegistryRoot inRoot, const std::string& inPath) override;
    Status valueSet(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName, unsigned long inType,
                    const std::string& inData) override;
    Status valueQuery(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName,
                      unsigned long& outType, std::string& outData) override;
    Status valueDelete(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName) override;
    Status subKeys(RegistryRoot inRoot, const std::string& inKeyPath, std::vector<std::string>& outNames) override;
    Status values(RegistryRoot inRoot, const std::string& inKeyPath, std::vector<RegistryValue>& outValues) override;
    Status transactionBegin() override;
    Status transactionCommit() override;
    Status transactionRollback() override;
    int transactionDepth() const override { return mDepth; }
    void waitLimitSet(int inMilliseconds) override
    {
        mWaitLimitMs = inMilliseconds;
        sqlite3_busy_timeout(mDb, inMilliseconds);
    }

    // Turns an SQLite result into a status with a message naming the store file.
    Status failure(int inRc, const std::string& inWhat) const;

private:
    // A cached statement, reset and unbound when the use ends.
    class Use
    {
    public:
        Use(RegistrySqlite& inOwner, const char* inSql) : mStmt(inOwner.statement(inSql, mRc)) {}
        ~Use()
        {
            if (mStmt)
            {
                sqlite3_reset(mStmt);
                sqlite3_clear_bindings(mStmt);
            }
        }
        sqlite3_stmt* operator->() const { return mStmt; }
        sqlite3_stmt* get() const { return mStmt; }
        int prepareResult() const { return mRc; }

    private:
        int mRc = SQLITE_OK;
        sqlite3_stmt* mStmt;
    };

    sqlite3_stmt* statement(const char* inSql, int& outRc);
    Status exec(const char* inSql, const std::string& inWhat);
    std::string fullPath(RegistryRoot inRoot, const std::string& inPath) const;
    // Walks the path from the root; creates missing keys when inCreate.
    Status keyId(RegistryRoot inRoot, const std::string& inPath, bool inCreate, sqlite3_int64& outId);
    // Ends a change made in its own transaction: commit on success, rollback otherwise.
    Status finish(const Status& inStatus);

    sqlite3* mDb;
    std::string mPath;
    int mDepth = 0;
    int mWaitLimitMs = sBusyTimeoutMs;
    std::map<const char*, sqlite3_stmt*> mStatements;
};

Status RegistrySqlite::failure(int inRc, const std::string& inWhat) const
{
    const std::string store = "registry store '" + mPath + "'";
    const std::string detail = mDb ? sqlite3_errmsg(mDb) : sqlite3_errstr(inRc);
    switch (inRc & 0xFF)
    {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
        return Status::bad(RegistryBusy, store + " is in use by another process (" + inWhat + "; gave up after " +
                                             std::to_string(mWaitLimitMs) + " ms)");
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
        return Status::bad(RegistryCorrupt, store + " is damaged (" + detail +
                                                "); it was left as it is: restore it "
                                                "from a backup or move it away");
    default:
        return Status::bad(RegistryIoFailed, store + ": " + inWhat + " failed (" + detail + ")");
    }
}

sqlite3_stmt* RegistrySqlite::statement(const char* inSql, int& outRc)
{
    auto it = mStatements.find(inSql);
    if (it != mStatements.end())
        return it->second;
    sqlite3_stmt* stmt = nullptr;
    outRc = sqlite3_prepare_v2(mDb, inSql, -1, &stmt, nullptr);
    if (outRc != SQLITE_OK)
        return nullptr;
    mStatements[inSql] = stmt;
    return stmt;
}

Status RegistrySqlite::exec(const char* inSql, const std::string& inWhat)
{
    const int rc = sqlite3_exec(mDb, inSql, nullptr, nullptr, nullptr);
    return rc == SQLITE_OK ? Status::ok() : failure(rc, inWhat);
}

Status RegistrySqlite::init()
{
    sqlite3_extended_result_codes(mDb, 1);
    sqlite3_busy_timeout(mDb, sBusyTimeoutMs);

    int appId = 0;
    int version = 0;
    int tables = 0;
    const auto readHeader = [&]() -> int {
        int rc;
        for (const auto& q :
             {std::make_pair("PRAGMA application_id", &appId), std::make_pair("PRAGMA user_version", &version),
              std::make_pair("SELECT count(*) FROM sqlite_master", &tables)})
        {
            sqlite3_stmt* stmt = nullptr;
            rc = sqlite3_prepare_v2(mDb, q.first, -1, &stmt, nullptr);
            if (rc == SQLITE_OK)
                rc = sqlite3_step(stmt);
            if (rc == SQLITE_ROW)
            {
                *q.second = sqlite3_column_int(stmt, 0);
                rc = SQLITE_OK;
            }
            sqlite3_finalize(stmt);
            if (rc != SQLITE_OK)
                return rc;
        }
        return SQLITE_OK;
    };
    int rc = readHeader();
    if (rc != SQLITE_OK)
        return failure(rc, "reading the header");

    if (appId == 0 && tables == 0)
    {
        // A new file. WAL lets readers go on while one process writes; a busy result only
        // means that another process is setting it up at the same moment.
        sqlite3_exec(mDb, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr);
        Status s = exec("BEGIN IMMEDIATE", "creating the store");
        if (s.isBad())
            return s;
        rc = readHeader();
        if (rc == SQLITE_OK && appId == 0 && tables == 0)
            rc = sqlite3_exec(mDb, sSchema, nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK)
            rc = sqlite3_exec(mDb, "COMMIT", nullptr, nullptr, nullptr);
        if (rc == SQLITE_OK)
            rc = readHeader();
        if (rc != SQLITE_OK)
        {
            s = failure(rc, "creating the store");
            sqlite3_exec(mDb, "ROLLBACK", nullptr, nullptr, nullptr);
            return s;
        }
    }
    if (appId != sApplicationId)
        return Status::bad(RegistryCorrupt, "registry store '" + mPath +
                                                "' is a database of another kind; it was left as it is: move it away "
                                                "or name another store with KSDEPLOY_REGISTRY");
    if (version != sSchemaVersion)
        return Status::bad(RegistryIoFailed, "registry store '" + mPath + "' has layout version " +
                                                 std::to_string(version) + ", this program reads version " +
                                                 std::to_string(sSchemaVersion));
    return exec("PRAGMA synchronous=FULL", "setting durable writes");
}

std::string RegistrySqlite::fullPath(RegistryRoot inRoot, const std::string& inPath) const
{
    return inPath.empty() ? std::string(registryRootName(inRoot))
                          : std::string(registryRootName(inRoot)) + "\\" + inPath;
}

Status RegistrySqlite::keyId(RegistryRoot inRoot, const std::string& inPath, bool inCreate, sqlite3_int64& outId)
{
    const int root = static_cast<int>(inRoot);
    if (root < 0 || root > 4)
        return Status::bad(RegistryInvalidParameter, "unknown registry root");
    sqlite3_int64 id = root + 1;
    size_t begin = 0;
    while (!inPath.empty() && begin <= inPath.size())
    {
        size_t end = inPath.find('\\', begin);
        if (end == std::string::npos)
            end = inPath.size();
        const std::string name = inPath.substr(begin, end - begin);
        if (name.empty() || name.size() > sMaxKeyNameLength)
            return Status::bad(RegistryInvalidParameter,
                               "'" + fullPath(inRoot, inPath) + "' is not a valid registry key path (" +
                                   (name.empty() ? "empty key name" : "a key name longer than 255 characters") + ")");
        const std::string utf8 = latin1ToUtf8(name);
        {
            Use find(*this, "SELECT id FROM registry_key WHERE parent=?1 AND name=?2");
            if (!find.get())
                return failure(find.prepareResult(), "looking up a key");
            sqlite3_bind_int64(find.get(), 1, id);
            sqlite3_bind_text(find.get(), 2, utf8.data(), static_cast<int>(utf8.size()), SQLITE_STATIC);
            const int rc = sqlite3_step(find.get());
            if (rc == SQLITE_ROW)
            {
                id = sqlite3_column_int64(find.get(), 0);
                begin = end + 1;
                continue;
            }
            if (rc != SQLITE_DONE)
                return failure(rc, "looking up '" + fullPath(inRoot, inPath) + "'");
        }
        if (!inCreate)
            return Status::bad(RegistryNotFound,
                               "registry key '" + fullPath(inRoot, inPath.substr(0, end)) + "' does not exist");
        Use insert(*this, "INSERT INTO registry_key (parent, name) VALUES (?1, ?2)");
        if (!insert.get())
            return failure(insert.prepareResult(), "creating a key");
        sqlite3_bind_int64(insert.get(), 1, id);
        sqlite3_bind_text(insert.get(), 2, utf8.data(), static_cast<int>(utf8.size()), SQLITE_STATIC);
        const int rc = sqlite3_step(insert.get());
        if (rc != SQLITE_DONE)
            return failure(rc, "creating '" + fullPath(inRoot, inPath.substr(0, end)) + "'");
        id = sqlite3_last_insert_rowid(mDb);
        begin = end + 1;
    }
    outId = id;
    return Status::ok();
}

Status RegistrySqlite::finish(const Status& inStatus)
{
    if (inStatus.isOk())
        return transactionCommit();
    transactionRollback();
    return inStatus;
}

Status RegistrySqlite::keyOpen(RegistryRoot inRoot, const std::string& inPath)
{
    sqlite3_int64 id = 0;
    return keyId(inRoot, inPath, false, id);
}

Status RegistrySqlite::keyCreate(RegistryRoot inRoot, const std::string& inPath)
{
    Status s = transactionBegin();
    if (s.isBad())
        return s;
    sqlite3_int64 id = 0;
    return finish(keyId(inRoot, inPath, true, id));
}

Status RegistrySqlite::keyDelete(RegistryRoot inRoot, const std::string& inPath)
{
    if (inPath.empty())
        return Status::bad(RegistryAccessDenied,
                           std::string("the registry root '") + registryRootName(inRoot) + "' cannot be deleted");
    Status s = transactionBegin();
    if (s.isBad())
        return s;
    sqlite3_int64 id = 0;
    s = keyId(inRoot, inPath, false, id);
    if (s.isOk())
    {
        Use children(*this, "SELECT 1 FROM registry_key WHERE parent=?1 LIMIT 1");
        if (!children.get())
            return finish(failure(children.prepareResult(), "deleting a key"));
        sqlite3_bind_int64(children.get(), 1, id);
        const int rc = sqlite3_step(children.get());
        if (rc == SQLITE_ROW)
            s = Status::bad(RegistryAccessDenied,
                            "registry key '" + fullPath(inRoot, inPath) + "' still has subkeys and cannot be deleted");
        else if (rc != SQLITE_DONE)
            s = failure(rc, "deleting '" + fullPath(inRoot, inPath) + "'");
    }
    for (const char* sql : {"DELETE FROM registry_value WHERE key=?1", "DELETE FROM registry_key WHERE id=?1"})
    {
        if (s.isBad())
            break;
        Use del(*this, sql);
        if (!del.get())
            return finish(failure(del.prepareResult(), "deleting a key"));
        sqlite3_bind_int64(del.get(), 1, id);
        const int rc = sqlite3_step(del.get());
        if (rc != SQLITE_DONE)
            s = failure(rc, "deleting '" + fullPath(inRoot, inPath) + "'");
    }
    return finish(s);
}

Status RegistrySqlite::valueSet(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName,
                                unsigned long inType, const std::string& inData)
{
    if (inName.size() > sMaxValueNameLength)
        return Status::bad(RegistryInvalidParameter, "registry value name longer than 16383 characters");
    if (inType > 0xFFFFFFFFul)
        return Status::bad(RegistryInvalidParameter, "registry value type out of range");
    Status s = transactionBegin();
    if (s.isBad())
        return s;
    sqlite3_int64 id = 0;
    s = keyId(inRoot, inKeyPath, false, id);
    if (s.isOk())
    {
        // An existing value keeps the case of its name, as on Windows.
        Use up(*this, "INSERT INTO registry_value (key, name, type, data) VALUES (?1, ?2, ?3, ?4)"
                      " ON CONFLICT (key, name) DO UPDATE SET type=excluded.type, data=excluded.data");
        if (!up.get())
            return finish(failure(up.prepareResult(), "writing a value"));
        const std::string name = latin1ToUtf8(inName);
        sqlite3_bind_int64(up.get(), 1, id);
        sqlite3_bind_text(up.get(), 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        sqlite3_bind_int64(up.get(), 3, static_cast<sqlite3_int64>(inType));
        // A non-null pointer, so that empty data is an empty blob and not NULL.
        sqlite3_bind_blob(up.get(), 4, inData.data(), static_cast<int>(inData.size()), SQLITE_STATIC);
        const int rc = sqlite3_step(up.get());
        if (rc != SQLITE_DONE)
            s = failure(rc, "writing '" + fullPath(inRoot, inKeyPath) + "\\" + inName + "'");
    }
    return finish(s);
}

Status RegistrySqlite::valueQuery(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName,
                                  unsigned long& outType, std::string& outData)
{
    sqlite3_int64 id = 0;
    Status s = keyId(inRoot, inKeyPath, false, id);
    if (s.isBad())
        return s;
    Use q(*this, "SELECT type, data FROM registry_value WHERE key=?1 AND name=?2");
    if (!q.get())
        return failure(q.prepareResult(), "reading a value");
    const std::string name = latin1ToUtf8(inName);
    sqlite3_bind_int64(q.get(), 1, id);
    sqlite3_bind_text(q.get(), 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    const int rc = sqlite3_step(q.get());
    if (rc == SQLITE_DONE)
        return Status::bad(RegistryNotFound,
                           "registry value '" + fullPath(inRoot, inKeyPath) + "\\" + inName + "' does not exist");
    if (rc != SQLITE_ROW)
        return failure(rc, "reading '" + fullPath(inRoot, inKeyPath) + "\\" + inName + "'");
    outType = static_cast<unsigned long>(sqlite3_column_int64(q.get(), 0));
    const void* data = sqlite3_column_blob(q.get(), 1);
    const int bytes = sqlite3_column_bytes(q.get(), 1);
    outData.assign(data ? static_cast<const char*>(data) : "", data ? static_cast<size_t>(bytes) : 0);
    return Status::ok();
}

Status RegistrySqlite::valueDelete(RegistryRoot inRoot, const std::string& inKeyPath, const std::string& inName)
{
    Status s = transactionBegin();
    if (s.isBad())
        return s;
    sqlite3_int64 id = 0;
    s = keyId(inRoot, inKeyPath, false, id);
    if (s.isOk())
    {
        Use del(*this, "DELETE FROM registry_value WHERE key=?1 AND name=?2");
        if (!del.get())
            return finish(failure(del.prepareResult(), "deleting a value"));
        const std::string name = latin1ToUtf8(inName);
        sqlite3_bind_int64(del.get(), 1, id);
        sqlite3_bind_text(del.get(), 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
        const int rc = sqlite3_step(del.get());
        if (rc != SQLITE_DONE)
            s = failure(rc, "deleting '" + fullPath(inRoot, inKeyPath) + "\\" + inName + "'");
        else if (sqlite3_changes(mDb) == 0)
            s = Status::bad(RegistryNotFound,
                            "registry value '" + fullPath(inRoot, inKeyPath) + "\\" + inName + "' does not exist");
    }
    return finish(s);
}

Status RegistrySqlite::subKeys(RegistryRoot inRoot, const std::string& inKeyPath, std::vector<std::string>& outNames)
{
    sqlite3_int64 id = 0;
    Status s = keyId(inRoot, inKeyPath, false, id);
    if (s.isBad())
        return s;
    Use q(*this, "SELECT name FROM registry_key WHERE parent=?1 ORDER BY name");
    if (!q.get())
        return failure(q.prepareResult(), "listing subkeys");
    sqlite3_bind_int64(q.get(), 1, id);
    std::vector<std::string> names;
    int rc;
    while ((rc = sqlite3_step(q.get())) == SQLITE_ROW)
        names.push_back(fromDb(sqlite3_column_text(q.get(), 0), sqlite3_column_bytes(q.get(), 0)));
    if (rc != SQLITE_DONE)
        return failure(rc, "listing the subkeys of '" + fullPath(inRoot, inKeyPath) + "'");
    outNames.swap(names);
    return Status::ok();
}

Status RegistrySqlite::values(RegistryRoot inRoot, const std::string& inKeyPath, std::vector<RegistryValue>& outValues)
{
    sqlite3_int64 id = 0;
    Status s = keyId(inRoot, inKeyPath, false, id);
    if (s.isBad())
        return s;
    Use q(*this, "SELECT name, type, data FROM registry_value WHERE key=?1 ORDER BY name");
    if (!q.get())
        return failure(q.prepareResult(), "listing values");
    sqlite3_bind_int64(q.get(), 1, id);
    std::vector<RegistryValue> list;
    int rc;
    while ((rc = sqlite3_step(q.get())) == SQLITE_ROW)
    {
        RegistryValue v;
        v.name = fromDb(sqlite3_column_text(q.get(), 0), sqlite3_column_bytes(q.get(), 0));
        v.type = static_cast<unsigned long>(sqlite3_column_int64(q.get(), 1));
        const void* data = sqlite3_column_blob(q.get(), 2);
        const int bytes = sqlite3_column_bytes(q.get(), 2);
        v.data.assign(data ? static_cast<const char*>(data) : "", data ? static_cast<size_t>(bytes) : 0);
        list.push_back(std::move(v));
    }
    if (rc != SQLITE_DONE)
        return failure(rc, "listing the values of '" + fullPath(inRoot, inKeyPath) + "'");
    outValues.swap(list);
    return Status::ok();
}

Status RegistrySqlite::transactionBegin()
{
    // IMMEDIATE takes the write lock at once (waiting for it), so a batch never fails
    // half-way because another process started writing after we read.
    const std::string sql = mDepth == 0 ? std::string("BEGIN IMMEDIATE") : "SAVEPOINT ks" + std::to_string(mDepth);
    Status s = exec(sql.c_str(), "starting a change");
    if (s.isOk())
        ++mDepth;
    return s;
}

Status RegistrySqlite::transactionCommit()
{
    if (mDepth == 0)
        return Status::bad(RegistryNoTransaction, "registry: commit without a transaction");
    if (sqlite3_get_autocommit(mDb))
    {
        // SQLite already rolled everything back after a failed write (disk full, I/O error).
        --mDepth;
        return Status::bad(RegistryIoFailed,
                           "registry store '" + mPath + "': the change was abandoned after an earlier failure");
    }
    if (mDepth > 1)
    {
        const std::string sql = "RELEASE ks" + std::to_string(mDepth - 1);
        Status s = exec(sql.c_str(), "finishing a change");
        --mDepth;
        return s;
    }
    Status s = exec("COMMIT", "committing a change");
    if (s.isBad())
        sqlite3_exec(mDb, "ROLLBACK", nullptr, nullptr, nullptr);
    mDepth = 0;
    return s;
}

Status RegistrySqlite::transactionRollback()
{
    if (mDepth == 0)
        return Status::bad(RegistryNoTransaction, "registry: rollback without a transaction");
    if (sqlite3_get_autocommit(mDb))
    {
        --mDepth;
        return Status::ok();
    }
    Status s;
    if (mDepth > 1)
    {
        const std::string name = "ks" + std::to_string(mDepth - 1);
        s = exec(("ROLLBACK TO " + name + "; RELEASE " + name).c_str(), "undoing a change");
    }
    else
    {
        s = exec("ROLLBACK", "undoing a change");
    }
    --mDepth;
    return s;
}
}

std::unique_ptr<Registry> Registry::open(const std::string& inLocation, Status& outStatus)
{
    if (inLocation.empty())
    {
        outStatus = Status::bad(RegistryInvalidParameter, "no registry store file given");
        return nullptr;
    }
    const std::filesystem::path parent = std::filesystem::path(inLocation).parent_path();
    std::error_code ec;
    if (!parent.empty())
        std::filesystem::create_directories(parent, ec);
    if (ec)
    {
        outStatus = Status::bad(RegistryIoFailed, "registry store '" + inLocation + "': cannot create the folder '" +
                                                      parent.string() + "' (" + ec.message() + ")");
        return nullptr;
    }
    sqlite3* db = nullptr;
    const int rc = sqlite3_open_v2(inLocation.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::unique_ptr<RegistrySqlite> store(new RegistrySqlite(db, inLocation));
    if (rc != SQLITE_OK)
    {
        outStatus = store->failure(rc, "opening");
        return nullptr;
    }
    outStatus = store->init();
    if (outStatus.isBad())
        return nullptr;
    return store;
}
}
