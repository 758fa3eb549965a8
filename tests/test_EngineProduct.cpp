// Product operations on real folders: installs that fetch only what the cache lacks, plugins,
// cycles and key resolution (the command-line suites cover install, repair and rollback).
#include "Cache.h"
#include "Common.h"
#include "Generator.h"
#include "KsTestSupport.h"
#include "Plugin.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

using namespace KsDeploy;

namespace
{
QStringList sCalls;

class RecordingPlugin : public Plugin
{
public:
    RecordingPlugin(const QString& inName, bool inFailPre) : Plugin(inName), mFailPre(inFailPre) {}
    McResult onInstallPre(const McHandle<ResourceProduct>&) override
    {
        sCalls << name() + ".pre";
        McResult r;
        if (mFailPre)
            r.makeBad(1);
        return r;
    }
    McResult onInstall(const McHandle<ResourceProduct>&) override
    {
        sCalls << name() + ".install";
        return McResult();
    }
    void onInstallPost(const McHandle<ResourceProduct>&, bool inFailed) override
    {
        sCalls << name() + (inFailed ? ".post(failed)" : ".post(ok)");
    }

private:
    bool mFailPre;
};

McHandle<Plugin> pluginA() { return McHandle<Plugin>(new RecordingPlugin("A", false)); }
McHandle<Plugin> pluginB() { return McHandle<Plugin>(new RecordingPlugin("B", false)); }
McHandle<Plugin> pluginBad() { return McHandle<Plugin>(new RecordingPlugin("Bad", true)); }

QMap<QString, QByteArray> snapshot(const QString& inRoot)
{
    QMap<QString, QByteArray> out;
    QDirIterator it(inRoot, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
    {
        const QString p = it.next();
        out.insert(p.mid(inRoot.size()), KsTest::readFile(p));
    }
    return out;
}

class EngineProductTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    QString p(const QString& inRel) { return mDir.path() + "/" + inRel; }
    Engine& e() { return Engine::instance(); }

    // The tree in src/, described as product inName installed at ${TARGET}.
    void describe(const QString& inName)
    {
        McHandle<ResourceFileDirectory> root;
        McDArray<McHandle<Resource>> generated;
        ASSERT_TRUE(Generator::generateFromDirectory(root, generated, p("src"), true, {}, {}).isOk());
        root->nameSet("${TARGET}");
        McHandle<ResourceProduct> product(new ResourceProduct);
        product->nameSet(inName);
        product->applicationDirectorySet(root);
    }

    // A sample tree, described as product "App" installed at ${TARGET}, published as
    // ".lzma" copies in publish/, with a fresh empty cache for the install.
    void publishSample()
    {
        KsTest::writeFile(p("src/readme.txt"), "read me\n");
        KsTest::writeFile(p("src/bin/tool"), QByteArray(100000, 'x'));
        KsTest::writeFile(p("src/data/empty.dat"), QByteArray());
        KsTest::writeFile(p("src/data/deep/a.bin"), QByteArray("\0\1\2\3", 4));
        QFile::setPermissions(p("src/bin/tool"), QFile::permissions(p("src/bin/tool")) | QFile::ExeOwner);

        describe("App");

        e().pathToCacheSet(p("publish"));
        ASSERT_TRUE(e().cache().retrieveFromDirectory(p("src"), true, {}, true).isOk());
        e().pathToCacheSet(p("cache"));
        e().cache().httpUrlAdd("file://" + p("publish"));
        e().configuration().valueSet("TARGET", p("target"), false);
    }
};
}

