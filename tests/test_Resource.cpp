// Resources, links, properties and the factory.
#include "KsTestSupport.h"
#include "ResourceCOMObject.h"
#include "ResourceClusterEntry.h"
#include "ResourceCommand.h"
#include "ResourceFactory.h"
#include "ResourceFileEntry.h"
#include "ResourceFileShortcut.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"

using namespace KsDeploy;

namespace
{
class ResourceTest : public KsTest::EngineTest
{
protected:
    // "${APP}" / "bin" / "tool": a root folder, a folder in it and a file in that.
    struct Tree
    {
        McHandle<ResourceFileDirectory> root, sub;
        McHandle<ResourceFileEntry> file;
    };
    static Tree tree()
    {
        Tree t{McHandle<ResourceFileDirectory>(new ResourceFileDirectory),
               McHandle<ResourceFileDirectory>(new ResourceFileDirectory),
               McHandle<ResourceFileEntry>(new ResourceFileEntry)};
        t.root->nameSet("${APP}");
        t.sub->nameSet("bin");
        t.sub->containerSet(t.root);
        t.file->nameSet("tool");
        t.file->containerSet(t.sub);
        return t;
    }
};

}

TEST_F(ResourceTest, LinksAreUniquePerTargetAndName)
{
    McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
    McHandle<ResourceFileEntry> file(new ResourceFileEntry);
    file->linkAdd(*dir, "Container");
    file->linkAdd(*dir, "Container");
    EXPECT_EQ(1u, file->linkCount());
    file->linkAdd(*dir, "Other");
    EXPECT_EQ(2u, file->linkCount());
    EXPECT_TRUE(file->linksTo(*dir, "Other"));
    EXPECT_FALSE(file->linksTo(*dir, "other"));

    McDArray<McHandle<Resource>> incoming;
    Engine::instance().resourcesLinkingToATarget(McHandle<Resource>(dir.ptr()), incoming);
    ASSERT_EQ(1, incoming.size());
    EXPECT_EQ(file.ptr(), incoming[0].ptr());

    // Setters replace the links of their name; a null handle clears them.
    McHandle<ResourceFileDirectory> other(new ResourceFileDirectory);
    file->containerSet(other);
    EXPECT_EQ(other.ptr(), file->container().ptr());
    EXPECT_TRUE(file->linksTo(*dir, "Other"));
    file->containerSet(McHandle<ResourceFileDirectory>());
    EXPECT_TRUE(file->container().isNull());
    file->linkRemove("Other");
    Engine::instance().resourcesLinkingToATarget(McHandle<Resource>(dir.ptr()), incoming);
    EXPECT_EQ(0, incoming.size());
}

// Many links on one resource, unlinked target by target as the pool does: the survivors keep
// the order they were added in, counts and duplicate checks stay right across the holes.
TEST_F(ResourceTest, ManyLinksKeepTheirOrderThroughUnlinking)
{
    KsTest::ContractRecorder contracts;
    McHandle<ResourceProduct> product(new ResourceProduct);
    std::vector<McHandle<ResourceFileEntry>> files;
    const int count = 3000;
    for (int i = 0; i < count; ++i)
    {
        files.emplace_back(new ResourceFileEntry);
        files.back()->nameSet(QString::number(i));
        product->linkAdd(*files.back(), "Application");
        if (i % 10 == 0)
            product->linkAdd(*files.back(), "Extra");
    }
    product->linkAdd(*files[5], "Application");  // a duplicate is no new link
    ASSERT_EQ(unsigned(count + count / 10), product->linkCount());

    // Unlink two of every three targets, as unregistering them does: from the front, so that the
    // links behind are squeezed together while later targets are still to go.
    for (int i = 0; i < count; ++i)
        if (i % 3 != 0)
            product->linkRemoveTo(files[static_cast<size_t>(i)].ptr());
    for (int i = 0; i < count; ++i)
    {
        const bool kept = i % 3 == 0;
        EXPECT_EQ(kept, product->linksTo(*files[static_cast<size_t>(i)], "Application")) << i;
        std::vector<Resource*> sources;
        files[static_cast<size_t>(i)]->incomingSources(sources);
        EXPECT_EQ(kept ? 1u : 0u, sources.size()) << i;
    }
    // A removed link added again goes to the end; an existing one is not doubled.
    product->linkAdd(*files[1], "Application");
    product->linkAdd(*files[3], "Application");

    const McDArray<McHandle<Link>>& links = product->links();
    ASSERT_EQ(int64_t(product->linkCount()), links.size());
    QStringList seen;
    for (const McHandle<Link>& link : links)
        seen << link->target().name() + "/" + link->name();
    QStringList expected;
    for (int i = 0; i < count; i += 3)
    {
        expected << QString::number(i) + "/Application";
        if (i % 10 == 0)
            expected << QString::number(i) + "/Extra";
    }
    expected << "1/Application";
    EXPECT_EQ(expected, seen);

    // Removal by name keeps the order of the others.
    product->linkRemove("Application");
    McDArray<McHandle<ResourceFileEntry>> extras;
    product->linked(extras, "Extra");
    ASSERT_EQ(100, extras.size());  // the multiples of 30 that were kept
    for (int64_t i = 0; i < extras.size(); ++i)
        EXPECT_EQ(QString::number(i * 30), extras[i]->name());
    EXPECT_EQ(unsigned(extras.size()), product->linkCount());
    EXPECT_TRUE(contracts.events().empty());
}

