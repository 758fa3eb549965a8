// Large graphs read and written on two threads: the same bytes, the same pool and the same
// reports as on one, and the one-thread way whenever the split could mislead.
#include "KsTestSupport.h"
#include "ResourceFactory.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"
#include "XmlSerializer.h"

#include <QCoreApplication>
#include <QDir>
#include <QHash>
#include <QProcess>
#include <QTemporaryDir>

#include <cstdlib>
#include <limits>
#include <unistd.h>

using namespace KsDeploy;

namespace
{
const int64_t sNever = std::numeric_limits<int64_t>::max();

// Everything a load leaves that anyone could see.
struct Outcome
{
    bool ok = false;
    std::vector<std::string> pool;
    std::vector<int64_t> order;
    std::vector<std::string> reports;
    std::string printed;
    int64_t parallel = 0;
};

bool operator==(const Outcome& inA, const Outcome& inB)
{
    return inA.ok == inB.ok && inA.pool == inB.pool && inA.order == inB.order && inA.reports == inB.reports &&
           inA.printed == inB.printed;
}

class XmlSerializerParallelTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    QString file(const QString& inName) { return mDir.path() + "/" + inName; }

    static void poolEmpty()
    {
        McDArray<McHandle<Resource>> all;
        Engine::instance().resources(all);
        for (int64_t i = 0; i < all.size(); ++i)
            all[i]->linkRemoveTo(nullptr);
        Engine::instance().resourceUnregisterAll();
    }

    // The pool after a load, resource by resource: class, every property, links by the pool
    // position of their targets.
    static std::vector<std::string> poolPrint(QHash<const Resource*, int64_t>& outAt)
    {
        McDArray<McHandle<Resource>> all;
        Engine::instance().resources(all);
        outAt.clear();
        for (int64_t i = 0; i < all.size(); ++i)
            outAt.insert(all[i].ptr(), i);
        std::vector<std::string> lines;
        for (int64_t i = 0; i < all.size(); ++i)
        {
            QString line = ResourceFactory::className(all[i].ptr());
            McDArray<PropertyBase<Resource>*> props;
            all[i]->properties(props);
            for (int64_t p = 0; p < props.size(); ++p)
            {
                QString value = props[p]->read(all[i].ptr());
                // An identity drawn at random differs from load to load.
                if (props[p]->name() == QLatin1String("UUID") && !value.startsWith(QLatin1String("{00000000-")))
                    value = QStringLiteral("drawn");
                line += QStringLiteral(" %1=%2").arg(props[p]->name(), value);
            }
            for (const McHandle<Link>& l : all[i]->links())
                line += QStringLiteral(" ->%1@%2").arg(l->name()).arg(outAt.value(l->targetPtr(), -1));
            // Looked up by identity, a resource finds the one the pool gives for it.
            line += QStringLiteral(" found@%1").arg(outAt.value(Engine::instance().resource(all[i]->uuid()), -1));
            lines.push_back(line.toStdString());
        }
        return lines;
    }

    Outcome load(const QString& inPath, bool inParallel)
    {
        poolEmpty();
        XmlSerializer::parallelLoadBytesSet(inParallel ? 0 : sNever);
        const int64_t before = XmlSerializer::parallelLoads();
        Outcome out;
        McDArray<McHandle<Resource>> loaded;
        {
            KsTest::FailureRecorder failures;
            KsTest::ContractRecorder contracts;
            KsTest::LogRecorder log;
            testing::internal::CaptureStdout();
            XmlSerializer s;
            out.ok = s.deserialize(inPath, loaded).isOk();
            out.printed = testing::internal::GetCapturedStdout();
            for (const KsTest::Failure& f : failures.failures())
                out.reports.push_back("failure " + f.message + " " + f.condition + " " + f.detail);
            for (const KsTest::ContractEvent& c : contracts.events())
                out.reports.push_back("contract " + c.condition);
            for (const KsTest::LogLine& l : log.lines())
                out.reports.push_back("log " + std::to_string(l.level) + " " + l.text);
        }
        QHash<const Resource*, int64_t> at;
        out.pool = poolPrint(at);
        for (int64_t i = 0; i < loaded.size(); ++i)
            out.order.push_back(at.value(loaded[i].ptr(), -1));
        out.parallel = XmlSerializer::parallelLoads() - before;
        return out;
    }

