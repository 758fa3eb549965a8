// Shortcut resources through the engine: ".lnk" shell links read by lnkinfo, ".desktop"
// entries accepted by desktop-file-validate, verify by file identity, and the failures that
// must leave the shortcut folder as it was.
#include "Cache.h"
#include "Generator.h"
#include "KsTestSupport.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
class ShortcutTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    McHandle<ResourceFileDirectory> mApp;
    McHandle<ResourceFileDirectory> mLinks;
    McHandle<ResourceFileEntry> mProgram;

    QString p(const QString& inRel) const { return mDir.path() + "/" + inRel; }

    // An installed program "app/bin/run" and a folder for shortcuts.
    void SetUp() override
    {
        KsTest::EngineTest::SetUp();
        KsTest::writeFile(p("app/bin/run"), "#!/bin/sh\n");
        QDir().mkpath(p("links"));
        mApp = new ResourceFileDirectory;
        mApp->nameSet(p("app"));
        McHandle<ResourceFileDirectory> bin(new ResourceFileDirectory);
        bin->nameSet("bin");
        bin->containerSet(mApp);
        mProgram = new ResourceFileEntry;
        mProgram->nameSet("run");
        mProgram->containerSet(bin);
        mLinks = new ResourceFileDirectory;
        mLinks->nameSet(p("links"));
    }

    McHandle<ResourceFileShortcut> shortcut(const QString& inName, const QString& inArgs, const QString& inDesc)
    {
        McHandle<ResourceFileShortcut> s(new ResourceFileShortcut);
        s->nameSet(inName);
        s->containerSet(mLinks);
        s->targetSet(mProgram);
        s->workingDirSet(mApp);
        s->argumentsSet(inArgs);
        s->descriptionSet(inDesc);
        return s;
    }
};

TEST_F(ShortcutTest, VerifyNamesWhatDiffersAndComparesTheTargetByIdentity)
{
    for (const char* name : {"a.lnk", "a.desktop"})
    {
        McHandle<ResourceFileShortcut> s = shortcut(name, "-x", "desc");
        ASSERT_TRUE(s->install().isOk()) << name;
        {
            KsTest::FailureRecorder failures;
            s->descriptionSet("other");
            EXPECT_TRUE(s->verify().isBad());
            EXPECT_TRUE(failures.hasCondition("cond[description()==( QString::fromLatin1(buf) )]")) << name;
            EXPECT_FALSE(failures.hasCondition("cond[arguments()==( QString::fromLatin1(buf) )]")) << name;
            s->descriptionSet("desc");
        }
        {
            KsTest::FailureRecorder failures;
            s->argumentsSet("-y");
            EXPECT_TRUE(s->verify().isBad());
            EXPECT_TRUE(failures.hasCondition("cond[arguments()==( QString::fromLatin1(buf) )]")) << name;
            s->argumentsSet("-x");
        }
        // The same program under another spelling of its folder still verifies ...
        QFile::link(p("app"), p("app-alias"));
        mApp->nameSet(p("app-alias/../app-alias"));
        EXPECT_TRUE(s->verify().isOk()) << name;
        // ... another program does not.
        KsTest::writeFile(p("other/bin/run"), "#!/bin/sh\n");
        mApp->nameSet(p("other"));
        {
            KsTest::FailureRecorder failures;
            EXPECT_TRUE(s->verify().isBad());
            EXPECT_TRUE(failures.hasCondition("cond[pathsPointToTheSameFile(expected,( QString::fromLatin1(buf) ))]"))
                << name;
        }
        mApp->nameSet(p("app"));
        QFile::remove(p("app-alias"));
    }
}