TEST_F(EngineProductTest, ManyFilesIntoAFreshFolderFetchOnlyWhatTheCacheLacks)
{
    // Enough files that the cache is listed once rather than asked per item, and that the
    // writers have more outstanding than they keep.
    for (int i = 0; i < 600; ++i)
        KsTest::writeFile(p(QStringLiteral("src/d%1/f%2.txt").arg(i % 3).arg(i)),
                          QByteArray::number(i * 7919).repeated(64));  // worth a ".lzma" copy
    QFile::setPermissions(p("src/d1/f1.txt"), QFile::permissions(p("src/d1/f1.txt")) | QFile::ExeOwner);
    KsTest::writeFile(p("src/d2/big.bin"), QByteArray("big file ").repeated(10000));
    describe("Many");
    e().configuration().valueSet("TARGET", p("target/deeper"), false);
    e().pathToCacheSet(p("publish"));
    ASSERT_TRUE(e().cache().retrieveFromDirectory(p("src"), true, {}, true).isOk());
    e().pathToCacheSet(p("cache"));
    e().cache().httpUrlAdd("file://" + p("publish"));
    for (int i = 0; i < 600; i += 2)
        ASSERT_TRUE(e().cache().retrieveFromFile(p(QStringLiteral("src/d%1/f%2.txt").arg(i % 3).arg(i)), false).isOk());

    // One published item that the cache lacks is gone: nothing may be left of the new folders.
    const QString lost = BufferID(scanFile(p("src/d1/f1.txt"))).toString();
    ASSERT_TRUE(QFile::rename(p("publish/" + lost + ".lzma"), p("lost.lzma")));
    {
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(e().productInstall("Many", false).isBad());
    }
    EXPECT_FALSE(QFileInfo::exists(p("target")));

    ASSERT_TRUE(QFile::rename(p("lost.lzma"), p("publish/" + lost + ".lzma")));
    ASSERT_TRUE(e().productInstall("Many", false).isOk());
    EXPECT_EQ(snapshot(p("src")), snapshot(p("target/deeper")));
    EXPECT_TRUE(QFileInfo(p("target/deeper/d1/f1.txt")).isExecutable());
    EXPECT_TRUE(e().productVerify("Many").isOk());
    // The big file written by the threads carries its digest for a later run; a small one does not.
    for (const char* name : {"d2/big.bin", "d0/f0.txt"})
    {
        const QString path = p(QStringLiteral("target/deeper/") + name);
        QxBase::FileStamp stamp;
        McLib::MD5 tagged;
        ASSERT_TRUE(QxBase::File::stampOf(path, stamp));
        const bool big = QLatin1String(name) == QLatin1String("d2/big.bin");
        EXPECT_EQ(big, installedFileTagged(QFile::encodeName(path).toStdString(), stamp, tagged)) << name;
        if (big)
        {
            EXPECT_EQ(scanFile(path), tagged);
        }
    }

    // Many files are written by worker threads. A file of the user's is replaced the usual way,
    // a folder in the way stops the install, and then every file goes back as it was.
    ASSERT_TRUE(e().productUninstall("Many").isOk());
    KsTest::writeFile(p("target/deeper/d0/f0.txt"), "the user's own");
    ASSERT_TRUE(QDir().mkpath(p("target/deeper/d2/f98.txt")));
    const auto before = snapshot(p("target"));
    {
        KsTest::FailureRecorder failures;
        EXPECT_TRUE(e().productInstall("Many", false).isBad());
    }
    EXPECT_EQ(before, snapshot(p("target")));
    EXPECT_TRUE(QFileInfo(p("target/deeper/d2/f98.txt")).isDir());
}

