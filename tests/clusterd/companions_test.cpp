// SPDX-License-Identifier: LGPL-3.0-or-later
// Files that go to all nodes with a pair: the settings and the group list map.

#include <string_view>

#include "tests/clusterd/nodes.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kFlush = "SWEEPER:flush period";

class ClusterCompanions : public Cluster {
 protected:
  static std::string flushed_every(int seconds, const std::string& cluster = "") {
    return Node::settings(cluster, "flush period = " + std::to_string(seconds) + "\n");
  }
  // True when a node has the file that came, and its settings are in force.
  static bool has(const Node& node, const std::string& settings, int flush) {
    return read_file(node.in_etc("tavrix.conf")) == settings && node.setting(kFlush) == flush;
  }
};

TEST_F(ClusterCompanions, ComeToAllNodes) {
  add("one");
  add("two");
  const std::string before = read_file(node(1).in_etc("tavrix.conf"));
  const std::string settings = flushed_every(7);
  put_companions(node(0).inbox(), settings, 1);
  const std::string groups = read_file(node(0).inbox() + "/groupmap");
  hand_over(node(0), 30);
  start_daemons();
  ASSERT_TRUE(all_have(30));
  for (const auto& one : nodes_) {
    EXPECT_TRUE(has(*one, settings, 7)) << one->name();
    EXPECT_EQ(groups, read_file(one->in_etc("groupmap_refresh"))) << one->name();
    EXPECT_EQ(before, read_file(one->in_etc("tavrix.conf.before"))) << one->name();
  }
  EXPECT_FALSE(exists(node(0).inbox() + "/tavrix.conf"));
  EXPECT_FALSE(exists(node(0).inbox() + "/groupmap"));
}

TEST_F(ClusterCompanions, ComeThroughTheInboxOfAllNodes) {
  add("one");
  add("two");
  const std::string settings = flushed_every(8);
  put_companions(kShared + "/inbox", settings, 1);
  put_pair(kShared + "/inbox", 30);
  ASSERT_EQ(0, load(node(1)).exit_code);
  start_daemons();
  ASSERT_TRUE(all_have(30));
  EXPECT_TRUE(has(node(0), settings, 8));
  EXPECT_TRUE(has(node(1), settings, 8));
}

TEST_F(ClusterCompanions, WithAMistakeAreRefusedWithTheirPair) {
  add("one");
  const std::string before = read_file(node(0).in_etc("tavrix.conf"));
  const std::pair<std::string, const char*> mistakes[] = {
      {flushed_every(7) + "[SWEEPER]\nno such key = 1\n", "no such key"},
      {flushed_every(0), "flush period"},
      {flushed_every(7, "fence seconds = none\n"), "fence seconds"},
      {"[CLUSTER]\nenabled = no\n", "CLUSTER:enabled is not yes"}};
  std::size_t refused = 0;
  for (const auto& [settings, words] : mistakes) {
    SCOPED_TRACE(words);
    put_companions(node(0).inbox(), settings, 1);
    put_pair(node(0).inbox(), 30);
    EXPECT_EQ(1, load(node(0)).exit_code);
    const auto names = list(node(0).inbox() + "/refused");
    ASSERT_EQ(++refused, names.size());
    const std::string folder = node(0).inbox() + "/refused/" + names.back();
    EXPECT_TRUE(contains(read_file(folder + "/reason.txt"), words))
        << read_file(folder + "/reason.txt");
    EXPECT_EQ(settings, read_file(folder + "/tavrix.conf"));
  }
  EXPECT_TRUE(proposals().empty());
  EXPECT_EQ(before, read_file(node(0).in_etc("tavrix.conf")));
}

// It was away for the pair that they came with, and the next one came without.
TEST_F(ClusterCompanions, ReachANodeThatReturns) {
  add("one");
  add("two");
  const std::string settings = flushed_every(7);
  put_companions(node(0).inbox(), settings, 1);
  const std::string groups = read_file(node(0).inbox() + "/groupmap");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  hand_over(node(0), 40);
  ASSERT_EQ(0, node(0).once().exit_code);
  EXPECT_EQ((std::vector<std::string>{"1", "2"}), proposals()) << "the files that came stay";

  ASSERT_EQ(0, node(1).join().exit_code);
  EXPECT_EQ(40, node(1).folders());
  EXPECT_TRUE(has(node(1), settings, 7));
  EXPECT_EQ(groups, read_file(node(1).in_etc("groupmap_refresh")));

  put_companions(node(0).inbox(), flushed_every(9), 2);
  hand_over(node(0), 50);
  start_daemons();
  ASSERT_TRUE(all_have(50));
  EXPECT_TRUE(comes([] { return proposals() == std::vector<std::string>{"3"}; }));
  EXPECT_TRUE(has(node(1), flushed_every(9), 9));
}