    // Loads a file both ways; true when the two-thread way was taken.
    bool loadsAlike(const QString& inPath)
    {
        const Outcome one = load(inPath, false);
        const Outcome two = load(inPath, true);
        EXPECT_EQ(0, one.parallel);
        EXPECT_TRUE(one == two) << "one thread:\n"
                                << one.printed << one.pool.size() << " resources, " << one.reports.size()
                                << " reports\ntwo threads:\n"
                                << two.printed << two.pool.size() << " resources, " << two.reports.size() << " reports";
        for (size_t i = 0; i < std::min(one.pool.size(), two.pool.size()); ++i)
            if (one.pool[i] != two.pool[i])
            {
                ADD_FAILURE() << "first difference at " << i << ":\n" << one.pool[i] << "\n" << two.pool[i];
                break;
            }
        for (size_t i = 0; i < std::min(one.reports.size(), two.reports.size()); ++i)
            if (one.reports[i] != two.reports[i])
            {
                ADD_FAILURE() << "first report difference:\n" << one.reports[i] << "\n" << two.reports[i];
                break;
            }
        return two.parallel == 1;
    }

    // A graph of every class, with text in its values that the writer must escape.
    static void graphMake(int inFiles)
    {
        const QString odd = QStringLiteral("a&b<c>\"q\" 'r' ]]> \t tab\nline\r\u00e9 \u65e5\u672c \U0001F600 ");
        McHandle<ResourceFileDirectory> root(new ResourceFileDirectory);
        root->nameSet(QStringLiteral("${TARGET}"));
        McHandle<ResourceProduct> product(new ResourceProduct);
        product->nameSet(QStringLiteral("Big ") + odd);
        product->applicationDirectorySet(root);
        McDArray<McHandle<ResourceFileDirectory>> dirs;
        McHandle<ResourceRegistryKey> key(new ResourceRegistryKey);
        key->nameSet(QStringLiteral("HKEY_CURRENT_USER\\Software\\App"));
        for (int i = 0; i < inFiles; ++i)
        {
            if (i % 50 == 0)
            {
                McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
                dir->nameSet(QStringLiteral("dir %1 \u00e9&<>").arg(i));
                dir->containerSet(dirs.size() == 0 ? root : dirs[dirs.size() / 2]);
                dir->deleteOnUninstallSet(i % 100 == 0);
                dirs.append(dir);
            }
            McHandle<ResourceFileEntry> entry(new ResourceFileEntry);
            entry->nameSet(QStringLiteral("file%1 &<>\"' \u65e5.dat").arg(i));
            entry->containerSet(dirs.last());
            entry->isExecutableSet(i % 3 == 0);
            entry->absenceSet(i % 7 == 0);
            if (i % 5 != 0)
                entry->bufferIdSet(BufferID::fromString(QStringLiteral("%1").arg(i, 32, 16, QLatin1Char('0'))));
            if (i % 10 == 0)
            {
                McHandle<ResourceFileShortcut> s(new ResourceFileShortcut);
                s->nameSet(QStringLiteral("s%1.lnk").arg(i));
                s->argumentsSet(odd + QString::number(i));
                s->descriptionSet(odd);
                s->containerSet(dirs[0]);
                s->targetSet(entry);
                s->workingDirSet(dirs.last());
            }
            if (i % 10 == 5)
            {
                McHandle<ResourceRegistryValue> v(new ResourceRegistryValue);
                v->nameSet(QStringLiteral("v%1 \\ \u00e9").arg(i));
                v->typeSet(i % 20 == 5 ? ResourceRegistryValue::TYPE_SZ : ResourceRegistryValue::TYPE_DWORD);
                v->valueSet(i % 20 == 5 ? odd : QString::number(i));
                v->containerSet(key);
            }
        }
    }

