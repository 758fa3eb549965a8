// Registry keys and values carried out through the engine on a private store: every value type
// down to its raw bytes, the canonical text form, bad input refused before anything is written,
// one store transaction per product operation (rollback, a killed install, a second process).
#include "KsTestSupport.h"
#include "Plugin.h"
#include "RegistryStore.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsDeploy;
using Type = ResourceRegistryValue::Type;

namespace
{
class RegistryTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    QByteArray mEnvEntry;

    void SetUp() override
    {
        mEnvEntry = "KSDEPLOY_REGISTRY=" + store().toLocal8Bit();
        char* env[] = {mEnvEntry.data(), nullptr};
        Engine::instanceInit(env);
        Engine::instance().quietSet(true);
    }
    void TearDown() override
    {
        RegistryStore::close();
        KsTest::EngineTest::TearDown();
    }

    QString store() const { return mDir.path() + "/registry.sqlite"; }
    Engine& e() { return Engine::instance(); }

    // A connection of its own, so that what is seen is what reached the file.
    std::unique_ptr<KsPlatform::Registry> openStore()
    {
        KsPlatform::Status status;
        std::unique_ptr<KsPlatform::Registry> r = KsPlatform::Registry::open(store().toStdString(), status);
        EXPECT_TRUE(status.isOk()) << status.text;
        return r;
    }
    bool keyExists(const std::string& inFullPath)
    {
        KsPlatform::RegistryRoot root;
        std::string sub;
        EXPECT_TRUE(KsPlatform::registrySplitPath(inFullPath, root, sub));
        return openStore()->keyOpen(root, sub).isOk();
    }
    // Raw type and bytes of a value; false when it does not exist.
    bool raw(const std::string& inKeyPath, const std::string& inName, unsigned long& outType, std::string& outData)
    {
        KsPlatform::RegistryRoot root;
        std::string sub;
        EXPECT_TRUE(KsPlatform::registrySplitPath(inKeyPath, root, sub));
        return openStore()->valueQuery(root, sub, inName, outType, outData).isOk();
    }
    std::string rawData(const std::string& inKeyPath, const std::string& inName)
    {
        unsigned long type = 0;
        std::string data;
        raw(inKeyPath, inName, type, data);
        return data;
    }

    static McHandle<ResourceRegistryKey> key(const QString& inName, const McHandle<ResourceRegistryKey>& inParent)
    {
        McHandle<ResourceRegistryKey> k(new ResourceRegistryKey);
        k->nameSet(inName);
        if (inParent.isNotNull())
            k->containerSet(inParent);
        return k;
    }
    static McHandle<ResourceRegistryValue> value(const McHandle<ResourceRegistryKey>& inKey, const QString& inName,
                                                 Type inType, const QString& inText)
    {
        McHandle<ResourceRegistryValue> v(new ResourceRegistryValue);
        v->nameSet(inName);
        v->typeSet(inType);
        v->valueSet(inText);
        v->containerSet(inKey);
        return v;
    }
    // Product "App" owning the key chain HKEY_CURRENT_USER\Software\Kestra Test (Software is
    // shared and stays on uninstall); returns the product's own key.
    McHandle<ResourceRegistryKey> productKey(const QString& inProduct = "App")
    {
        McHandle<ResourceRegistryKey> root = key("HKEY_CURRENT_USER", McHandle<ResourceRegistryKey>());
        root->deleteOnUninstallSet(false);
        McHandle<ResourceRegistryKey> software = key("Software", root);
        software->deleteOnUninstallSet(false);
        McHandle<ResourceProduct> product(new ResourceProduct);
        product->nameSet(inProduct);
        product->linkAdd(*root, "Registry");
        return key("Kestra Test", software);
    }
    // A value that was there before the product: written through a product of its own,
    // whose resources leave the pool again.
    void preinstall(const QString& inName, const QString& inText)
    {
        McHandle<ResourceRegistryKey> k = productKey("Before");
        ASSERT_TRUE(k->install().isOk());
        ASSERT_TRUE(value(k, inName, ResourceRegistryValue::TYPE_SZ, inText)->install().isOk());
        e().productUnregisterResources("Before");
    }
};

