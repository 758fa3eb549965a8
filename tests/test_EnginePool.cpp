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

TEST_F(EnginePoolTest, SharedIdentitiesStayFoundThroughEveryChange)
{
    // A product and its clone share identities while a transaction runs: whichever holder goes
    // first, the latest registered of those left is found.
    McHandle<ResourceFileDirectory> a(new ResourceFileDirectory);
    McHandle<ResourceFileDirectory> b(new ResourceFileDirectory);
    McHandle<ResourceFileDirectory> c(new ResourceFileDirectory);
    const QUuid shared = a->uuid();
    c->uuidSet(shared);
    b->uuidSet(shared);
    EXPECT_EQ(c.ptr(), e().resource(shared));
    e().resourceUnregister(McHandle<Resource>(c.ptr()));
    EXPECT_EQ(b.ptr(), e().resource(shared));
    const QUuid own = QUuid::createUuid();
    b->uuidSet(own);
    EXPECT_EQ(a.ptr(), e().resource(shared));
    EXPECT_EQ(b.ptr(), e().resource(own));
    b->uuidSet(shared);
    EXPECT_EQ(nullptr, e().resource(own));
    e().resourceUnregister(McHandle<Resource>(a.ptr()));
    EXPECT_EQ(b.ptr(), e().resource(shared));
    e().resourceUnregister(McHandle<Resource>(b.ptr()));
    EXPECT_EQ(nullptr, e().resource(shared));
    EXPECT_EQ(0, e().resourceCount());

    // The first to take an identity may be the one registered later.
    McHandle<ResourceFileDirectory> early(new ResourceFileDirectory);
    McHandle<ResourceFileDirectory> late(new ResourceFileDirectory);
    const QUuid taken = QUuid::createUuid();
    late->uuidSet(taken);
    early->uuidSet(taken);
    EXPECT_EQ(late.ptr(), e().resource(taken));
    e().resourceUnregister(McHandle<Resource>(late.ptr()));
    EXPECT_EQ(early.ptr(), e().resource(taken));
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