    // Saves the pool into inPath one way, expecting a failure; what was reported.
    static std::vector<std::string> saveFailing(const QString& inPath, bool inParallel)
    {
        McDArray<McHandle<Resource>> all;
        Engine::instance().resources(all);
        XmlSerializer::parallelSaveCountSet(inParallel ? 2 : sNever);
        KsTest::FailureRecorder failures;
        XmlSerializer s;
        EXPECT_TRUE(s.serialize(inPath, all).isBad());
        std::vector<std::string> reports;
        for (const KsTest::Failure& f : failures.failures())
            reports.push_back(f.message + " " + f.condition + " " + f.detail);
        return reports;
    }

    // Lines of resource elements, each with its own identity.
    static QByteArray directories(int inFrom, int inCount)
    {
        QByteArray out;
        for (int i = inFrom; i < inFrom + inCount; ++i)
            out += QStringLiteral("    <ResourceFileDirectory UUID=\"{00000000-0000-4000-8000-%1}\" Name=\"d%2\"/>\n")
                       .arg(i, 12, 10, QLatin1Char('0'))
                       .arg(i)
                       .toUtf8();
        return out;
    }
};
}

TEST_F(XmlSerializerParallelTest, ALargeGraphIsSavedToTheSameBytesAndLoadedToTheSamePool)
{
    graphMake(3000);
    McDArray<McHandle<Resource>> all;
    Engine::instance().resources(all);
    ASSERT_GT(all.size(), 3000);

    XmlSerializer s;
    XmlSerializer::parallelSaveCountSet(sNever);
    ASSERT_TRUE(s.serialize(file("one.xml"), all).isOk());
    const int64_t before = XmlSerializer::parallelSaves();
    XmlSerializer::parallelSaveCountSet(2);
    ASSERT_TRUE(s.serialize(file("two.xml"), all).isOk());
    EXPECT_EQ(1, XmlSerializer::parallelSaves() - before);
    const QByteArray one = KsTest::readFile(file("one.xml"));
    const QByteArray two = KsTest::readFile(file("two.xml"));
    ASSERT_GT(one.size(), 100000);
    EXPECT_TRUE(one == two) << "first difference at byte "
                            << std::mismatch(one.begin(), one.end(), two.begin(), two.end()).first - one.begin();
    // Each split of a small graph too, down to one resource on each side.
    for (int64_t n : {2, 3, 4, 7})
    {
        McDArray<McHandle<Resource>> few;
        for (int64_t i = 0; i < n; ++i)
            few.append(all[all.size() - 1 - i * 13]);
        XmlSerializer::parallelSaveCountSet(sNever);
        ASSERT_TRUE(s.serialize(file("few1.xml"), few).isOk());
        XmlSerializer::parallelSaveCountSet(2);
        ASSERT_TRUE(s.serialize(file("few2.xml"), few).isOk());
        EXPECT_EQ(KsTest::readFile(file("few1.xml")), KsTest::readFile(file("few2.xml"))) << n;
    }
    const int64_t count = all.size();
    all.clear();

    EXPECT_TRUE(loadsAlike(file("one.xml")));
    const Outcome loaded = load(file("one.xml"), true);
    ASSERT_EQ(static_cast<size_t>(count), loaded.pool.size());
    EXPECT_NE(std::string::npos, loaded.pool[1].find("Name=Big a&b<c>\"q\" 'r' ]]> \t tab\nline\r")) << loaded.pool[1];
}

TEST_F(XmlSerializerParallelTest, TheRootsDeclarationEncodingAndAttributesCarryIntoTheSecondHalf)
{
    // Latin-1 bytes in the second half read as the declaration says, under a root with
    // attributes and namespaces, after a comment and an instruction.
    QByteArray text = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<!-- made by hand -->\n<?keep this?>\n"
                      "<Deploy xmlns:k=\"urn:k\" k:v=\"1\">\n";
    text += directories(0, 60);
    text += "    <ResourceFileDirectory UUID=\"{00000000-0000-4000-8000-0000000000ff}\" Name=\"caf\xe9\"/>\n";
    text += directories(60, 20);
    text += "</Deploy>\n<!-- after -->\n";
    KsTest::writeFile(file("latin.xml"), text);
    EXPECT_TRUE(loadsAlike(file("latin.xml")));
    poolEmpty();
    XmlSerializer::parallelLoadBytesSet(0);
    McDArray<McHandle<Resource>> loaded;
    XmlSerializer s;
    s.deserialize(file("latin.xml"), loaded);
    ASSERT_EQ(81, loaded.size());
    EXPECT_EQ(QStringLiteral("caf\u00e9"), loaded[60]->name());
}

