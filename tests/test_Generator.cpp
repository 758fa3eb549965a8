// Generators: a registry key tree into key and value resources that install the same tree again,
// and a directory tree into directory and file-entry resources.
#include "Generator.h"
#include "KsTestSupport.h"
#include "RegistryStore.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <map>

using namespace KsDeploy;
using KsPlatform::RegistryRoot;

namespace
{
class GeneratorTest : public KsTest::RegistryEngineTest
{
protected:
    void put(const std::string& inKey, const std::string& inName, unsigned long inType, const std::string& inData)
    {
        ASSERT_TRUE(registry().keyCreate(RegistryRoot::CurrentUser, inKey).isOk());
        ASSERT_TRUE(registry().valueSet(RegistryRoot::CurrentUser, inKey, inName, inType, inData).isOk());
    }
    // Every key and value below a key, as "path|name|type|bytes" lines.
    void dump(const std::string& inKey, std::vector<std::string>& outLines)
    {
        std::vector<KsPlatform::RegistryValue> values;
        ASSERT_TRUE(registry().values(RegistryRoot::CurrentUser, inKey, values).isOk());
        outLines.push_back(inKey);
        for (const auto& v : values)
            outLines.push_back(inKey + "|" + v.name + "|" + std::to_string(v.type) + "|" + v.data);
        std::vector<std::string> keys;
        ASSERT_TRUE(registry().subKeys(RegistryRoot::CurrentUser, inKey, keys).isOk());
        for (const auto& k : keys)
            dump(inKey + "\\" + k, outLines);
    }
    void deleteTree(const std::string& inKey)
    {
        std::vector<std::string> keys;
        ASSERT_TRUE(registry().subKeys(RegistryRoot::CurrentUser, inKey, keys).isOk());
        for (const auto& k : keys)
            deleteTree(inKey + "\\" + k);
        ASSERT_TRUE(registry().keyDelete(RegistryRoot::CurrentUser, inKey).isOk());
    }
    // A live tree under HKEY_CURRENT_USER\Software\Gen.
    void liveTree()
    {
        put("Software\\Gen", "", 1, "default");
        put("Software\\Gen", "Count", 4, std::string("\x07\x00\x00\x00", 4));
        put("Software\\Gen", "Blob", 3, std::string("\x00\xff", 2));
        put("Software\\Gen\\S1", "Path", 2, "%HOME%\\x");
        put("Software\\Gen\\S1\\Deep", "Big", 11, std::string("\x01\x00\x00\x00\x00\x00\x00\x80", 8));
        ASSERT_TRUE(registry().keyCreate(RegistryRoot::CurrentUser, "Software\\Gen\\S2").isOk());
    }
};

TEST_F(GeneratorTest, RegistryTreeGeneratesResourcesThatInstallItAgain)
{
    liveTree();
    std::vector<std::string> before;
    dump("Software\\Gen", before);

    McDArray<McHandle<Resource>> chain;
    McHandle<ResourceRegistryKey> gen;
    ASSERT_TRUE(Generator::registryKeyChain("HKEY_CURRENT_USER\\Software\\Gen", chain, gen).isOk());
    ASSERT_EQ(3, chain.size());
    EXPECT_EQ("HKEY_CURRENT_USER\\Software\\Gen", gen->path());

    KsTest::LogRecorder log;
    McDArray<McHandle<Resource>> out;
    ASSERT_TRUE(Generator::generateFromRegistry(gen, out, true).isOk());
    // Values of a key first, then each subkey followed by what lies below it.
    QStringList paths;
    for (int64_t i = 0; i < out.size(); ++i)
        paths << out[i]->path();
    EXPECT_EQ(QStringList({"HKEY_CURRENT_USER\\Software\\Gen\\", "HKEY_CURRENT_USER\\Software\\Gen\\Blob",
                           "HKEY_CURRENT_USER\\Software\\Gen\\Count", "HKEY_CURRENT_USER\\Software\\Gen\\S1",
                           "HKEY_CURRENT_USER\\Software\\Gen\\S1\\Path", "HKEY_CURRENT_USER\\Software\\Gen\\S1\\Deep",
                           "HKEY_CURRENT_USER\\Software\\Gen\\S1\\Deep\\Big", "HKEY_CURRENT_USER\\Software\\Gen\\S2"}),
              paths);
    std::vector<std::string> traced;
    for (const auto& l : log.lines())
        if (l.text.find("found") != std::string::npos || l.text.find("scan:") != std::string::npos)
            traced.push_back(l.text);
    ASSERT_GE(traced.size(), 4u);
    EXPECT_EQ("scan: HKEY_CURRENT_USER\\Software\\Gen", traced[0]);
    EXPECT_EQ("  found value []", traced[1]);
    EXPECT_EQ("  found value [Blob]", traced[2]);
    EXPECT_NE(traced.end(), std::find(traced.begin(), traced.end(), "  found key [S1]"));
    const auto* blob = dynamic_cast<ResourceRegistryValue*>(out[1].ptr());
    ASSERT_NE(nullptr, blob);
    EXPECT_EQ("00ff", blob->value());
    EXPECT_EQ(gen.ptr(), blob->container().ptr());

    // The generated graph as a product puts the same tree back after it was removed.
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet("Gen");
    product->linkAdd(*chain[0], "Registry");
    chain[0]->deleteOnUninstallSet(false);
    chain[1]->deleteOnUninstallSet(false);
    deleteTree("Software\\Gen");
    ASSERT_TRUE(e().productInstall("Gen", false).isOk());
    std::vector<std::string> after;
    dump("Software\\Gen", after);
    EXPECT_EQ(before, after);
    EXPECT_TRUE(e().productVerify("Gen").isOk());
    ASSERT_TRUE(e().productUninstall("Gen").isOk());
    EXPECT_TRUE(registry().keyOpen(RegistryRoot::CurrentUser, "Software\\Gen").isBad());
    EXPECT_TRUE(registry().keyOpen(RegistryRoot::CurrentUser, "Software").isOk());
}

// ---- directory half ----------------------------------------------------------------------

QStringList names(const McDArray<McHandle<Resource>>& inResources)
{
    QStringList out;
    for (int64_t i = 0; i < inResources.size(); ++i)
        out << QString::fromLatin1(dynamic_cast<ResourceFileEntry*>(inResources[i].ptr()) ? "f:" : "d:") +
                   QDir(inResources[i]->path()).dirName();
    out.sort();
    return out;
}

TEST_F(GeneratorTest, DirectoryTreeWithFiltersLinksAndExcludes)
{
    KsTest::writeFile(p("src/run.sh"), "#!/bin/sh\n");
    QFile::setPermissions(p("src/run.sh"), QFile::permissions(p("src/run.sh")) | QFile::ExeGroup);
    KsTest::writeFile(p("src/notes.txt"), "n");
    KsTest::writeFile(p("src/sub/deep.txt"), "d");
    KsTest::writeFile(p("src/sub/skip.o"), "o");
    QDir().mkpath(p("src/empty"));
    QDir().mkpath(p("outside"));
    KsTest::writeFile(p("outside/secret.txt"), "s");
    QFile::link(p("outside/secret.txt"), p("src/link.txt"));
    QFile::link(p("outside"), p("src/linkdir"));

    McHandle<ResourceFileDirectory> root;
    McDArray<McHandle<Resource>> out;
    ASSERT_TRUE(Generator::generateFromDirectory(root, out, p("src"), true, {}, {"*.o"}).isOk());
    // The caller names the top directory.
    root->nameSet(p("src"));
    // Symbolic links are never followed, excluded names are left out.
    EXPECT_EQ(QStringList({"d:empty", "d:src", "d:sub", "f:deep.txt", "f:notes.txt", "f:run.sh"}), names(out));
    for (int64_t i = 0; i < out.size(); ++i)
    {
        auto* f = dynamic_cast<ResourceFileEntry*>(out[i].ptr());
        if (!f)
            continue;
        EXPECT_EQ(f->name() == "run.sh", f->isExecutable()) << f->name().toStdString();
        if (f->name() == "deep.txt")
        {
            EXPECT_EQ("8277e0910d750195b448797616e091ad", f->bufferId().toString().toStdString());
        }
    }

    // Filters that match no file still give the sub-directories.
    McHandle<ResourceFileDirectory> root2;
    McDArray<McHandle<Resource>> out2;
    ASSERT_TRUE(Generator::generateFromDirectory(root2, out2, p("src"), true, {"*.none"}, {}).isOk());
    root2->nameSet(p("src"));
    EXPECT_EQ(QStringList({"d:empty", "d:src", "d:sub"}), names(out2));

    // An empty directory: just itself.
    McHandle<ResourceFileDirectory> root3;
    McDArray<McHandle<Resource>> out3;
    ASSERT_TRUE(Generator::generateFromDirectory(root3, out3, p("src/empty"), false, {}, {}).isOk());
    root3->nameSet(p("src/empty"));
    EXPECT_EQ(QStringList({"d:empty"}), names(out3));

    KsTest::FailureRecorder failures;
    McHandle<ResourceFileDirectory> root4;
    EXPECT_TRUE(Generator::generateFromDirectory(root4, out3, p("missing"), true, {}, {}).isBad());
    EXPECT_TRUE(failures.hasCondition("cond[dir.exists()]"));
}
}
