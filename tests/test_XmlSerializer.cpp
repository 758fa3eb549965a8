// The resource file: exact format, round trips and damaged input.
#include "KsTestSupport.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"
#include "XmlSerializer.h"

#include <QDirIterator>
#include <QTemporaryDir>

using namespace KsDeploy;

namespace
{
class XmlSerializerTest : public KsTest::EngineTest
{
protected:
    QTemporaryDir mDir;
    QString file(const QString& inName) { return mDir.path() + "/" + inName; }

    McResult load(const QString& inPath, McDArray<McHandle<Resource>>& out)
    {
        XmlSerializer s;
        return s.deserialize(inPath, out);
    }
};

const char* const sUuidA = "{00000000-0000-4000-8000-00000000000a}";
const char* const sUuidB = "{00000000-0000-4000-8000-00000000000b}";
}

TEST_F(XmlSerializerTest, WritesTheExactFormat)
{
    McHandle<ResourceFileDirectory> d(new ResourceFileDirectory);
    d->uuidSet(QUuid(sUuidA));
    d->nameSet("${APP}");
    McHandle<ResourceFileEntry> f(new ResourceFileEntry);
    f->uuidSet(QUuid(sUuidB));
    f->nameSet("a&b<c>\"q\".txt");
    f->bufferIdSet(BufferID::fromString("d41d8cd98f00b204e9800998ecf8427e"));
    f->containerSet(d);
    McDArray<McHandle<Resource>> arr;
    arr.append(McHandle<Resource>(d.ptr()));
    arr.append(McHandle<Resource>(f.ptr()));
    XmlSerializer s;
    ASSERT_TRUE(s.serialize(file("p.xml"), arr).isOk());
    EXPECT_EQ(
        std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                    "<Deploy>\n"
                    "    <ResourceFileDirectory UUID=\"{00000000-0000-4000-8000-00000000000a}\" Absence=\"false\" "
                    "DeleteOnUninstall=\"true\" Name=\"${APP}\"/>\n"
                    "    <ResourceFileEntry UUID=\"{00000000-0000-4000-8000-00000000000b}\" "
                    "MD5=\"d41d8cd98f00b204e9800998ecf8427e\" Absence=\"false\" DeleteOnUninstall=\"true\" "
                    "Name=\"a&amp;b&lt;c&gt;&quot;q&quot;.txt\" Executable=\"false\"/>\n"
                    "    <Link Source=\"{00000000-0000-4000-8000-00000000000b}\" "
                    "Target=\"{00000000-0000-4000-8000-00000000000a}\" Name=\"Container\"/>\n"
                    "</Deploy>\n"),
        KsTest::readFile(file("p.xml")).toStdString());

    McDArray<McHandle<Resource>> none;
    ASSERT_TRUE(s.serialize(file("empty.xml"), none).isOk());
    EXPECT_EQ(QByteArray("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Deploy/>\n"),
              KsTest::readFile(file("empty.xml")));
}

TEST_F(XmlSerializerTest, RoundTripOfEveryClassGivesTheSameBytes)
{
    McHandle<ResourceProduct> p(new ResourceProduct);
    p->nameSet("App");
    McHandle<ResourceFileDirectory> d(new ResourceFileDirectory);
    d->nameSet("/opt/app");
    d->deleteOnUninstallSet(false);
    McHandle<ResourceFileEntry> f(new ResourceFileEntry);
    f->nameSet("run");
    f->isExecutableSet(true);
    f->absenceSet(true);
    f->containerSet(d);
    McHandle<ResourceFileShortcut> s(new ResourceFileShortcut);
    s->nameSet("App.lnk");
    s->argumentsSet("--fast \"x y\"");
    s->descriptionSet("Starts the app");
    s->containerSet(d);
    s->targetSet(f);
    s->workingDirSet(d);
    McHandle<ResourceRegistryKey> k(new ResourceRegistryKey);
    k->nameSet("HKEY_CURRENT_USER\\Software\\App");
    McHandle<ResourceRegistryValue> v(new ResourceRegistryValue);
    v->nameSet("");
    v->typeSet(ResourceRegistryValue::TYPE_DWORD);
    v->valueSet("42");
    v->containerSet(k);
    p->applicationDirectorySet(d);
    McDArray<McHandle<Resource>> arr;
    for (Resource* r : std::initializer_list<Resource*>{p.ptr(), d.ptr(), f.ptr(), s.ptr(), k.ptr(), v.ptr()})
        arr.append(McHandle<Resource>(r));
    XmlSerializer writer;
    ASSERT_TRUE(writer.serialize(file("a.xml"), arr).isOk());

    // Load into a fresh pool and save again: identical bytes.
    Engine::instance().resourceUnregisterAll();
    McDArray<McHandle<Resource>> loaded;
    ASSERT_TRUE(load(file("a.xml"), loaded).isOk());
    ASSERT_EQ(6, loaded.size());
    const ResourceFileShortcut* ls = dynamic_cast<ResourceFileShortcut*>(loaded[3].ptr());
    ASSERT_NE(nullptr, ls);
    EXPECT_EQ("--fast \"x y\"", ls->arguments());
    EXPECT_EQ(loaded[2].ptr(), ls->target().ptr());
    EXPECT_EQ(loaded[1].ptr(), ls->workingDir().ptr());
    EXPECT_EQ(s->uuid(), ls->uuid());
    ASSERT_TRUE(writer.serialize(file("b.xml"), loaded).isOk());
    EXPECT_EQ(KsTest::readFile(file("a.xml")), KsTest::readFile(file("b.xml")));
}