TEST_F(XmlSerializerParallelTest, LinksAndSharedIdentitiesResolveAcrossTheHalves)
{
    // The first half links forward into the second; an identity given in the first half is
    // given again in the second, where the later one wins, as everywhere in the pool.
    QByteArray text = "<Deploy>\n";
    text += "    <Link Source=\"{00000000-0000-4000-8000-000000000001}\" "
            "Target=\"{00000000-0000-4000-8000-000000000070}\" Name=\"Container\"/>\n";
    text += "    <Link Source=\"{00000000-0000-4000-8000-000000000002}\" "
            "Target=\"{00000000-0000-4000-8000-000000000005}\" Name=\"Container\"/>\n";
    text += directories(0, 40);
    text += directories(40, 40);
    text += directories(5, 1);
    text += "    <Link Source=\"{00000000-0000-4000-8000-000000000075}\" "
            "Target=\"{00000000-0000-4000-8000-000000000005}\" Name=\"Container\"/>\n";
    // A source's links keep the file's order, wherever in the file they stand.
    text += "    <Link Source=\"{00000000-0000-4000-8000-000000000001}\" "
            "Target=\"{00000000-0000-4000-8000-000000000003}\" Name=\"Other\"/>\n";
    text += "</Deploy>\n";
    KsTest::writeFile(file("links.xml"), text);
    EXPECT_TRUE(loadsAlike(file("links.xml")));
    const Outcome two = load(file("links.xml"), true);
    ASSERT_EQ(81u, two.pool.size());
    EXPECT_NE(std::string::npos, two.pool[1].find("->Container@70 ->Other@3")) << two.pool[1];
    EXPECT_NE(std::string::npos, two.pool[2].find("->Container@80")) << two.pool[2];
    EXPECT_NE(std::string::npos, two.pool[5].find("found@80")) << two.pool[5];
}