// A map without them is no reason to take back what an operator changed on a node.
TEST_F(ClusterCompanions, StayAsSomebodyChangedThemSince) {
  add("one");
  put_companions(node(0).inbox(), flushed_every(7), 1);
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  write_file(node(0).in_etc("tavrix.conf"), flushed_every(6));
  write_file(node(0).in_etc("groupmap_refresh"), "changed");
  hand_over(node(0), 40);
  ASSERT_EQ(0, node(0).once().exit_code);
  EXPECT_EQ(40, node(0).folders());
  EXPECT_EQ(flushed_every(6), read_file(node(0).in_etc("tavrix.conf")));
  EXPECT_EQ("changed", read_file(node(0).in_etc("groupmap_refresh")));
}

TEST_F(ClusterCompanions, AreReadByTheServicesThatRun) {
  add("one");
  const auto sweeper = node(0).begin({TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--foreground",
                                      "--settings", "/etc/tavrix/tavrix.conf"});
  ASSERT_TRUE(comes([&] { return contains(sweeper->err_so_far(), "flushing"); }));
  put_companions(node(0).inbox(), flushed_every(7), 1);
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  EXPECT_TRUE(comes([&] { return contains(sweeper->err_so_far(), "settings read"); }))
      << sweeper->err_so_far();
}