TEST_F(ShortcutTest, BadInputIsReportedAndWritesNothing)
{
    KsTest::writeFile(p("links/old.lnk"), "the user's old shortcut");
    {
        // The program is not there: no shortcut to nowhere, and the old one stays.
        QFile::remove(p("app/bin/run"));
        KsTest::FailureRecorder failures;
        McHandle<ResourceFileShortcut> s = shortcut("old.lnk", "", "");
        EXPECT_TRUE(s->install().isBad());
        EXPECT_TRUE(failures.hasMessage("the target '" + p("app/bin/run").toStdString() + "' of the shortcut '" +
                                        p("links/old.lnk").toStdString() + "' is missing (No such file or directory)"));
        EXPECT_EQ(QByteArray("the user's old shortcut"), KsTest::readFile(p("links/old.lnk")));
        KsTest::writeFile(p("app/bin/run"), "#!/bin/sh\n");
    }
    {
        KsTest::FailureRecorder failures;
        McHandle<ResourceFileShortcut> s = shortcut("start.url", "", "");
        EXPECT_TRUE(s->install().isBad());
        EXPECT_TRUE(failures.hasMessage("'" + p("links/start.url").toStdString() +
                                        "': a shortcut's name must end in \".lnk\" or \".desktop\""));
    }
    {
        KsTest::ContractRecorder contracts;
        KsTest::FailureRecorder failures;
        McHandle<ResourceFileShortcut> s = shortcut("long.lnk", QString(1025, 'a'), QString(1024, 'd'));
        EXPECT_TRUE(s->install().isBad());
        EXPECT_TRUE(contracts.has("arguments().size() <= 1024"));
        EXPECT_FALSE(contracts.has("description().size() <= 1024"));
        EXPECT_TRUE(failures.hasMessage("shortcut '" + p("links/long.lnk").toStdString() +
                                        "': arguments and description are limited to 1024 characters"));
        // At the limit both are written whole.
        s->argumentsSet(QString(1024, 'a'));
        ASSERT_TRUE(s->install().isOk());
        EXPECT_TRUE(s->verify().isOk());
        EXPECT_TRUE(s->uninstall().isOk());
    }
    {
        KsTest::FailureRecorder failures;
        McHandle<ResourceFileShortcut> s(new ResourceFileShortcut);
        s->nameSet("loose.lnk");
        s->targetSet(mProgram);
        EXPECT_TRUE(s->install().isBad());
        EXPECT_TRUE(s->uninstall().isBad());
        EXPECT_TRUE(failures.hasCondition("cond[myDir.isNotNull()]"));
    }
    {
        KsTest::FailureRecorder failures;
        McHandle<ResourceFileShortcut> s = shortcut("notarget.lnk", "", "");
        s->targetSet(McHandle<ResourceFileEntry>());
        EXPECT_TRUE(s->install().isBad());
        EXPECT_TRUE(failures.hasCondition("cond[entry.isNotNull()]"));
    }
    const QStringList left = QDir(p("links")).entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(QStringList{"old.lnk"}, left);
}

TEST_F(ShortcutTest, ProductInstallsShortcutsAfterTheirTargetAndUninstallRemovesThem)
{
    Engine& e = Engine::instance();
    KsTest::writeFile(p("src/run"), "#!/bin/sh\necho hi\n");
    McHandle<ResourceFileDirectory> root;
    McDArray<McHandle<Resource>> generated;
    ASSERT_TRUE(Generator::generateFromDirectory(root, generated, p("src"), false, {}, {}).isOk());
    root->nameSet("${TARGET}");
    McHandle<ResourceFileEntry> program;
    for (int64_t i = 0; i < generated.size(); ++i)
        if (auto* f = dynamic_cast<ResourceFileEntry*>(generated[i].ptr()))
            program = f;
    ASSERT_TRUE(program.isNotNull());
    McHandle<ResourceProduct> product(new ResourceProduct);
    product->nameSet("App");
    product->applicationDirectorySet(root);
    McHandle<ResourceFileDirectory> menu(new ResourceFileDirectory);
    menu->nameSet("menu");
    menu->containerSet(root);
    for (const char* name : {"App.lnk", "app.desktop"})
    {
        McHandle<ResourceFileShortcut> s(new ResourceFileShortcut);
        s->nameSet(name);
        s->containerSet(menu);
        s->targetSet(program);
        s->workingDirSet(root);
        s->descriptionSet("The app");
    }
    e.pathToCacheSet(p("publish"));
    ASSERT_TRUE(e.cache().retrieveFromDirectory(p("src"), true, {}, true).isOk());
    e.pathToCacheSet(p("cache"));
    e.cache().httpUrlAdd("file://" + p("publish"));
    e.configuration().valueSet("TARGET", p("target"), false);

    ASSERT_TRUE(e.productInstall("App", false).isOk());
    EXPECT_TRUE(QFileInfo(p("target/menu/App.lnk")).isFile());
    EXPECT_TRUE(QFileInfo(p("target/menu/app.desktop")).isFile());
    EXPECT_TRUE(e.productVerify("App").isOk());
    ASSERT_TRUE(e.productUninstall("App").isOk());
    EXPECT_FALSE(QFileInfo::exists(p("target")));
}
}