TEST_F(XmlSerializerParallelTest, ASplitThatCouldMisleadFallsBackToTheOrdinaryReading)
{
    // The line the split lands on looks like an element but is inside a comment, inside CDATA,
    // after a document type declaration; or the second half is damaged, or holds what the
    // ordinary reading reports. Each time the pool, the reports and the printed error are the
    // one-thread reading's.
    const QByteArray inner = directories(100, 60);
    const QByteArray head = "<?xml version=\"1.0\"?>\n<Deploy>\n";
    const std::vector<std::pair<const char*, QByteArray>> cases = {
        {"comment", head + directories(0, 20) + "<!--\n" + inner + "-->\n" + directories(20, 20) + "</Deploy>\n"},
        {"cdata", head + directories(0, 20) + "<![CDATA[\n" + inner + "]]>\n" + directories(20, 20) + "</Deploy>\n"},
        {"instruction", head + directories(0, 20) + "<?x\n" + inner + "?>\n" + directories(20, 20) + "</Deploy>\n"},
        {"doctype", "<?xml version=\"1.0\"?>\n<!DOCTYPE Deploy [<!ENTITY e \"/e\">]>\n<Deploy>\n" + directories(0, 40) +
                        "    <ResourceFileDirectory Name=\"&e;\"/>\n" + directories(40, 40) + "</Deploy>\n"},
        {"damaged", head + directories(0, 40) + directories(40, 20) + "    <ResourceFileDirectory Name=\"/x\">\n" +
                        directories(60, 20) + "</Deploy>\n"},
        {"nested", head + directories(0, 20) + "    <Deploy>\n" + inner + "    </Deploy>\n" + directories(20, 20) +
                       "</Deploy>\n"},
        {"unknown element",
         head + directories(0, 40) + "    <ResourceNothing/>\n" + directories(40, 40) + "</Deploy>\n"},
        {"unknown attribute",
         head + directories(0, 40) + "    <ResourceFileDirectory Nme=\"x\"/>\n" + directories(40, 40) + "</Deploy>\n"},
        {"odd values", head + directories(0, 40) +
                           "    <ResourceRegistryValue Type=\"TYPE_WHAT\"/>\n"
                           "    <ResourceFileEntry MD5=\"xyz\" Executable=\"yes\"/>\n" +
                           directories(40, 40) + "</Deploy>\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.first);
        KsTest::writeFile(file("f.xml"), c.second);
        EXPECT_FALSE(loadsAlike(file("f.xml")));
    }
    // Without the trouble, the same files are read on two threads.
    KsTest::writeFile(file("g.xml"), head + directories(0, 20) + inner + directories(20, 20) + "</Deploy>\n");
    EXPECT_TRUE(loadsAlike(file("g.xml")));
}

TEST_F(XmlSerializerParallelTest, EveryKeptFuzzInputReadsAlikeBothWays)
{
    // The fuzzer compares both readings of every input; its findings are replayed the same way.
    const QString folder = QStringLiteral(KSDEPLOY_SOURCE_DIR "/fuzz/regressions");
    const QStringList kept = QDir(folder).entryList(QDir::Files, QDir::Name);
    ASSERT_FALSE(kept.isEmpty()) << "no inputs in " << folder.toStdString();
    for (const QString& name : kept)
    {
        SCOPED_TRACE(name.toStdString());
        loadsAlike(folder + "/" + name);
    }
    poolEmpty();
}

// A save that cannot be written reports what the one-thread save reports and leaves nothing:
// a missing folder, and a full file system (a 64 KiB tmpfs, mounted in a private mount
// namespace of a child run).
TEST_F(XmlSerializerParallelTest, AFailedSaveReportsAsTheOrdinaryOneAndLeavesNothing)
{
    if (const char* root = std::getenv("KS_XML_FULL_ROOT"))
    {
        const QString full = QString::fromLocal8Bit(root);
        graphMake(3000);
        const int64_t before = XmlSerializer::parallelSaves();
        const std::vector<std::string> one = saveFailing(full + "/g.xml", false);
        const std::vector<std::string> two = saveFailing(full + "/g.xml", true);
        ASSERT_EQ(1u, one.size());
        EXPECT_EQ(("failed to write file [" + full + "/g.xml] cond[d->mSaveFile.commit()] ").toStdString(), one[0]);
        EXPECT_EQ(one, two);
        EXPECT_EQ(0, XmlSerializer::parallelSaves() - before) << "the full disk was met on two threads";
        EXPECT_EQ(QStringList(), QDir(full).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot));
        return;
    }
    graphMake(3000);
    EXPECT_EQ(saveFailing(file("no/such/folder/g.xml"), false), saveFailing(file("no/such/folder/g.xml"), true));

    if (geteuid() != 0 || std::system("command -v unshare >/dev/null") != 0)
        GTEST_SKIP() << "a private mount namespace needs root and unshare";
    ASSERT_TRUE(QDir().mkpath(file("full")));
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("KS_XML_FULL_ROOT", file("full"));
    child.setProcessEnvironment(env);
    child.setStandardOutputFile(QProcess::nullDevice());
    child.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    child.start("unshare",
                {"-m", "sh", "-c", "mount -t tmpfs -o size=64k ksfull \"$KS_XML_FULL_ROOT\" || exit 99; exec \"$@\"",
                 "sh", QCoreApplication::applicationFilePath(),
                 "--gtest_filter=XmlSerializerParallelTest.AFailedSaveReportsAsTheOrdinaryOneAndLeavesNothing"});
    ASSERT_TRUE(child.waitForFinished(120000));
    if (child.exitCode() == 99)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(QProcess::NormalExit, child.exitStatus());
    EXPECT_EQ(0, child.exitCode()) << "the child run's checks failed";
}