const std::string sAppKey = "HKEY_CURRENT_USER\\Software\\Kestra Test";

TEST_F(RegistryTest, EveryTypeInstallsItsBytesVerifiesAndUninstalls)
{
    McHandle<ResourceRegistryKey> app = productKey();
    McHandle<ResourceRegistryKey> sub = key("Sub", app);
    value(app, "", ResourceRegistryValue::TYPE_SZ, "default text");
    value(app, "Name", ResourceRegistryValue::TYPE_SZ, QString::fromLatin1("Caf\xe9"));
    value(app, "Path", ResourceRegistryValue::TYPE_EXPAND_SZ, "%HOME%\\bin");
    value(app, "List", ResourceRegistryValue::TYPE_MULTI_SZ, "one\\0two\\0");
    value(app, "Link", ResourceRegistryValue::TYPE_LINK, "\\Registry\\Machine\\x");
    value(app, "Blob", ResourceRegistryValue::TYPE_BINARY, "00ff10Ab");
    value(app, "Minus", ResourceRegistryValue::TYPE_DWORD, "-1");
    value(sub, "Big", ResourceRegistryValue::TYPE_QWORD, "-9000000000");

    ASSERT_TRUE(e().productInstall("App", false).isOk());

    unsigned long type = 0;
    std::string data;
    ASSERT_TRUE(raw(sAppKey, "", type, data));
    EXPECT_EQ(1ul, type);
    EXPECT_EQ("default text", data);
    EXPECT_EQ("Caf\xe9", rawData(sAppKey, "name")) << "names compare without regard to case";
    ASSERT_TRUE(raw(sAppKey, "Path", type, data));
    EXPECT_EQ(2ul, type);
    // The parts are concatenated bare: no separator, no terminator.
    EXPECT_EQ("onetwo", rawData(sAppKey, "List"));
    EXPECT_EQ(std::string("\x00\xff\x10\xab", 4), rawData(sAppKey, "Blob"));
    ASSERT_TRUE(raw(sAppKey, "Minus", type, data));
    EXPECT_EQ(4ul, type);
    EXPECT_EQ(std::string("\xff\xff\xff\xff", 4), data);
    ASSERT_TRUE(raw(sAppKey + "\\Sub", "Big", type, data));
    EXPECT_EQ(11ul, type);
    const long long big = -9000000000LL;
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&big), 8), data);

    EXPECT_TRUE(e().productVerify("App").isOk());

    ASSERT_TRUE(e().productUninstall("App").isOk());
    EXPECT_FALSE(keyExists(sAppKey + "\\Sub"));
    EXPECT_FALSE(keyExists(sAppKey));
    EXPECT_TRUE(keyExists("HKEY_CURRENT_USER\\Software")) << "a shared key stays";
    {
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(e().productVerify("App").isBad());
        EXPECT_TRUE(failures.hasCondition("val[2]  exp[0]"));
    }
    // Uninstalling what is gone already is no failure.
    EXPECT_TRUE(e().productUninstall("App").isOk());
}

TEST_F(RegistryTest, SqliteCommandReadsTheStore)
{
    McHandle<ResourceRegistryKey> app = productKey();
    value(app, "Version", ResourceRegistryValue::TYPE_SZ, "1.2");
    value(app, "Count", ResourceRegistryValue::TYPE_DWORD, "258");
    ASSERT_TRUE(e().productInstall("App", false).isOk());

    QProcess sqlite;
    sqlite.start("sqlite3", {"-readonly", store(),
                             "SELECT k.name, v.name, v.type, hex(v.data) FROM registry_value v JOIN registry_key k ON "
                             "k.id = v.key ORDER BY v.name"});
    ASSERT_TRUE(sqlite.waitForFinished(30000));
    EXPECT_EQ(0, sqlite.exitCode()) << sqlite.readAllStandardError().toStdString();
    EXPECT_EQ(QByteArray("Kestra Test|Count|4|02010000\nKestra Test|Version|1|312E32\n"), sqlite.readAllStandardOutput());
}

