// The dependency-ordered walk of install and uninstall: who goes first, what a cycle does, and
// that a visit can stop it.
#include "KsTestSupport.h"
#include "ProductWalk.h"
#include "ResourceFileDirectory.h"

using namespace KsDeploy;

namespace
{
class ProductWalkTest : public KsTest::EngineTest
{
protected:
    McDArray<McHandle<Resource>> mAll;

    // Resources named "0", "1", ... in collected order.
    void make(int inCount)
    {
        for (int i = 0; i < inCount; ++i)
        {
            McHandle<ResourceFileDirectory> d(new ResourceFileDirectory);
            d->nameSet(QString::number(i));
            mAll.append(McHandle<Resource>(d.ptr()));
        }
    }
    void link(int inSource, int inTarget) { mAll[inSource]->linkAdd(*mAll[inTarget], "L"); }

    // The names in the order visited, a forced one marked with "!"; the walk stops at inStopAt.
    QStringList walk(ProductWalk::Order inOrder, bool inBreakCycles, std::vector<size_t>* outLeft = nullptr,
                     const QString& inStopAt = QString(), bool* outComplete = nullptr)
    {
        QStringList order;
        const ProductWalk walk(mAll, inOrder);
        const auto visit = [&](Resource& inResource, size_t inLeft) {
            order << inResource.name();
            if (outLeft)
                outLeft->push_back(inLeft);
            return inResource.name() != inStopAt;
        };
        const auto forced = [&](Resource& inResource, size_t) {
            order << "!" + inResource.name();
            return true;
        };
        const auto cycle = [&](size_t inNumLeft0, size_t inNumLeft1) {
            EXPECT_EQ(inNumLeft0, inNumLeft1);
            return inBreakCycles;
        };
        const bool complete = walk.run(visit, cycle, forced);
        if (outComplete)
            *outComplete = complete;
        return order;
    }
};
}

TEST_F(ProductWalkTest, TargetsFirstAndLaterCollectedFirstAmongTheReady)
{
    // 0 -> 1 -> 2, and 3 and 4 free.
    make(5);
    link(0, 1);
    link(1, 2);
    std::vector<size_t> left;
    bool complete = false;
    EXPECT_EQ(QStringList({"4", "3", "2", "1", "0"}),
              walk(ProductWalk::Order::TargetsFirst, false, &left, QString(), &complete));
    EXPECT_TRUE(complete);
    EXPECT_EQ((std::vector<size_t>{5, 4, 3, 2, 1}), left) << "the pending count before each goes";

    // Uninstall order: what links to a resource goes before it.
    mAll[2]->linkAdd(*mAll[3], "Also");
    EXPECT_EQ(QStringList({"4", "0", "1", "2", "3"}), walk(ProductWalk::Order::SourcesFirst, false));
}

TEST_F(ProductWalkTest, ACycleEndsTheWalkOrIsBrokenAtItsLastPendingResource)
{
    // 3 waits for the cycle 1 <-> 2; 0 is free; a link out of the product orders nothing.
    make(4);
    link(1, 2);
    link(2, 1);
    link(3, 1);
    McHandle<ResourceFileDirectory> outside(new ResourceFileDirectory);
    mAll[0]->linkAdd(*outside, "Out");
    bool complete = true;
    EXPECT_EQ(QStringList({"0"}), walk(ProductWalk::Order::TargetsFirst, false, nullptr, QString(), &complete));
    EXPECT_FALSE(complete);
    // The last pending one goes regardless, even one that only waits for the cycle.
    EXPECT_EQ(QStringList({"0", "!3", "!2", "1"}),
              walk(ProductWalk::Order::TargetsFirst, true, nullptr, QString(), &complete));
    EXPECT_TRUE(complete);
    EXPECT_EQ(QStringList({"3", "0", "!2", "1"}), walk(ProductWalk::Order::SourcesFirst, true));
}

TEST_F(ProductWalkTest, AVisitThatSaysNoStopsTheWalk)
{
    make(3);
    bool complete = true;
    EXPECT_EQ(QStringList({"2", "1"}), walk(ProductWalk::Order::TargetsFirst, false, nullptr, "1", &complete));
    EXPECT_FALSE(complete);
}
