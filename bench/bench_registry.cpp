// Installing 10,000 registry values of one product through the engine (one store transaction),
// against the sqlite3 command writing the same number of rows in one transaction. The target is
// an install under one second; uninstall and verify are shown beside it.
#include "BenchHarness.h"
#include "Engine.h"
#include "RegistryStore.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"

#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <string>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
double seconds(const std::function<bool()>& inWork, bool& outOk)
{
    // The per-resource trace lines go to the console sink; the figure is the engine's, not the terminal's.
    std::fflush(stdout);
    const int saved = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    const auto start = std::chrono::steady_clock::now();
    outOk = inWork();
    const auto end = std::chrono::steady_clock::now();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(null);
    return std::chrono::duration<double>(end - start).count();
}

// The product: HKEY_CURRENT_USER\Software\Kestra Bench with inCount values of three types.
void describe(int inCount)
{
    McHandle<ResourceRegistryKey> root(new ResourceRegistryKey);
    root->nameSet("HKEY_CURRENT_USER");
    root->deleteOnUninstallSet(false);
    McHandle<ResourceRegistryKey> software(new ResourceRegistryKey);
    software->nameSet("Software");
    software->containerSet(root);
    software->deleteOnUninstallSet(false);
    McHandle<ResourceRegistryKey> key(new ResourceRegistryKey);
    key->nameSet("Kestra Bench");
    key->containerSet(software);
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet("Bench");
    product->linkAdd(*root, "Registry");
    for (int i = 0; i < inCount; ++i)
    {
        McHandle<ResourceRegistryValue> v(new ResourceRegistryValue);
        v->nameSet(QStringLiteral("Value %1").arg(i));
        switch (i % 3)
        {
        case 0:
            v->typeSet(ResourceRegistryValue::TYPE_SZ);
            v->valueSet(QStringLiteral("C:\\Program Files\\Kestra\\file%1.dat").arg(i));
            break;
        case 1:
            v->typeSet(ResourceRegistryValue::TYPE_DWORD);
            v->valueSet(QString::number(i));
            break;
        default:
            v->typeSet(ResourceRegistryValue::TYPE_BINARY);
            v->valueSet(QStringLiteral("00112233445566778899aabbccddeeff%1").arg(i % 256, 2, 16, QLatin1Char('0')));
            break;
        }
        v->containerSet(key);
    }
}
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int count = static_cast<int>(KsBench::sizeFromEnv("KSDEPLOY_BENCH_REGISTRY_VALUES", 10000, 2000));
    const std::string dir = KsBench::scratchDir("registry");
    const std::string store = dir + "/registry.sqlite";
    Engine::instanceInit(nullptr);
    Engine::instance().quietSet(true);
    RegistryStore::locationSet(QString::fromStdString(store));
    describe(count);

    // The peer: the same rows through the sqlite3 command, in one durable WAL transaction.
    const std::string sql = dir + "/peer.sql";
    {
        std::ofstream out(sql);
        out << "PRAGMA journal_mode=WAL;\nPRAGMA synchronous=FULL;\n"
               "CREATE TABLE IF NOT EXISTS v (key INTEGER, name TEXT COLLATE NOCASE, type INTEGER, data BLOB,"
               " PRIMARY KEY (key, name)) WITHOUT ROWID;\nBEGIN IMMEDIATE;\nDELETE FROM v;\n";
        for (int i = 0; i < count; ++i)
            out << "INSERT INTO v VALUES (3, 'Value " << i << "', 1, X'0011223344556677');\n";
        out << "COMMIT;\n";
    }
    const std::string n = std::to_string(count);
    const std::string peerName = "sqlite3 " + n + " inserts, 1 txn";
    const KsBench::Timed peer = KsBench::command("sqlite3 '" + dir + "/peer.sqlite' < '" + sql + "' > /dev/null");

    // Each row starts from the state its operation needs; reaching it is not timed.
    bool installed = false;
    const auto step = [&](const char* inWhat, bool inInstalledAfter, const std::function<bool()>& inWork) {
        bool ok = false;
        const double t = seconds(inWork, ok);
        if (!ok)
        {
            std::fprintf(stderr, "%s failed\n", inWhat);
            std::exit(2);
        }
        installed = inInstalledAfter;
        return t;
    };
    const auto install = [&] {
        return step("install", true, [] { return Engine::instance().productInstall("Bench", false).isOk(); });
    };
    const auto uninstall = [&] {
        return step("uninstall", false, [] { return Engine::instance().productUninstall("Bench").isOk(); });
    };
    const auto verify = [&] {
        return step("verify", true, [] { return Engine::instance().productVerify("Bench").isOk(); });
    };
    const auto state = [&](bool inInstalled) {
        return [&, inInstalled] {
            if (installed != inInstalled)
                inInstalled ? install() : uninstall();
        };
    };
    std::vector<KsBench::Result> rows;
    const struct
    {
        const char* what;
        bool installedBefore;
        KsBench::Timed work;
    } kinds[] = {{"install", false, install}, {"verify", true, verify}, {"uninstall", true, uninstall}};
    for (const auto& k : kinds)
    {
        KsBench::Comparison c;
        c.row = std::string(k.what) + " " + n + " registry values (one product)";
        c.target = 6.0;
        c.peerName = peerName;
        c.prepare = state(k.installedBefore);
        c.ours = k.work;
        c.peer = peer;
        rows.push_back(KsBench::compare(c));
    }
    state(false)();
    RegistryStore::close();
    // The install's own seconds, from the same rounds.
    KsBench::Result underASecond = rows.front();
    underASecond.row = "install " + n + " registry values, seconds";
    underASecond.peerName = "limit (s)";
    underASecond.target = 1.0;
    underASecond.median = underASecond.oursMedian;
    underASecond.min = underASecond.oursMin;
    underASecond.max = underASecond.oursMax;
    underASecond.peerMedian = 1.0;
    underASecond.pass = underASecond.median <= underASecond.target;
    rows.push_back(underASecond);
    const bool ok = KsBench::report(rows, "registry store");
    Engine::instanceShutdown();
    return ok ? 0 : 1;
}