TEST_F(RegistryTest, TextFormRoundTripsAndIsCanonical)
{
    struct Case
    {
        Type type;
        const char* text;
        const char* canonical;
    };
    const Case cases[] = {
        {ResourceRegistryValue::TYPE_SZ, "plain", "plain"},
        {ResourceRegistryValue::TYPE_SZ, "", ""},
        {ResourceRegistryValue::TYPE_EXPAND_SZ, "%TEMP%\\x", "%TEMP%\\x"},
        {ResourceRegistryValue::TYPE_BINARY, "DEADbeef00", "deadbeef00"},
        {ResourceRegistryValue::TYPE_BINARY, "", ""},
        {ResourceRegistryValue::TYPE_DWORD, "007", "7"},
        {ResourceRegistryValue::TYPE_DWORD, "-2147483648", "-2147483648"},
        {ResourceRegistryValue::TYPE_DWORD, "2147483647", "2147483647"},
        {ResourceRegistryValue::TYPE_QWORD, "-9223372036854775808", "-9223372036854775808"},
        {ResourceRegistryValue::TYPE_QWORD, "+42", "42"},
    };
    for (const Case& c : cases)
    {
        const QByteArray bytes = ResourceRegistryValue::binaryFromString(c.text, c.type);
        EXPECT_EQ(QString(c.canonical), ResourceRegistryValue::binaryToString(bytes, c.type)) << c.text;
        EXPECT_EQ(bytes, ResourceRegistryValue::binaryFromString(c.canonical, c.type)) << c.text;
    }
    // Bytes read from a live registry: one terminating zero dropped, inner zeros written "\0".
    EXPECT_EQ("a\\0b", ResourceRegistryValue::binaryToString(QByteArray("a\0b\0", 4), ResourceRegistryValue::TYPE_MULTI_SZ));
    EXPECT_EQ(QString::fromLatin1("\xe9t\xe9"),
              ResourceRegistryValue::binaryToString(QByteArray("\xe9t\xe9"), ResourceRegistryValue::TYPE_SZ));
    // Data of the wrong size for a number never reads as a number.
    EXPECT_EQ("0102", ResourceRegistryValue::binaryToString(QByteArray("\1\2", 2), ResourceRegistryValue::TYPE_DWORD));
}

TEST_F(RegistryTest, VerifyComparesCanonicallyAndNamesWhatDiffers)
{
    McHandle<ResourceRegistryKey> app = productKey();
    McHandle<ResourceRegistryValue> blob = value(app, "Blob", ResourceRegistryValue::TYPE_BINARY, "FF");
    McHandle<ResourceRegistryValue> num = value(app, "Num", ResourceRegistryValue::TYPE_DWORD, "5");
    ASSERT_TRUE(e().productInstall("App", false).isOk());

    blob->valueSet("ff");
    num->valueSet("005");
    EXPECT_TRUE(e().productVerify("App").isOk());

    {
        KsTest::FailureRecorder failures;
        blob->valueSet("fe");
        EXPECT_TRUE(blob->verify().isBad());
        EXPECT_TRUE(failures.hasCondition("cond[currValue==value()]"));
        EXPECT_FALSE(failures.hasCondition("cond[currType==type()]"));
    }
    {
        // Same bytes, other type.
        KsTest::FailureRecorder failures;
        McHandle<ResourceRegistryValue> asBinary = value(app, "Num", ResourceRegistryValue::TYPE_BINARY, "05000000");
        EXPECT_TRUE(asBinary->verify().isBad());
        EXPECT_TRUE(failures.hasCondition("cond[currType==type()]"));
        EXPECT_FALSE(failures.hasCondition("cond[currValue==value()]"));
    }
}