TEST_F(EngineProductTest, PluginsAreCalledLastFirstAndPreFailureStopsBeforeDownload)
{
    publishSample();
    Engine::pluginFactoryAdd("A", &pluginA);
    Engine::pluginFactoryAdd("B", &pluginB);
    Engine::pluginFactoryAdd("Bad", &pluginBad);
    ASSERT_TRUE(e().pluginRegister("A").isOk());
    ASSERT_TRUE(e().pluginRegister("B").isOk());
    sCalls.clear();
    ASSERT_TRUE(e().productInstall("App", false).isOk());
    EXPECT_EQ(QStringList({"B.pre", "A.pre", "B.install", "A.install", "B.post(ok)", "A.post(ok)"}), sCalls);

    QDir(p("target")).removeRecursively();
    QDir(p("cache")).removeRecursively();
    ASSERT_TRUE(e().pluginRegister("Bad").isOk());
    sCalls.clear();
    EXPECT_TRUE(e().productInstall("App", false).isBad());
    EXPECT_EQ(QStringList({"Bad.pre", "B.pre", "A.pre", "Bad.post(failed)", "B.post(failed)", "A.post(failed)"}),
              sCalls);
    EXPECT_FALSE(QFileInfo::exists(p("target/readme.txt")));
    EXPECT_TRUE(QDir(p("cache")).isEmpty()) << "nothing was downloaded";

    KsTest::FailureRecorder failures;
    EXPECT_TRUE(e().pluginRegister("kestraclient").isBad());
    EXPECT_TRUE(failures.hasMessage("kestraclient"));
    EXPECT_TRUE(failures.hasCondition("cond[plugin.isNotNull()]"));
}

TEST_F(EngineProductTest, CyclesFailOutsideRollbackAndMissingProducts)
{
    KsTest::FailureRecorder failures;
    e().configuration().valueSet("TARGET", p("t"), false);
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet("Loop");
    McHandle<ResourceFileDirectory> a(new ResourceFileDirectory);
    McHandle<ResourceFileDirectory> b(new ResourceFileDirectory);
    a->nameSet("${TARGET}/a");
    b->nameSet("b");
    product->applicationDirectorySet(a);
    a->linkAdd(*b, "Peer");
    b->containerSet(a);
    EXPECT_TRUE(e().productInstall("Loop", false).isBad());
    EXPECT_TRUE(failures.hasCondition("cond[numLeft0>numLeft1]"));

    failures.clear();
    EXPECT_TRUE(e().productVerify("Nothing").isBad());
    EXPECT_TRUE(failures.hasCondition("cond[resProduct.isNotNull()]"));
    EXPECT_TRUE(e().productUninstall("Loop").isOk()) << "uninstall always ends, cycles or not";
}

TEST_F(EngineProductTest, ResolveReplacesAKeyEverywhere)
{
    e().configuration().valueSet("ROOT", "/opt/x", false);
    e().configuration().valueSet("OTHER", "${ROOT}/y", false);
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet("R");
    McHandle<ResourceFileDirectory> d(new ResourceFileDirectory);
    d->nameSet("${ROOT}/app");
    product->applicationDirectorySet(d);
    ASSERT_TRUE(e().productResolve("R", {"ROOT"}).isOk());
    EXPECT_EQ("/opt/x/app", d->name());
    EXPECT_EQ("/opt/x/y", e().configuration().value("OTHER"));
    KsTest::FailureRecorder failures;
    EXPECT_TRUE(e().productResolve("R", {"UNDEFINED"}).isBad());
    EXPECT_TRUE(failures.hasMessage("configuration key 'UNDEFINED' is not defined"));
}

TEST_F(EngineProductTest, FilesTheWorkerThreadsCouldNotCreateAreInstalledTheUsualWay)
{
    // Enough files for the worker threads; two targets are the user's own files already.
    for (int i = 0; i < 100; ++i)
        KsTest::writeFile(p(QStringLiteral("src/f%1.txt").arg(i)), QByteArray::number(i));
    describe("Many");
    e().configuration().valueSet("TARGET", p("target"), false);
    e().pathToCacheSet(p("cache"));
    ASSERT_TRUE(e().cache().retrieveFromDirectory(p("src"), false, {}, false).isOk());
    KsTest::writeFile(p("target/f3.txt"), "the user's own");
    KsTest::writeFile(p("target/f97.txt"), "the user's own");
    ASSERT_TRUE(e().productInstall("Many", false).isOk());
    EXPECT_EQ(snapshot(p("src")), snapshot(p("target")));
    EXPECT_TRUE(e().productVerify("Many").isOk());
}