TEST_F(XmlSerializerTest, LinksResolveForwardAcrossFilesAndOnce)
{
    KsTest::FailureRecorder failures;
    KsTest::LogRecorder log;
    KsTest::writeFile(file("links.xml"), QByteArray("<Deploy>\n"
                                                    "<Link Source=\"") +
                                             sUuidB + "\" Target=\"" + sUuidA +
                                             "\" Name=\"Container\"/>\n"
                                             "<Link Source=\"" +
                                             sUuidB + "\" Target=\"" + sUuidA +
                                             "\" Name=\"Container\"/>\n"
                                             "<ResourceFileEntry UUID=\"" +
                                             sUuidB +
                                             "\" Name=\"f\"/>\n"
                                             "<Link Source=\"" +
                                             sUuidB +
                                             "\" Target=\"{00000000-0000-4000-8000-0000000000ff}\" Name=\"X\"/>\n"
                                             "</Deploy>\n");
    KsTest::writeFile(file("dir.xml"),
                      QByteArray("<Deploy><ResourceFileDirectory UUID=\"") + sUuidA + "\" Name=\"/d\"/></Deploy>");
    McDArray<McHandle<Resource>> loaded;
    ASSERT_TRUE(load(file("dir.xml"), loaded).isOk());
    ASSERT_TRUE(load(file("links.xml"), loaded).isOk());
    ASSERT_EQ(2, loaded.size());
    EXPECT_EQ(1u, loaded[1]->linkCount());
    EXPECT_EQ("/d/f", loaded[1]->path());
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("Unable to resolve resource UUID '{00000000-0000-4000-8000-0000000000ff}'",
              failures.failures()[0].message);
    EXPECT_EQ("cond[false]", failures.failures()[0].condition);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(("load: " + file("links.xml") + " [res: 2, lnk: 1]").toStdString(), log.lines().back().text);
}

TEST_F(XmlSerializerTest, ElementsTakeTheIdentityTheyGiveInTheWrittenFormOnly)
{
    KsTest::ContractRecorder contracts;
    // The second directory gives no identity, the third one in a form never written, the
    // fourth the null one; the link names its ends in forms QUuid reads but never writes.
    KsTest::writeFile(file("ids.xml"),
                      QByteArray("<Deploy><ResourceFileDirectory UUID=\"") + sUuidA +
                          "\" Name=\"/a\"/>"
                          "<ResourceFileDirectory Name=\"/b\"/>"
                          "<ResourceFileDirectory UUID=\"{00000000-0000-4000-8000-00000000000A}\" Name=\"/c\"/>"
                          "<ResourceFileDirectory UUID=\"{00000000-0000-0000-0000-000000000000}\" Name=\"/d\"/>"
                          "<ResourceFileEntry UUID=\"" +
                          sUuidB +
                          "\" Name=\"f\"/>"
                          "<Link Source=\"00000000-0000-4000-8000-00000000000B\" "
                          "Target=\"{00000000-0000-4000-8000-00000000000A}\" Name=\"Container\"/></Deploy>");
    McDArray<McHandle<Resource>> loaded;
    ASSERT_TRUE(load(file("ids.xml"), loaded).isOk());
    ASSERT_EQ(5, loaded.size());
    Engine& engine = Engine::instance();
    EXPECT_EQ(5, engine.resourceCount());
    EXPECT_EQ(QUuid(sUuidA), loaded[0]->uuid());
    EXPECT_EQ(loaded[0].ptr(), engine.resource(QUuid(sUuidA)));
    // Those without a usable identity draw their own, never one given to another element.
    for (int i : {1, 2})
    {
        EXPECT_FALSE(loaded[i]->uuid().isNull()) << i;
        EXPECT_NE(QUuid(sUuidA), loaded[i]->uuid()) << i;
        EXPECT_EQ(loaded[i].ptr(), engine.resource(loaded[i]->uuid())) << i;
    }
    EXPECT_NE(loaded[1]->uuid(), loaded[2]->uuid());
    EXPECT_EQ(1u, contracts.count("text form of the value")) << "only the upper-case identity is refused";
    EXPECT_TRUE(loaded[3]->uuid().isNull());
    EXPECT_EQ(loaded[3].ptr(), engine.resource(QUuid()));
    const ResourceFileEntry* f = dynamic_cast<ResourceFileEntry*>(loaded[4].ptr());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ(loaded[0].ptr(), f->container().ptr());

    // Saved again, each identity is written as the resource holds it.
    McDArray<McHandle<Resource>> one;
    one.append(loaded[4]);
    XmlSerializer s;
    ASSERT_TRUE(s.serialize(file("f.xml"), one).isOk());
    EXPECT_TRUE(
        KsTest::readFile(file("f.xml"))
            .contains(QByteArray("<Link Source=\"") + sUuidB + "\" Target=\"" + sUuidA + "\" Name=\"Container\"/>"));
}

