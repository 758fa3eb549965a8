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
class RegistryTest : public KsTest::RegistryEngineTest
{
protected:
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

}