TEST_F(ResourceTest, TypedLinkLookupReportsAmbiguity)
{
    KsTest::ContractRecorder contracts;
    McHandle<ResourceFileShortcut> s(new ResourceFileShortcut);
    McHandle<ResourceFileDirectory> a(new ResourceFileDirectory);
    McHandle<ResourceFileDirectory> b(new ResourceFileDirectory);
    McHandle<ResourceFileEntry> e(new ResourceFileEntry);
    s->containerSet(a);
    s->targetSet(e);
    s->workingDirSet(b);
    EXPECT_EQ(a.ptr(), s->container().ptr());
    EXPECT_EQ(b.ptr(), s->workingDir().ptr());
    EXPECT_EQ(e.ptr(), s->target().ptr());
    EXPECT_TRUE(contracts.events().empty());
    // Two directories under any name: the first wins and the second match is reported.
    EXPECT_EQ(a.ptr(), s->link<ResourceFileDirectory>(QString()).ptr());
    EXPECT_TRUE(contracts.has("retVal.isNull()"));
}

TEST_F(ResourceTest, IdentityTextIsReadInTheWrittenFormOnly)
{
    const QUuid written("{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f6071}");
    QUuid read;
    ASSERT_TRUE(uuidFromBracedText(u"{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f6071}", read));
    EXPECT_EQ(written, read);
    // Upper case, no braces, a short or long text, a wrong separator, a letter past 'f', and a
    // character past ASCII whose low bits spell a digit: each leaves the value alone.
    for (const char16_t* text : {u"{0B0E8E9A-3F4C-4D6E-9A1B-2C3D4E5F6071}", u"0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f6071",
                                 u"{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f607}", u"{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f60711}",
                                 u"{0b0e8e9a+3f4c-4d6e-9a1b-2c3d4e5f6071}", u"{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f60g1}",
                                 u"{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f60\u01301}"})
    {
        QUuid kept = written;
        EXPECT_FALSE(uuidFromBracedText(text, kept)) << QString::fromUtf16(text).toStdString();
        EXPECT_EQ(written, kept);
    }
}

