// The portable registry store: Windows semantics, transactions, several processes, damage.
#include "Registry.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsPlatform;

namespace
{
std::string tempStore(const char* inName)
{
    static int sCounter = 0;
    const char* tmp = std::getenv("TMPDIR");
    return std::string(tmp ? tmp : "/tmp") + "/registry-test-" + std::to_string(getpid()) + "-" +
           std::to_string(++sCounter) + "/" + inName;
}

std::string fileBytes(const std::string& inPath)
{
    std::ifstream in(inPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeBytes(const std::string& inPath, const std::string& inBytes)
{
    std::ofstream out(inPath, std::ios::binary | std::ios::trunc);
    out << inBytes;
}

std::unique_ptr<Registry> openStore(const std::string& inPath)
{
    Status s;
    std::unique_ptr<Registry> reg = Registry::open(inPath, s);
    EXPECT_TRUE(s.isOk()) << s.text;
    return reg;
}

std::vector<std::string> valueNames(Registry& inReg, RegistryRoot inRoot, const std::string& inKey)
{
    std::vector<RegistryValue> list;
    EXPECT_TRUE(inReg.values(inRoot, inKey, list).isOk());
    std::vector<std::string> names;
    for (const RegistryValue& v : list)
        names.push_back(v.name);
    return names;
}
}

TEST(PlatformRegistry, DeletingKeysFollowsWindowsRules)
{
    auto reg = openStore(tempStore("reg.sqlite"));
    ASSERT_TRUE(reg);
    const auto hklm = RegistryRoot::LocalMachine;
    ASSERT_TRUE(reg->keyCreate(hklm, "A\\B").isOk());
    ASSERT_TRUE(reg->valueSet(hklm, "A", "v", 1, "x").isOk());

    const Status withSubKeys = reg->keyDelete(hklm, "A");
    EXPECT_EQ(RegistryAccessDenied, withSubKeys.code);
    EXPECT_NE(std::string::npos, withSubKeys.text.find("subkeys")) << withSubKeys.text;
    EXPECT_TRUE(reg->keyOpen(hklm, "A\\B").isOk());

    EXPECT_TRUE(reg->keyDelete(hklm, "a\\b").isOk());
    EXPECT_EQ(RegistryNotFound, reg->keyOpen(hklm, "A\\B").code);
    EXPECT_EQ(RegistryNotFound, reg->keyDelete(hklm, "A\\B").code);
    EXPECT_TRUE(reg->keyDelete(hklm, "A").isOk());
    // The values went with the key: a new key of that name starts empty.
    ASSERT_TRUE(reg->keyCreate(hklm, "A").isOk());
    EXPECT_TRUE(valueNames(*reg, hklm, "A").empty());

    EXPECT_EQ(RegistryAccessDenied, reg->keyDelete(hklm, "").code);
}

TEST(PlatformRegistry, ABusyStoreIsReportedAndLeftAsItWas)
{
    const std::string file = tempStore("reg.sqlite");
    auto holder = openStore(file);
    auto waiter = openStore(file);
    ASSERT_TRUE(holder && waiter);
    waiter->waitLimitSet(100);
    ASSERT_TRUE(holder->transactionBegin().isOk());
    ASSERT_TRUE(holder->keyCreate(RegistryRoot::Users, "Held").isOk());
    const Status busy = waiter->keyCreate(RegistryRoot::Users, "Waiting");
    EXPECT_EQ(RegistryBusy, busy.code);
    EXPECT_NE(std::string::npos, busy.text.find(file)) << busy.text;
    EXPECT_EQ(0, waiter->transactionDepth());
    ASSERT_TRUE(holder->transactionCommit().isOk());
    EXPECT_EQ(RegistryNotFound, waiter->keyOpen(RegistryRoot::Users, "Waiting").code);
    EXPECT_TRUE(waiter->keyCreate(RegistryRoot::Users, "Waiting").isOk());
}

TEST(PlatformRegistry, SeveralProcessesWriteAtOnceWithoutLosingChanges)
{
    const std::string file = tempStore("reg.sqlite");
    ASSERT_TRUE(openStore(file));
    const int writers = 3;
    const int perWriter = 60;
    std::vector<pid_t> children;
    for (int w = 0; w < writers; ++w)
    {
        const pid_t pid = fork();
        if (pid == 0)
        {
            Status s;
            auto reg = Registry::open(file, s);
            bool ok = reg != nullptr;
            const std::string key = "Shared\\Writer" + std::to_string(w);
            ok = ok && reg->keyCreate(RegistryRoot::LocalMachine, key).isOk();
            // Small transactions interleave with the other writers.
            for (int i = 0; ok && i < perWriter; ++i)
                ok = reg->valueSet(RegistryRoot::LocalMachine, key, "v" + std::to_string(i), 4, "abcd").isOk();
            reg.reset();
            _exit(ok ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children)
    {
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    auto reg = openStore(file);
    ASSERT_TRUE(reg);
    for (int w = 0; w < writers; ++w)
        EXPECT_EQ(static_cast<size_t>(perWriter),
                  valueNames(*reg, RegistryRoot::LocalMachine, "Shared\\Writer" + std::to_string(w)).size());
}

TEST(PlatformRegistry, AKillInsideABatchLeavesTheStoreAsBefore)
{
    const std::string file = tempStore("reg.sqlite");
    {
        auto reg = openStore(file);
        ASSERT_TRUE(reg && reg->keyCreate(RegistryRoot::CurrentUser, "Product").isOk());
        ASSERT_TRUE(reg->valueSet(RegistryRoot::CurrentUser, "Product", "before", 1, "1").isOk());
    }
    int gate[2];
    ASSERT_EQ(0, pipe(gate));
    const pid_t pid = fork();
    if (pid == 0)
    {
        Status s;
        auto reg = Registry::open(file, s);
        if (reg && reg->transactionBegin().isOk())
        {
            for (int i = 0; i < 2000; ++i)
                reg->valueSet(RegistryRoot::CurrentUser, "Product", "batch" + std::to_string(i), 1, "x");
            reg->keyDelete(RegistryRoot::CurrentUser, "Product");
        }
        (void)!write(gate[1], "k", 1);
        pause();  // killed here, before any commit
        _exit(0);
    }
    close(gate[1]);
    char c = 0;
    ASSERT_EQ(1, read(gate[0], &c, 1));
    close(gate[0]);
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);

    auto reg = openStore(file);
    ASSERT_TRUE(reg);
    EXPECT_EQ(std::vector<std::string>({"before"}), valueNames(*reg, RegistryRoot::CurrentUser, "Product"));
    EXPECT_TRUE(reg->valueSet(RegistryRoot::CurrentUser, "Product", "after", 1, "2").isOk());
}

TEST(PlatformRegistry, ADamagedOrForeignFileIsReportedAndNeverReplaced)
{
    const std::string garbage = tempStore("garbage.sqlite");
    ASSERT_TRUE(openStore(tempStore("x")));  // creates the folder of the next files
    std::string bytes(8192, '\0');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>((i * 131) % 251);
    system(("mkdir -p \"$(dirname '" + garbage + "')\"").c_str());
    writeBytes(garbage, bytes);
    Status s;
    EXPECT_FALSE(Registry::open(garbage, s));
    EXPECT_EQ(RegistryCorrupt, s.code);
    EXPECT_NE(std::string::npos, s.text.find("'" + garbage + "' is damaged")) << s.text;
    EXPECT_EQ(bytes, fileBytes(garbage));

    // An intact database that is not a store is not taken over either.
    const std::string foreign = garbage + ".foreign";
    ASSERT_EQ(0, system(("sqlite3 '" + foreign + "' 'CREATE TABLE t(x); INSERT INTO t VALUES (1);'").c_str()));
    const std::string foreignBytes = fileBytes(foreign);
    EXPECT_FALSE(Registry::open(foreign, s));
    EXPECT_EQ(RegistryCorrupt, s.code);
    EXPECT_NE(std::string::npos, s.text.find("another kind")) << s.text;
    EXPECT_EQ(foreignBytes, fileBytes(foreign));

    // A store whose pages were overwritten later.
    const std::string file = tempStore("reg.sqlite");
    {
        auto reg = openStore(file);
        ASSERT_TRUE(reg && reg->keyCreate(RegistryRoot::CurrentUser, "K").isOk());
        ASSERT_TRUE(reg->transactionBegin().isOk());
        for (int i = 0; i < 3000; ++i)
            reg->valueSet(RegistryRoot::CurrentUser, "K", "value" + std::to_string(i), 1, std::string(40, 'v'));
        ASSERT_TRUE(reg->transactionCommit().isOk());
    }
    ASSERT_EQ(0, system(("sqlite3 '" + file + "' 'PRAGMA wal_checkpoint(TRUNCATE);' >/dev/null").c_str()));
    std::string damaged = fileBytes(file);
    ASSERT_GT(damaged.size(), 40000u);
    for (size_t i = 8192; i < damaged.size(); ++i)
        damaged[i] = static_cast<char>(0xA5);
    writeBytes(file, damaged);
    auto reg = Registry::open(file, s);
    if (reg)  // the first pages are intact: the damage shows on the first read of the rest
    {
        std::vector<RegistryValue> values;
        s = reg->values(RegistryRoot::CurrentUser, "K", values);
        if (s.isOk())
            s = reg->valueSet(RegistryRoot::CurrentUser, "K", "new", 1, "x");
    }
    EXPECT_EQ(RegistryCorrupt, s.code) << s.text;
    EXPECT_NE(std::string::npos, s.text.find(file)) << s.text;
    reg.reset();
    EXPECT_EQ(damaged, fileBytes(file));
}