TEST_F(RegistryTest, RootKeys)
{
    {
        // A predefined root needs nothing created and is never deleted.
        McHandle<ResourceRegistryKey> hklm = key("HKEY_LOCAL_MACHINE", McHandle<ResourceRegistryKey>());
        EXPECT_TRUE(hklm->install().isOk());
        EXPECT_TRUE(hklm->verify().isOk());
        EXPECT_TRUE(hklm->uninstall().isOk());
        EXPECT_TRUE(hklm->verify().isOk());
        std::vector<std::string> names;
        ASSERT_TRUE(openStore()->subKeys(KsPlatform::RegistryRoot::LocalMachine, "", names).isOk());
        EXPECT_TRUE(names.empty());
    }
    for (const char* bad : {"HKEY_NOWHERE", "hkey_current_user", ""})
    {
        KsTest::FailureRecorder failures;
        McHandle<ResourceRegistryKey> root = key(bad, McHandle<ResourceRegistryKey>());
        McHandle<ResourceRegistryKey> sub = key("Software", root);
        McHandle<ResourceRegistryValue> v = value(sub, "x", ResourceRegistryValue::TYPE_SZ, "y");
        EXPECT_TRUE(sub->install().isBad()) << bad;
        EXPECT_TRUE(v->install().isBad()) << bad;
        EXPECT_TRUE(sub->verify().isBad()) << bad;
        EXPECT_TRUE(failures.hasCondition("cond[hkeyCurr!=((HKEY)(LONG_PTR)-1)]")) << bad;
    }
}

TEST_F(RegistryTest, VerifyOfAMissingParentFailsInstallCreatesTheChain)
{
    McHandle<ResourceRegistryKey> app = productKey();
    McHandle<ResourceRegistryKey> deep = key("Deep", app);
    {
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(deep->verify().isBad());
        EXPECT_TRUE(failures.hasCondition("val[2]  exp[0]"));
        EXPECT_TRUE(failures.hasMessage("registry key 'HKEY_CURRENT_USER\\Software' does not exist"));
    }
    ASSERT_TRUE(deep->install().isOk());
    EXPECT_TRUE(keyExists(sAppKey + "\\Deep"));
    EXPECT_TRUE(deep->verify().isOk());

    // A value needs its key installed first.
    McHandle<ResourceRegistryValue> orphan = value(key("Missing", app), "v", ResourceRegistryValue::TYPE_SZ, "x");
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(orphan->install().isBad());
    EXPECT_FALSE(keyExists(sAppKey + "\\Missing"));
}

TEST_F(RegistryTest, BadValuesAreRefusedAndTheOldValueStays)
{
    McHandle<ResourceRegistryKey> app = productKey();
    ASSERT_TRUE(app->install().isOk());
    ASSERT_TRUE(value(app, "V", ResourceRegistryValue::TYPE_SZ, "old")->install().isOk());

    struct Case
    {
        Type type;
        const char* text;
        const char* message;
    };
    const Case cases[] = {
        {ResourceRegistryValue::TYPE_BINARY, "abc", "\"abc\" has an odd number of hexadecimal digits"},
        {ResourceRegistryValue::TYPE_BINARY, "zz", "\"zz\" is not hexadecimal digits"},
        {ResourceRegistryValue::TYPE_DWORD, "twelve", "\"twelve\" is not a decimal 32-bit number"},
        {ResourceRegistryValue::TYPE_DWORD, "4294967296", "\"4294967296\" is not a decimal 32-bit number"},
        {ResourceRegistryValue::TYPE_DWORD, "", "\"\" is not a decimal 32-bit number"},
        {ResourceRegistryValue::TYPE_QWORD, "1e3", "\"1e3\" is not a decimal 64-bit number"},
        {ResourceRegistryValue::TYPE_DWORD_BIG_ENDIAN, "1", "the value type TYPE_DWORD_BIG_ENDIAN is not supported"},
        {ResourceRegistryValue::TYPE_NONE, "", "the value type TYPE_NONE is not supported"},
        {ResourceRegistryValue::TYPE_SZ, nullptr, "the text holds characters beyond Latin-1"},
    };
    for (const Case& c : cases)
    {
        KsTest::FailureRecorder failures;
        McHandle<ResourceRegistryValue> v = value(app, "V", ResourceRegistryValue::TYPE_NONE, QString());
        v->typeSet(c.type);
        v->valueSet(c.text ? QString(c.text) : QString::fromUtf8("\xe2\x82\xac"));
        EXPECT_TRUE(v->install().isBad()) << c.message;
        EXPECT_TRUE(failures.hasMessage(std::string("registry value '") + sAppKey + "\\V': " + c.message)) << c.message;
        unsigned long type = 0;
        std::string data;
        ASSERT_TRUE(raw(sAppKey, "V", type, data));
        EXPECT_EQ(1ul, type);
        EXPECT_EQ("old", data);
    }
}