// The daemon has settings of its own.
TEST_F(ClusterCompanions, AreReadByTheDaemon) {
  add("one");
  start_daemons();
  ASSERT_TRUE(comes([&] { return node(0).may_serve(); }));
  EXPECT_LT(node(0).lease_left(), int64_t{10} * 1'000'000'000);
  put_companions(node(0).inbox(), flushed_every(7, "fence seconds = 600\n"), 1);
  hand_over(node(0), 30);
  EXPECT_TRUE(comes([&] { return node(0).lease_left() > int64_t{500} * 1'000'000'000; }));
}

TEST_F(ClusterCompanions, OfAHeldPairGoWithIt) {
  add("one");
  add("two");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  node(0).configure("", "[LOADER]\nhold removed folders pct = 10\n[SWEEPER]\n");
  put_companions(node(0).inbox(), flushed_every(7), 1);
  put_pair(node(0).inbox(), 5);
  static_cast<void>(load(node(0)));
  ASSERT_EQ(1, committed()["number"]) << "the pair is held";
  const Outcome approved = node(0).run({Node::kCtl, "map", "approve", "--yes"});
  ASSERT_EQ(0, approved.exit_code) << approved.err;
  start_daemons();
  ASSERT_TRUE(all_have(5));
  EXPECT_TRUE(has(node(0), flushed_every(7), 7));
  EXPECT_TRUE(has(node(1), flushed_every(7), 7));
}

// --- without a pair of their own -----------------------------------------------------------------

class ClusterShare : public ClusterCompanions {
 protected:
  void SetUp() override {
    ClusterCompanions::SetUp();
    add("one");
    add("two");
    put_companions("/scratch/made", "", 5);
    groups_ = read_file("/scratch/made/groupmap");
    write_file(node(0).in_etc("groupmap_refresh"), groups_);
  }
  // The first words that the command says to a person.
  static void expect_refused(const Node& node, const std::string& words) {
    const Outcome outcome = node.run({Node::kCtl, "cluster", "share", "--settings", "--groups"});
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, words)) << outcome.err;
  }
  std::string groups_;  // the group list map of the first node
};

TEST_F(ClusterShare, GivesAllNodesTheSettingsAndKeepsTheMap) {
  hand_over(node(0), 30);
  start_daemons();
  ASSERT_TRUE(all_have(30));
  write_file(node(0).in_etc("tavrix.conf"), flushed_every(7));
  const Outcome outcome = node(0).run({Node::kCtl, "cluster", "share", "--settings"});
  ASSERT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ("the settings are put up for all nodes as map 2\n", outcome.out);
  EXPECT_TRUE(comes([&] { return has(node(1), flushed_every(7), 7); }));
  EXPECT_TRUE(comes([&] { return has(node(0), flushed_every(7), 7); }));
  EXPECT_TRUE(all_have(30));
  EXPECT_FALSE(exists(node(1).in_etc("groupmap_refresh")));
}

TEST_F(ClusterShare, GivesAllNodesTheGroupListMap) {
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  const std::string settings = read_file(node(1).in_etc("tavrix.conf"));
  ASSERT_EQ(0, node(0).run({Node::kCtl, "cluster", "share", "--groups"}).exit_code);
  start_daemons();
  ASSERT_TRUE(all_have(30));
  EXPECT_TRUE(comes([&] { return read_file(node(1).in_etc("groupmap_refresh")) == groups_; }));
  EXPECT_EQ(settings, read_file(node(1).in_etc("tavrix.conf")));
}

TEST_F(ClusterShare, WantsToKnowWhichFiles) {
  const Outcome outcome = node(0).run({Node::kCtl, "cluster", "share"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "--settings or --groups is required")) << outcome.err;
}

// It would take back a map that is on its way.
TEST_F(ClusterShare, WaitsForAMapOnItsWay) {
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  hand_over(node(0), 40);
  expect_refused(node(0), "map 2 is on its way to all nodes");
  EXPECT_EQ((std::vector<std::string>{"1", "2"}), proposals());
}

TEST_F(ClusterShare, IsRefusedWithAReason) {
  expect_refused(node(0), "no map was handed to the cluster yet");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  write_file(node(0).in_etc("groupmap_refresh"), "broken");
  expect_refused(node(0), "groupmap_refresh has 1 error");
  unlink(node(0).in_etc("groupmap_refresh").c_str());
  expect_refused(node(0), "groupmap_refresh: No such file");
  write_file(node(0).in_etc("groupmap_refresh"), groups_);
  write_file(node(0).in_etc("tavrix.conf"), flushed_every(0));
  expect_refused(node(0), "flush period");
  write_file(node(0).in_etc("tavrix.conf"), "");
  expect_refused(node(0), "this machine is no node of a cluster");
  EXPECT_EQ((std::vector<std::string>{"1"}), proposals());
}

// --- deaths --------------------------------------------------------------------------------------

class ClusterCompanionKills : public ClusterCompanions,
                              public testing::WithParamInterface<const char*> {};

// A daemon or its child is killed while it puts them into force.
TEST_P(ClusterCompanionKills, LeaveThemForTheNextLook) {
  add("one");
  // Sanitizers make each step slow; the release build takes each of them.
  constexpr int kStep = std::string_view(TAVRIX_SANITIZED_BUILD) == "ON" ? 4 : 1;
  constexpr int kMost = 90;
  bool is_reached = true;
  for (int nth = 1; is_reached && nth <= kMost; nth += kStep) {
    const std::string rule = std::string(GetParam()) + ":kill:" + std::to_string(nth);
    SCOPED_TRACE(rule);
    const std::string settings = flushed_every(1 + nth);
    put_companions(node(0).inbox(), settings, nth);
    const std::string groups = read_file(node(0).inbox() + "/groupmap");
    hand_over(node(0), static_cast<uint32_t>(10 + nth));
    static_cast<void>(node(0).once(in_haste(kHaste, rule)));
    is_reached = !reached().empty();
    const Outcome outcome = node(0).once(in_haste(kHaste));
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
    ASSERT_TRUE(has(node(0), settings, 1 + nth)) << read_file(node(0).in_etc("tavrix.conf"));
    ASSERT_EQ(groups, read_file(node(0).in_etc("groupmap_refresh")));
    ASSERT_EQ(std::vector<std::string>{std::to_string(committed()["number"].get<int>())},
              proposals());
  }
  EXPECT_FALSE(is_reached) << "more calls than expected";
}

INSTANTIATE_TEST_SUITE_P(Calls, ClusterCompanionKills,
                         testing::Values("rename", "fsync", "unlink", "write"),
                         [](const auto& call) { return std::string(call.param); });

}  // namespace
}  // namespace tavrix::test