TEST_F(XmlSerializerTest, OnlyWhatIsRefusedIsReported)
{
    KsTest::FailureRecorder failures;
    KsTest::writeFile(file("r.xml"),
                      "<Deploy><ResourceCommand/><ResourceFileDirectory Nme=\"x\" Name=\"/a\"/>"
                      "<ResourceFileEntry Name=\"f\" MD5=\"d41d8cd98f00b204e9800998ecf8427e\"/></Deploy>");
    McDArray<McHandle<Resource>> loaded;
    ASSERT_TRUE(load(file("r.xml"), loaded).isOk());
    ASSERT_EQ(2, loaded.size());
    ASSERT_EQ(2u, failures.failures().size());
    EXPECT_EQ("unknown element [ResourceCommand]", failures.failures()[0].message);
    EXPECT_EQ("cond[ResourceFactory::isRegistered( name )]", failures.failures()[0].condition);
    EXPECT_EQ("unknown attribute [Nme]", failures.failures()[1].message);
    EXPECT_EQ("cond[prop!=0]", failures.failures()[1].condition);
    EXPECT_EQ("/a", loaded[0]->name());
    const ResourceFileEntry* f = dynamic_cast<ResourceFileEntry*>(loaded[1].ptr());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", f->bufferId().toString());
}

TEST_F(XmlSerializerTest, DamagedFilesKeepWhatWasReadAndNeverHang)
{
    KsTest::FailureRecorder failures;
    const QByteArray good = "<Deploy><ResourceFileDirectory Name=\"/a\"/><ResourceFileDirectory Name=\"/b\"/>"
                            "<ResourceFileDirectory Name=\"/c\"/></Deploy>";
    // Every truncation of a valid file loads a prefix of it.
    for (int cut = 0; cut < good.size(); ++cut)
    {
        KsTest::writeFile(file("t.xml"), good.left(cut));
        McDArray<McHandle<Resource>> loaded;
        EXPECT_TRUE(load(file("t.xml"), loaded).isOk());
        EXPECT_LE(loaded.size(), 3);
    }
    KsTest::writeFile(file("m.xml"), "<Deploy><ResourceFileDirectory Name=\"/a\"/><oops></Deploy>");
    McDArray<McHandle<Resource>> loaded;
    EXPECT_TRUE(load(file("m.xml"), loaded).isOk());
    EXPECT_EQ(1, loaded.size());

    failures.clear();
    EXPECT_TRUE(load(file("missing.xml"), loaded).isBad());
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ(("failed to open file [" + file("missing.xml") + "]").toStdString(), failures.failures()[0].message);

    XmlSerializer s;
    EXPECT_TRUE(s.serialize(mDir.path() + "/no/such/dir/x.xml", loaded).isBad());
}

TEST_F(XmlSerializerTest, FuzzRegressionInputsLoadSafely)
{
    // Every input the fuzzer ever crashed on is kept and replayed here: each one must load
    // without a contract report. No kept input at all means the replay lost its folder.
    const QString folder = QStringLiteral(KSDEPLOY_SOURCE_DIR "/fuzz/regressions");
    const QStringList kept = QDir(folder).entryList(QDir::Files, QDir::Name);
    ASSERT_FALSE(kept.isEmpty()) << "no inputs in " << folder.toStdString();
    int replayed = 0;
    for (const QString& name : kept)
    {
        KsTest::ContractRecorder contracts;
        McDArray<McHandle<Resource>> loaded;
        load(folder + "/" + name, loaded);
        ++replayed;
        for (const KsTest::ContractEvent& event : contracts.events())
            ADD_FAILURE() << name.toStdString() << ": contract report " << event.condition;
        // A file may link a resource to itself; such cycles are broken by hand, as the fuzzer does.
        loaded.clear();
        Engine::instance().resources(loaded);
        for (int64_t i = 0; i < loaded.size(); ++i)
            loaded[i]->linkRemoveTo(nullptr);
        loaded.clear();
        Engine::instance().resourceUnregisterAll();
    }
    EXPECT_EQ(kept.size(), replayed);
}