TEST_F(RegistryTest, ContractsOfTheTextConversionAndTheType)
{
    KsTest::ContractRecorder contracts;
    EXPECT_TRUE(ResourceRegistryValue::binaryFromString("abc", ResourceRegistryValue::TYPE_BINARY).isEmpty());
    EXPECT_TRUE(contracts.has("inValue.size()%2==0"));
    EXPECT_TRUE(ResourceRegistryValue::binaryFromString("x", ResourceRegistryValue::TYPE_DWORD).isEmpty());
    EXPECT_TRUE(contracts.has("ok"));
    EXPECT_TRUE(ResourceRegistryValue::binaryFromString("1", ResourceRegistryValue::TYPE_RESOURCE_LIST).isEmpty());
    EXPECT_TRUE(contracts.has("inType!=TYPE_RESOURCE_LIST"));
    EXPECT_TRUE(ResourceRegistryValue::binaryFromString("1", static_cast<Type>(42)).isEmpty());

    contracts.clear();
    McHandle<ResourceRegistryValue> v(new ResourceRegistryValue);
    v->typeSet(ResourceRegistryValue::TYPE_SZ);
    v->typeSet(ResourceRegistryValue::TYPE_SZ);
    EXPECT_TRUE(contracts.events().empty());
    v->typeSet(ResourceRegistryValue::TYPE_DWORD);
    EXPECT_TRUE(contracts.has("type()==TYPE_NONE || type()==inType"));
}

TEST_F(RegistryTest, KeyWithSubkeysIsNotDeleted)
{
    McHandle<ResourceRegistryKey> app = productKey();
    ASSERT_TRUE(key("Child", app)->install().isOk());
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(app->uninstall().isBad());
    EXPECT_TRUE(failures.hasCondition("val[5]  exp[0]"));
    EXPECT_TRUE(keyExists(sAppKey + "\\Child"));
}

TEST_F(RegistryTest, QueryReadsLiveKeysAndValues)
{
    McHandle<ResourceRegistryKey> app = productKey();
    value(app, "b", ResourceRegistryValue::TYPE_DWORD, "2");
    value(app, "A", ResourceRegistryValue::TYPE_BINARY, "0a0b");
    key("Zeta", app);
    key("alpha", app);
    ASSERT_TRUE(e().productInstall("App", false).isOk());

    McHandle<ResourceRegistryKey> live = key(QString::fromStdString(sAppKey), McHandle<ResourceRegistryKey>());
    McDArray<McHandle<ResourceRegistryValue>> values;
    ASSERT_TRUE(live->queryValues(values).isOk());
    ASSERT_EQ(2, values.size());
    EXPECT_EQ("A", values[0]->name());
    EXPECT_EQ(ResourceRegistryValue::TYPE_BINARY, values[0]->type());
    EXPECT_EQ("0a0b", values[0]->value());
    EXPECT_EQ("b", values[1]->name());
    EXPECT_EQ("2", values[1]->value());
    EXPECT_EQ(live.ptr(), values[1]->container().ptr());

    QHash<QString, McHandle<ResourceRegistryValue>> byName;
    ResourceRegistryKey::valuesArrayToHash(byName, values);
    EXPECT_EQ(values[1].ptr(), byName.value("b").ptr());
    {
        KsTest::ContractRecorder contracts;
        ResourceRegistryKey::valuesArrayToHash(byName, values);
        EXPECT_TRUE(contracts.has("!outValuesHash.contains(inValuesArray[i]->name())"));
        McDArray<McHandle<ResourceRegistryValue>> notEmpty = values;
        live->queryValues(notEmpty);
        EXPECT_TRUE(contracts.has("outValues.isEmptyArray()"));
    }

    McDArray<McHandle<ResourceRegistryKey>> keys;
    ASSERT_TRUE(live->querySubKeys(keys).isOk());
    ASSERT_EQ(2, keys.size());
    EXPECT_EQ("alpha", keys[0]->name());
    EXPECT_EQ("Zeta", keys[1]->name());
    EXPECT_EQ(QString::fromStdString(sAppKey + "\\Zeta"), keys[1]->path());

    KsTest::FailureRecorder failures;
    McDArray<McHandle<ResourceRegistryValue>> none;
    EXPECT_TRUE(key("Gone", live)->queryValues(none).isBad());
    EXPECT_TRUE(failures.hasCondition("cond[res==0L]"));
}

