// The benchmark harness's rules, with sides that only record: turns with the first side
// changing every round, a warm-up round left out, preparation before every run, the median of
// the per-round ratios, and the table's verdict.
#include "BenchHarness.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

TEST(BenchHarness, SidesTakeTurnsFromAPreparedStateAndTheMedianRatioDecides)
{
    ::unsetenv("KSDEPLOY_BENCH_ROUNDS");
    std::vector<std::string> events;
    // Ours takes 100 s in the warm-up round, then 1..5 s (in an order that is not sorted); the
    // peer always 1 s.
    const std::vector<double> oursTimes = {100, 4, 1, 5, 2, 3};
    size_t next = 0;
    KsBench::Comparison c;
    c.row = "row";
    c.target = 3.0;
    c.peerName = "peer";
    c.prepare = [&] { events.push_back("prepare"); };
    c.ours = [&] {
        events.push_back("ours");
        return oursTimes.at(next++);
    };
    c.peer = [&] {
        events.push_back("peer");
        return 1.0;
    };
    const KsBench::Result r = KsBench::compare(c);

    std::vector<std::string> expected;
    for (int round = 0; round <= 5; ++round)
        for (const char* side :
             round % 2 == 0 ? std::vector<const char*>{"ours", "peer"} : std::vector<const char*>{"peer", "ours"})
            expected.insert(expected.end(), {"prepare", side});
    expected.push_back("prepare");  // what the last run left is cleaned up
    EXPECT_EQ(expected, events);
    EXPECT_EQ(5, r.rounds);
    EXPECT_DOUBLE_EQ(3.0, r.median) << "the warm-up round counted";
    EXPECT_DOUBLE_EQ(1.0, r.min);
    EXPECT_DOUBLE_EQ(5.0, r.max);
    EXPECT_TRUE(r.pass);
    c.target = 2.9;
    next = 0;
    EXPECT_FALSE(KsBench::compare(c).pass);
}

TEST(BenchHarness, RoundsRowsAndMedians)
{
    EXPECT_DOUBLE_EQ(2.5, KsBench::median({4, 1, 3, 2}));
    EXPECT_DOUBLE_EQ(2.0, KsBench::median({3, 1, 2}));
    ::setenv("KSDEPLOY_BENCH_ROUNDS", "2", 1);
    EXPECT_EQ(5, KsBench::rounds()) << "fewer than five rounds";
    ::setenv("KSDEPLOY_BENCH_ROUNDS", "7", 1);
    EXPECT_EQ(7, KsBench::rounds());
    ::unsetenv("KSDEPLOY_BENCH_ROUNDS");
    ::setenv("KSDEPLOY_BENCH_ONLY", "items,big", 1);
    EXPECT_TRUE(KsBench::wanted("items"));
    EXPECT_TRUE(KsBench::wanted("big"));
    EXPECT_FALSE(KsBench::wanted("compress"));
    ::unsetenv("KSDEPLOY_BENCH_ONLY");
    EXPECT_TRUE(KsBench::wanted("compress"));
}

TEST(BenchHarness, TheTableFileHoldsEveryRowWithItsVerdict)
{
    QTemporaryDir dir;
    const std::string table = dir.filePath("table.tsv").toStdString();
    ::setenv("KSDEPLOY_BENCH_TABLE", table.c_str(), 1);
    KsBench::Result good;
    good.row = "fast row";
    good.target = 1.0;
    good.median = good.min = good.max = 0.5;
    good.pass = true;
    KsBench::Result bad = good;
    bad.row = "slow row";
    bad.median = 1.5;
    bad.pass = false;
    EXPECT_TRUE(KsBench::report({good}, "one"));
    EXPECT_FALSE(KsBench::report({good, bad}, "two"));
    ::unsetenv("KSDEPLOY_BENCH_TABLE");
    std::ifstream in(table);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line.substr(0, line.find('\t', line.find('\t') + 1)) + "|" +
                        (line.find("\tpass\t") != std::string::npos ? "pass" : "MISS"));
    EXPECT_EQ((std::vector<std::string>{"fast row\t1.00|pass", "fast row\t1.00|pass", "slow row\t1.00|MISS"}), lines);
}

TEST(BenchHarness, ARunThatDidNotDoItsWorkEndsTheProgram)
{
    KsBench::Comparison c;
    c.row = "row";
    c.ours = [] { return 1.0; };
    c.peer = [] { return 1.0; };
    c.oursCheck = [] { return false; };
    EXPECT_EXIT(KsBench::compare(c), ::testing::ExitedWithCode(2), "our run did not do its work");
}