TEST_F(ResourceTest, PropertyTextFormsRoundTripAndRejectOthers)
{
    KsTest::ContractRecorder contracts;
    McHandle<ResourceFileEntry> e(new ResourceFileEntry);
    const Resource::PropertyTable& t = e->properties();
    t["Executable"]->write(e.ptr(), u"true");
    EXPECT_TRUE(e->isExecutable());
    EXPECT_EQ("true", t["Executable"]->read(e.ptr()));
    t["Executable"]->write(e.ptr(), u"1");
    EXPECT_TRUE(e->isExecutable()) << "an unknown text leaves the value";
    EXPECT_FALSE(contracts.events().empty());

    contracts.clear();
    const QString uuid = "{0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f6071}";
    t["UUID"]->write(e.ptr(), uuid);
    EXPECT_EQ(uuid, t["UUID"]->read(e.ptr()));
    EXPECT_EQ(e.ptr(), Engine::instance().resource(QUuid(uuid))) << "found under its new identity";
    t["UUID"]->write(e.ptr(), u"0b0e8e9a-3f4c-4d6e-9a1b-2c3d4e5f6071");
    EXPECT_EQ(uuid, t["UUID"]->read(e.ptr()));
    EXPECT_FALSE(contracts.events().empty());

    contracts.clear();
    t["MD5"]->write(e.ptr(), u"D41D8CD98F00B204E9800998ECF8427E");
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", t["MD5"]->read(e.ptr()));
    t["MD5"]->write(e.ptr(), u"d41d8cd98f00b204e9800998ecf8427");
    EXPECT_TRUE(contracts.has("inEncodedBuffer.length() == 32 || inEncodedBuffer.isEmptyString()"));
    EXPECT_EQ("", t["MD5"]->read(e.ptr()));

    McHandle<ResourceRegistryValue> v(new ResourceRegistryValue);
    contracts.clear();
    v->properties()["Type"]->write(v.ptr(), u"TYPE_QWORD");
    EXPECT_EQ(ResourceRegistryValue::TYPE_QWORD, v->type());
    v->properties()["Type"]->write(v.ptr(), u"type_sz");
    EXPECT_EQ(ResourceRegistryValue::TYPE_NONE, v->type());
    EXPECT_TRUE(contracts.has("0"));
    EXPECT_EQ("TYPE_NONE", ResourceRegistryValue::Type2String(static_cast<ResourceRegistryValue::Type>(12)));

    // copyValue copies between resources of one class.
    McHandle<ResourceFileEntry> copy(new ResourceFileEntry);
    for (auto* p : e->properties())
        if (p->name() != "UUID")
            p->copyValue(copy.ptr(), e.ptr());
    EXPECT_EQ(e->isExecutable(), copy->isExecutable());
    EXPECT_NE(e->uuid(), copy->uuid());
}

TEST_F(ResourceTest, PlaceholderKindsFailWithoutMessage)
{
    KsTest::FailureRecorder failures;
    McHandle<ResourceCommand> c(new ResourceCommand);
    McHandle<ResourceClusterEntry> ce(new ResourceClusterEntry);
    for (Resource* r : {static_cast<Resource*>(c.ptr()), static_cast<Resource*>(ce.ptr())})
    {
        for (const McResult& res : {r->install(), r->uninstall(), r->verify()})
        {
            EXPECT_TRUE(res.isBad());
            EXPECT_STREQ("", res.text());
        }
        EXPECT_TRUE(r->scan().isOk());
        EXPECT_EQ(QString(), r->path());
    }
    EXPECT_TRUE(failures.failures().empty());
}

TEST_F(ResourceTest, PathsResolveThroughTheConfiguration)
{
    KsTest::FailureRecorder failures;
    Engine::instance().configuration().valueSet("APP", "/opt/app", false);
    const Tree t = tree();
    const McHandle<ResourceFileDirectory>& root = t.root;
    const McHandle<ResourceFileDirectory>& sub = t.sub;
    const McHandle<ResourceFileEntry>& file = t.file;
    EXPECT_EQ("/opt/app/bin/tool", file->path());

    // Asked again after anything it depends on changed, a path is found anew.
    Engine::instance().configuration().valueSet("APP", "/srv/app", false);
    EXPECT_EQ("/srv/app/bin/tool", file->path());
    sub->nameSet("lib");
    EXPECT_EQ("/srv/app/lib/tool", file->path());
    McHandle<ResourceFileDirectory> other(new ResourceFileDirectory);
    other->nameSet("/elsewhere");
    sub->containerSet(other);
    EXPECT_EQ("/elsewhere/lib/tool", file->path());
    McHandle<ResourceFileDirectory> copy(new ResourceFileDirectory(*sub));
    *root = *other;
    sub->containerSet(root);
    EXPECT_EQ("/elsewhere/lib/tool", file->path());
    EXPECT_EQ("lib", copy->path()) << "a copy has no container and remembers nothing";
    Engine::instance().configuration().valueSet("APP", "/opt/app", false);
    root->nameSet("${APP}");
    sub->nameSet("bin");
    EXPECT_EQ("/opt/app/bin/tool", file->path());

    McHandle<ResourceRegistryKey> key(new ResourceRegistryKey);
    key->nameSet("HKEY_CURRENT_USER\\Software");
    McHandle<ResourceRegistryValue> value(new ResourceRegistryValue);
    value->nameSet("Path");
    value->containerSet(key);
    EXPECT_EQ("HKEY_CURRENT_USER\\Software\\Path", value->path());
    EXPECT_TRUE(failures.failures().empty());

    McHandle<ResourceFileEntry> orphan(new ResourceFileEntry);
    orphan->nameSet("x");
    EXPECT_EQ(QString(), orphan->path());
    ASSERT_EQ(1u, failures.failures().size());
    EXPECT_EQ("cond[myDir.isNotNull()]", failures.failures()[0].condition);
}