TEST_F(RegistryTest, FailedInstallLeavesTheRegistryAsItWas)
{
    preinstall("Setting", "user's");
    McHandle<ResourceRegistryKey> app = productKey();
    McHandle<ResourceRegistryKey> sub = key("New", app);
    McHandle<ResourceRegistryValue> setting = value(app, "Setting", ResourceRegistryValue::TYPE_SZ, "product's");
    McHandle<ResourceRegistryValue> added = value(sub, "Added", ResourceRegistryValue::TYPE_DWORD, "1");
    // Installed after the others, as it links to them: fails once they were written.
    McHandle<ResourceRegistryValue> bad = value(sub, "Broken", ResourceRegistryValue::TYPE_DWORD, "not a number");
    bad->linkAdd(*setting, "After");
    bad->linkAdd(*added, "After");

    KsTest::FailureRecorder failures;
    EXPECT_TRUE(e().productInstall("App", false).isBad());
    EXPECT_EQ("user's", rawData(sAppKey, "Setting"));
    EXPECT_FALSE(keyExists(sAppKey + "\\New"));
    EXPECT_TRUE(e().productResource("_App").isNull());

    // A good install afterwards lands whole.
    bad->valueSet("3");
    ASSERT_TRUE(e().productInstall("App", false).isOk());
    EXPECT_EQ("product's", rawData(sAppKey, "Setting"));
    EXPECT_EQ(std::string("\3\0\0\0", 4), rawData(sAppKey + "\\New", "Broken"));
}

TEST_F(RegistryTest, DamagedStoreIsNamedAndLeftAlone)
{
    const QByteArray garbage = QByteArray("SQLite format 3") + QByteArray(4096, '\x5a');
    KsTest::writeFile(store(), garbage);
    McHandle<ResourceRegistryKey> app = productKey();
    value(app, "V", ResourceRegistryValue::TYPE_SZ, "x");

    KsTest::FailureRecorder failures;
    EXPECT_TRUE(e().productInstall("App", false).isBad());
    bool named = false;
    for (const auto& f : failures.failures())
        named = named || (f.message.find(store().toStdString()) != std::string::npos &&
                          f.message.find("is damaged") != std::string::npos);
    EXPECT_TRUE(named);
    EXPECT_EQ(garbage, KsTest::readFile(store()));

    // A product without registry resources does not need the store at all.
    McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
    dir->nameSet(mDir.path() + "/files");
    McHandle<ResourceProduct> files(new ResourceProduct);
    files->nameSet("Files");
    files->applicationDirectorySet(dir);
    EXPECT_TRUE(e().productInstall("Files", false).isOk());
    EXPECT_TRUE(QFileInfo(mDir.path() + "/files").isDir());
}

