// The resource pool: identity, unlinking, unregistering, and the Graphviz dump.
#include "KsTestSupport.h"
#include "ResourceFileEntry.h"
#include "ResourceProduct.h"
#include "ResourceRegistryValue.h"

#include <QTemporaryDir>

using namespace KsDeploy;

namespace
{
class EnginePoolTest : public KsTest::EngineTest
{
protected:
    Engine& e() { return Engine::instance(); }
};
}

TEST_F(EnginePoolTest, RegistrationIsByIdentityAndLaterWinsForEqualUuids)
{
    McHandle<ResourceFileDirectory> a(new ResourceFileDirectory);
    McHandle<ResourceFileDirectory> b(new ResourceFileDirectory);
    e().resourceRegister(McHandle<Resource>(a.ptr()));
    EXPECT_EQ(2, e().resourceCount());
    b->uuidSet(a->uuid());
    EXPECT_EQ(b.ptr(), e().resource(a->uuid()));
    e().resourceUnregister(McHandle<Resource>(b.ptr()));
    EXPECT_EQ(a.ptr(), e().resource(a->uuid()));
    EXPECT_EQ(nullptr, e().resource(QUuid::createUuid()));
}

TEST_F(EnginePoolTest, UnregisterRemovesIncomingLinksOnly)
{
    McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
    McHandle<ResourceFileEntry> file(new ResourceFileEntry);
    McHandle<ResourceFileDirectory> parent(new ResourceFileDirectory);
    file->containerSet(dir);
    dir->containerSet(parent);
    e().resourceUnregister(McHandle<Resource>(dir.ptr()));
    EXPECT_TRUE(file->container().isNull());
    EXPECT_EQ(parent.ptr(), dir->container().ptr());
    EXPECT_EQ(nullptr, e().resource(dir->uuid()));
    McDArray<McHandle<Resource>> all;
    e().resources(all);
    EXPECT_EQ(2, all.size());
    EXPECT_EQ(parent.ptr(), all[0].ptr() == file.ptr() ? all[1].ptr() : all[0].ptr());
}

TEST_F(EnginePoolTest, LargePoolKeepsOrderThroughRemovals)
{
    std::vector<McHandle<ResourceFileEntry>> files;
    McHandle<ResourceFileDirectory> dir(new ResourceFileDirectory);
    for (int i = 0; i < 5000; ++i)
    {
        files.emplace_back(new ResourceFileEntry);
        files.back()->nameSet(QString::number(i));
        files.back()->containerSet(dir);
    }
    // Remove every other one: holes are squeezed out and the order is kept.
    for (int i = 0; i < 5000; i += 2)
        e().resourceUnregister(McHandle<Resource>(files[static_cast<size_t>(i)].ptr()));
    McDArray<McHandle<Resource>> all;
    e().resources(all);
    ASSERT_EQ(2501, all.size());
    EXPECT_EQ(dir.ptr(), all[0].ptr());
    for (int64_t i = 1; i < all.size(); ++i)
        EXPECT_EQ(QString::number(2 * i - 1), all[i]->name());
    McDArray<McHandle<Resource>> incoming;
    e().resourcesLinkingToATarget(McHandle<Resource>(dir.ptr()), incoming);
    ASSERT_EQ(2500, incoming.size());
    EXPECT_EQ("1", incoming[0]->name());
    EXPECT_EQ("4999", incoming[2499]->name());
    for (size_t i = 1; i < files.size(); i += 2)
        EXPECT_EQ(files[i].ptr(), e().resource(files[i]->uuid()));

    e().resourceUnregisterAll();
    EXPECT_EQ(0, e().resourceCount());
    EXPECT_EQ(dir.ptr(), files[1]->container().ptr()) << "links between resources are kept";
}

TEST_F(EnginePoolTest, GraphvizDump)
{
    QTemporaryDir dir;
    const QString path = dir.path() + "/g.gv";
    McDArray<McHandle<Resource>> none;
    e().resourcesDumpGraphviz(none, path);
    EXPECT_EQ("digraph KsDeploy\n{\n# page = \"8.2677165,11.692913\" ;\nlabel = \"KsDeploy\" ;\n}\n",
              KsTest::readFile(path));

    McHandle<ResourceProduct> p(new ResourceProduct);
    p->nameSet("App");
    McHandle<ResourceFileDirectory> d(new ResourceFileDirectory);
    d->nameSet("C:\\x");
    McHandle<ResourceFileEntry> f(new ResourceFileEntry);
    f->nameSet("f");
    McHandle<ResourceFileDirectory> outside(new ResourceFileDirectory);
    p->applicationDirectorySet(d);
    f->containerSet(d);
    d->containerSet(outside);
    McDArray<McHandle<Resource>> arr;
    arr.append(McHandle<Resource>(p.ptr()));
    arr.append(McHandle<Resource>(d.ptr()));
    arr.append(McHandle<Resource>(f.ptr()));
    e().resourcesDumpGraphviz(arr, path);
    EXPECT_EQ("digraph KsDeploy\n{\n# page = \"8.2677165,11.692913\" ;\nlabel = \"KsDeploy\" ;\n"
              "\"2\" [shape=box,label=\"f\",style=filled,fillcolor=greenyellow] ;\n"
              "\"2\" -> \"1\" [color=black,labelangle=0,fontcolor=black,label=\" Container\"] ;\n"
              "\"1\" [shape=ellipse,label=\"C:\\\\x\",style=filled,fillcolor=green] ;\n"
              "\"0\" [shape=box,label=\"App\",style=filled,fillcolor=lightcoral] ;\n"
              "\"0\" -> \"1\" [color=orange,labelangle=0,fontcolor=orange,label=\" Application\"] ;\n"
              "}\n",
              KsTest::readFile(path));

    e().resourcesDumpGraphviz(arr, dir.path() + "/missing/g.gv"); // silently skipped
    EXPECT_FALSE(QFile::exists(dir.path() + "/missing/g.gv"));
}