TEST(ResourceNames, AComponentsProblemIsNamedInOneOrder)
{
    const struct
    {
        QString name;
        QString problem;
    } cases[] = {
        {"file.txt", ""},
        {"", ""},
        {"...", ""},
        {".hidden", ""},
        {"a..b", ""},
        {QStringLiteral("caf\u00e9 \u00a0"), ""},
        {".", "is not one path component (it is \".\")"},
        {"..", "is not one path component (it is \"..\")"},
        {"a/b", "is not one path component (it holds '/')"},
        {"a\\b/c", "is not one path component (it holds '/')"},
        {"a\\b", "is not one path component (it holds '\\')"},
        {QStringLiteral("\x01/"), "is not one path component (it holds '/')"},
        {QStringLiteral("a\tb\x01"), "holds the control character 0x09"},
        {QStringLiteral("x\x7f"), "holds the control character 0x7f"},
        {QStringLiteral("x") + QChar(0x85), "holds the control character 0x85"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.problem.toStdString(), Resource::nameComponentProblem(c.name).toStdString())
            << c.name.toStdString();
}

TEST_F(ResourceTest, NamesCannotLeaveTheirRoot)
{
    KsTest::FailureRecorder failures;
    Configuration& configuration = Engine::instance().configuration();
    configuration.valueSet("APP", "/opt/app", false);
    const Tree t = tree();
    const McHandle<ResourceFileDirectory>& root = t.root;
    const McHandle<ResourceFileDirectory>& sub = t.sub;
    const McHandle<ResourceFileEntry>& file = t.file;
    for (Resource* r :
         {static_cast<Resource*>(root.ptr()), static_cast<Resource*>(sub.ptr()), static_cast<Resource*>(file.ptr())})
    {
        EXPECT_TRUE(r->nameCheck().isOk());
        EXPECT_TRUE(r->nameResolvableCheck().isOk());
        EXPECT_TRUE(r->pathCheck().isOk());
    }
    EXPECT_TRUE(failures.failures().empty());

    // A root is a whole path; the same name below a root is refused.
    sub->nameSet("a/b");
    EXPECT_TRUE(sub->nameCheck().isBad());
    sub->containerSet(McHandle<ResourceFileDirectory>());
    EXPECT_TRUE(sub->nameCheck().isOk());
    sub->nameSet("/opt/../etc");
    EXPECT_TRUE(sub->nameCheck().isBad());
    sub->nameSet("/opt/..");
    EXPECT_TRUE(sub->nameCheck().isBad());
    sub->nameSet("/opt/a..b/..c/d..");
    EXPECT_TRUE(sub->nameCheck().isOk()) << "dots inside a name are no step up";
    sub->nameSet("bin");
    sub->containerSet(root);

    // A value is judged by what it becomes.
    file->nameSet("${F}");
    configuration.valueSet("F", "../../etc/passwd", false);
    EXPECT_TRUE(file->nameCheck().isOk());
    EXPECT_TRUE(file->nameResolvableCheck().isOk());
    failures.clear();
    const McResult refused = file->pathCheck();
    EXPECT_TRUE(refused.isBad());
    EXPECT_STREQ("../../etc/passwd: is not one path component (it holds '/')", refused.detail());
    configuration.valueClear("F");
    EXPECT_TRUE(file->nameResolvableCheck().isBad());
    ASSERT_FALSE(failures.failures().empty());
    EXPECT_EQ("${F}: no value for F", failures.failures().back().detail);

    // A relative root would install wherever the program happens to run.
    configuration.valueSet("APP", "opt/app", false);
    EXPECT_TRUE(root->pathCheck().isBad());

    McHandle<ResourceRegistryKey> hive(new ResourceRegistryKey);
    hive->nameSet("HKEY_CURRENT_USER\\Software");
    McHandle<ResourceRegistryKey> key(new ResourceRegistryKey);
    key->nameSet("Vendor\\..\\Other");
    key->containerSet(hive);
    McHandle<ResourceRegistryValue> value(new ResourceRegistryValue);
    value->nameSet("C:\\lib\\shared.dll");
    value->containerSet(key);
    EXPECT_TRUE(hive->nameCheck().isOk());
    EXPECT_TRUE(key->nameCheck().isBad());
    EXPECT_TRUE(value->nameCheck().isOk());
    value->nameSet(QStringLiteral("tab\there"));
    EXPECT_TRUE(value->nameCheck().isBad());
}