TEST_F(RegistryTest, AnotherProcessHoldingTheStoreMakesUsWaitOrFailClearly)
{
    McHandle<ResourceRegistryKey> app = productKey();
    ASSERT_TRUE(app->install().isOk());
    RegistryStore::close();

    int toParent[2];
    int toChild[2];
    ASSERT_EQ(0, pipe(toParent));
    ASSERT_EQ(0, pipe(toChild));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        // The other process: writes in a transaction it keeps open until told to commit.
        KsPlatform::Status s;
        std::unique_ptr<KsPlatform::Registry> r = KsPlatform::Registry::open(store().toStdString(), s);
        if (!r || r->transactionBegin().isBad() ||
            r->valueSet(KsPlatform::RegistryRoot::CurrentUser, "Software\\Kestra Test", "Other", 1, "theirs").isBad())
            _exit(2);
        char c = 'h';
        (void)!write(toParent[1], &c, 1);
        (void)!read(toChild[0], &c, 1);
        _exit(r->transactionCommit().isOk() ? 0 : 3);
    }
    char c = 0;
    ASSERT_EQ(1, read(toParent[0], &c, 1));

    KsPlatform::Registry* ours = nullptr;
    ASSERT_TRUE(RegistryStore::instance(ours).isOk());
    ours->waitLimitSet(200);
    McHandle<ResourceRegistryValue> mine = value(app, "Mine", ResourceRegistryValue::TYPE_SZ, "ours");
    {
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(e().productInstall("App", false).isBad());
        EXPECT_TRUE(failures.hasCondition("val[170]  exp[0]"));
        EXPECT_TRUE(failures.hasMessage("registry store '" + store().toStdString() +
                                        "' is in use by another process (starting a change; gave up after 200 ms)"));
    }
    c = 'c';
    ASSERT_EQ(1, write(toChild[1], &c, 1));
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]})
        close(fd);

    ASSERT_TRUE(e().productInstall("App", false).isOk());
    EXPECT_EQ("theirs", rawData(sAppKey, "Other"));
    EXPECT_EQ("ours", rawData(sAppKey, "Mine"));
}

// Tells the parent how many values the open transaction holds, then waits to be killed.
int sKillPipe = -1;
class StopBeforeCommit : public Plugin
{
public:
    StopBeforeCommit() : Plugin("StopBeforeCommit") {}
    McResult onInstall(const McHandle<ResourceProduct>&) override
    {
        KsPlatform::Registry* r = nullptr;
        std::vector<KsPlatform::RegistryValue> values;
        int count = -1;
        if (RegistryStore::instance(r).isOk() &&
            r->values(KsPlatform::RegistryRoot::CurrentUser, "Software\\Kestra Test", values).isOk())
            count = static_cast<int>(values.size());
        (void)!write(sKillPipe, &count, sizeof(count));
        for (;;)
            pause();
    }
};

TEST_F(RegistryTest, KilledInstallLeavesTheStoreAsBefore)
{
    Engine::pluginFactoryAdd("StopBeforeCommit", [] { return McHandle<Plugin>(new StopBeforeCommit); });
    preinstall("Kept", "before");
    McHandle<ResourceRegistryKey> app = productKey();
    RegistryStore::close();
    const int n = 500;
    for (int i = 0; i < n; ++i)
        value(app, QStringLiteral("v%1").arg(i), ResourceRegistryValue::TYPE_DWORD, QString::number(i));
    value(app, "Kept", ResourceRegistryValue::TYPE_SZ, "after");

    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        sKillPipe = fds[1];
        e().pluginRegister("StopBeforeCommit");
        e().productInstall("App", false);
        _exit(1);
    }
    int seen = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(seen)), read(fds[0], &seen, sizeof(seen)));
    EXPECT_EQ(n + 1, seen) << "every value was written when the process died";
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    close(fds[0]);
    close(fds[1]);

    std::vector<KsPlatform::RegistryValue> values;
    ASSERT_TRUE(openStore()->values(KsPlatform::RegistryRoot::CurrentUser, "Software\\Kestra Test", values).isOk());
    ASSERT_EQ(1u, values.size());
    EXPECT_EQ("before", values[0].data);

    // The store is whole: the same install in this process lands completely.
    ASSERT_TRUE(e().productInstall("App", false).isOk());
    EXPECT_EQ("after", rawData(sAppKey, "Kept"));
    EXPECT_EQ(std::string("\x2b\x00\x00\x00", 4), rawData(sAppKey, "v43"));
}
}
