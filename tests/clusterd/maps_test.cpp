// SPDX-License-Identifier: LGPL-3.0-or-later
// One map on all nodes: handed over on any, prepared by all, committed by one.

#include <fstream>

#include "tests/clusterd/nodes.hpp"

namespace tavrix::test {
namespace {

class ClusterMaps : public Cluster {
 protected:
  // An operator's import of the pair in /scratch.
  static Outcome import_on(const Node& node, const std::vector<std::string>& options = {}) {
    std::vector<std::string> words = {Node::kCtl, "map", "import"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"/scratch/size.json", "/scratch/data.json"});
    return node.run(words);
  }
  static std::string sum_of(const std::string& file) {
    return run_program({"sha256sum", file}).out.substr(0, 64);
  }
  // Two maps came into force on the node, the one of 30 folders first.
  void publish_two() {
    for (const uint32_t folders : {30U, 40U}) {
      hand_over(node(0), folders);
      ASSERT_EQ(0, node(0).once().exit_code);
    }
  }
  // Two nodes have a map of 30 folders, and one of them has committed it.
  std::size_t leader_of_two() {
    add("one");
    add("two");
    start_daemons();
    hand_over(node(0), 30);
    EXPECT_TRUE(all_have(30));
    return committed()["by"] == "one" ? 0 : 1;
  }
  static Outcome roll_back(const Node& node) {
    return node.run({Node::kCtl, "map", "rollback", "1", "--yes"});
  }
};

TEST_F(ClusterMaps, OneNodeCommitsAndPublishesWhatItsLoaderPutsUp) {
  add("one");
  hand_over(node(0), 30);
  EXPECT_EQ(0, node(0).folders()) << "the loader publishes nothing by itself";
  EXPECT_EQ(std::vector<std::string>{"1"}, proposals());
  const Outcome outcome = node(0).once();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(30, node(0).folders());
  EXPECT_EQ(1, committed()["number"]);
  EXPECT_EQ(30, committed()["generation"]);
  EXPECT_EQ("one", committed()["by"]);
  EXPECT_TRUE(contains(outcome.err, "map 1 of the cluster is in force")) << outcome.err;
}

TEST_F(ClusterMaps, ThreeNodesGetAMapThatIsHandedToOne) {
  for (const char* name : {"one", "two", "three"}) add(name);
  start_daemons();
  hand_over(node(1), 30);
  EXPECT_TRUE(all_have(30));
  hand_over(node(2), 40);
  EXPECT_TRUE(all_have(40));
  EXPECT_EQ(2, committed()["number"]);
  for (const auto& one : nodes_) {
    EXPECT_TRUE(comes([&] { return one->state()["number"] == 2; }));
    EXPECT_EQ(40, one->state()["generation"]);
    EXPECT_TRUE(one->may_serve());
  }
  EXPECT_TRUE(comes([] { return proposals() == std::vector<std::string>{"2"}; }))
      << "an older map goes when all have the later one";
}

TEST_F(ClusterMaps, ThePairInTheSharedFolderIsTakenByOneLoader) {
  add("one");
  add("two");
  put_pair(kShared + "/inbox", 30);
  auto first = node(0).begin({Node::kLoader, "--dir", node(0).inbox()}, in_haste(kHaste));
  auto second = node(1).begin({Node::kLoader, "--dir", node(1).inbox()}, in_haste(kHaste));
  start_daemons();
  EXPECT_TRUE(all_have(30));
  put_pair(kShared + "/inbox", 40);
  EXPECT_TRUE(all_have(40));
  EXPECT_EQ(2, committed()["number"]) << "each pair got one number";
}

TEST_F(ClusterMaps, ABrokenPairIsRefusedBeforeItIsPutUp) {
  add("one");
  put_pair(node(0).inbox(), 30);
  write_file(node(0).inbox() + "/data.json", "[{\"DIR\":\"x\"}]");
  EXPECT_EQ(1, load(node(0)).exit_code);
  EXPECT_TRUE(proposals().empty());
  EXPECT_EQ(1U, list(node(0).inbox() + "/refused").size());
}

// The pair was whole when it was put up, and its checksums are those of a broken one: as if a node
// of another release had checked it.
TEST_F(ClusterMaps, APairThatOneNodeRefusesIsRefusedForAll) {
  add("one");
  add("two");
  hand_over(node(0), 30);
  const std::string folder = kShared + "/maps/1";
  write_file(folder + "/data.json", "[{\"DIR\":\"x\"}]");
  auto proposal = nlohmann::json::parse(read_file(folder + "/proposal.json"));
  proposal["sha256"]["data"] = sum_of(folder + "/data.json");
  write_file(folder + "/proposal.json", proposal.dump());
  start_daemons();
  EXPECT_TRUE(comes([&] { return exists(folder + "/refused.json"); }));
  EXPECT_TRUE(contains(read_file(folder + "/refused.json"), "error"))
      << read_file(folder + "/refused.json");
  hand_over(node(1), 40);
  EXPECT_TRUE(all_have(40)) << "a later pair is not kept back";
  EXPECT_EQ(2, committed()["number"]);
}

TEST_F(ClusterMaps, AMapOfTheGuardIsHeldAndNotPutUp) {
  add("one");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  node(0).configure("", "[LOADER]\nhold removed folders pct = 10\n");
  put_pair(node(0).inbox(), 10);
  EXPECT_EQ(1, load(node(0)).exit_code);
  EXPECT_EQ(std::vector<std::string>{"1"}, proposals());
  EXPECT_TRUE(exists(node(0).in_etc("maps/held.json")));
  EXPECT_EQ(30, node(0).folders());
  const Outcome approved = node(0).run({Node::kCtl, "--json", "map", "approve", "--yes"});
  EXPECT_EQ(0, approved.exit_code) << approved.err;
  EXPECT_EQ(2, nlohmann::json::parse(approved.out)["number"]);
  EXPECT_FALSE(exists(node(0).in_etc("maps/held.json")));
  EXPECT_EQ(30, node(0).folders()) << "the daemon makes it current";
  EXPECT_EQ(0, node(0).once().exit_code);
  EXPECT_EQ(10, node(0).folders());
}

TEST_F(ClusterMaps, ANodeThatReturnsWithItsOldCopyJoins) {
  add("one");
  add("two");
  start_daemons();
  hand_over(node(0), 30);
  ASSERT_TRUE(all_have(30));
  node(1).power_off();
  hand_over(node(0), 40);
  EXPECT_TRUE(comes([&] { return node(0).folders() == 40; })) << "nobody waits for a lost node";
  node(1).power_on();
  EXPECT_FALSE(node(1).may_serve());
  const Outcome outcome = node(1).join();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(40, node(1).folders());
  EXPECT_TRUE(node(1).may_serve());
}

TEST_F(ClusterMaps, JoiningGivesUpWithASentence) {
  add("one");
  add("two");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  remove_all(kShared + "/maps/1/data.json");
  const Outcome outcome = node(1).run({Node::kDaemon, "--join", "--wait", "1"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "map 1 of the cluster cannot be made current")) << outcome.err;
  EXPECT_FALSE(node(1).may_serve());
}

// --- nodes that lag ------------------------------------------------------------------------------

TEST_F(ClusterMaps, ANodeThatLagsIsWaitedForAndThenLeftBehind) {
  add("one", "commit seconds = 2\n");
  add("two");
  start_daemons();
  ASSERT_TRUE(comes([&] { return node(0).may_serve() && node(1).may_serve(); }));
  // Its imports fail for a reason of its own.
  node(1).start_daemon(in_haste(kHaste, "fsync@/etc/tavrix/cluster:28:1:9999"));
  ASSERT_TRUE(comes([&] {
    return contains(node(1).daemon().err_so_far(), "") && node(1).state()["beat"].get<int>() < 5;
  }));
  hand_over(node(0), 30);
  EXPECT_TRUE(comes([&] { return node(0).folders() == 30; }));
  EXPECT_EQ(0, node(1).folders());
  EXPECT_TRUE(comes([&] { return !node(1).state()["problems"].empty(); }));
  EXPECT_TRUE(contains(node(1).state()["problems"].dump(), "No space left")) << node(1).state();
  EXPECT_TRUE(comes([&] { return !node(1).may_serve(); })) << "its lease ends";
  node(1).start_daemon(in_haste(kHaste));
  EXPECT_TRUE(all_have(30));
  EXPECT_TRUE(comes([&] { return node(1).may_serve(); }));
}

TEST_F(ClusterMaps, AMapOfAnOperatorOfOneNodeGivesWayToTheCommittedOne) {
  add("one");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  write_json_pair(wide(12));
  write_file(node(0).in_etc("tavrix.conf"), "");  // as if it was no node
  ASSERT_EQ(0, import_on(node(0)).exit_code);
  ASSERT_EQ(12, node(0).folders());
  node(0).configure("");
  EXPECT_EQ(0, node(0).once().exit_code);
  EXPECT_EQ(30, node(0).folders());
}

// --- an operator's maps --------------------------------------------------------------------------

TEST_F(ClusterMaps, AMapThatAnOperatorImportsGoesToAllNodes) {
  add("one");
  add("two");
  start_daemons();
  hand_over(node(0), 30);
  ASSERT_TRUE(all_have(30));
  write_json_pair(wide(12));
  const Outcome outcome = import_on(node(1), {"--json", "--consume"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  const auto said = nlohmann::json::parse(outcome.out);
  EXPECT_FALSE(said["published"]);
  EXPECT_EQ(2, said["number"]);
  EXPECT_TRUE(all_have(12));
  EXPECT_FALSE(exists("/scratch/size.json") || exists("/scratch/data.json"));
}

TEST_F(ClusterMaps, ABrokenPairOfAnOperatorIsNotPutUp) {
  add("one");
  write_json_pair(wide(12));
  write_file("/scratch/data.json", "[");
  EXPECT_EQ(1, import_on(node(0)).exit_code);
  EXPECT_EQ(0, import_on(node(0), {"--trust"}).exit_code) << "each node lints it all the same";
  EXPECT_EQ(0, node(0).once().exit_code);
  EXPECT_TRUE(exists(kShared + "/maps/1/refused.json"));
  EXPECT_EQ(0, committed()["number"]);
}

// The kept map has no pair any more: its image goes to the nodes, byte by byte.
TEST_F(ClusterMaps, AMapThatComesBackGoesToAllNodes) {
  add("one");
  add("two");
  add("three");
  start_daemons();
  hand_over(node(0), 30);
  ASSERT_TRUE(all_have(30));
  hand_over(node(0), 40);
  ASSERT_TRUE(all_have(40));
  node(2).power_off();
  const Outcome outcome = roll_back(node(1));
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ("the map is put up for all nodes as map 3\n", outcome.out);
  EXPECT_TRUE(comes([&] { return node(0).folders() == 30 && node(1).folders() == 30; }));
  EXPECT_EQ(3, committed()["number"]);
  EXPECT_EQ(1, roll_back(node(1)).exit_code) << "it is in force already";
  node(2).power_on();
  ASSERT_EQ(0, node(2).join().exit_code);
  EXPECT_EQ(30, node(2).folders());
  EXPECT_EQ(read_file(node(0).in_etc(".permbe_map")), read_file(node(2).in_etc(".permbe_map")));
}

TEST_F(ClusterMaps, SettingsGoWithAMapThatCameBack) {
  add("one");
  publish_two();
  ASSERT_EQ(0, roll_back(node(0)).exit_code);
  ASSERT_EQ(0, node(0).once().exit_code);
  add("two");
  ASSERT_EQ(0, node(0).run({Node::kCtl, "cluster", "share", "--settings"}).exit_code);
  start_daemons();
  EXPECT_TRUE(all_have(30));
  EXPECT_TRUE(comes([] { return committed()["number"] == 4; }));
}

// Its checksum is right, as if the node that put it up had trusted it.
TEST_F(ClusterMaps, AnImageThatIsNoMapIsRefusedForAll) {
  add("one");
  publish_two();
  ASSERT_EQ(0, roll_back(node(0)).exit_code);
  const std::string folder = kShared + "/maps/3/";
  write_file(folder + "image", read_file(folder + "image").substr(0, 100));
  auto proposal = nlohmann::json::parse(read_file(folder + "proposal.json"));
  proposal["sha256"]["image"] = sum_of(folder + "image");
  write_file(folder + "proposal.json", proposal.dump());
  EXPECT_EQ(0, node(0).once().exit_code);
  EXPECT_TRUE(contains(read_file(folder + "refused.json"), "the image has"));
  EXPECT_EQ(40, node(0).folders());
}

TEST_F(ClusterMaps, ADamagedKeptMapIsNotPutUp) {
  add("one");
  publish_two();
  const std::string kept = node(0).in_etc("maps/1.map");
  ASSERT_TRUE(exists(kept));
  std::string bytes = read_file(kept);
  bytes.back() = static_cast<char>(bytes.back() + 1);
  write_file(kept, bytes);
  const Outcome outcome = roll_back(node(0));
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "is damaged")) << outcome.err;
  EXPECT_FALSE(exists(kShared + "/maps/3"));
}

// --- without the shared tree ---------------------------------------------------------------------

// Nobody finds what lies in the folder below the mount.
TEST_F(ClusterMaps, APairWaitsWhileTheTreeIsNotMounted) {
  add("one");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  ASSERT_EQ(0, rename(kShared.c_str(), "/tavrix/mounted elsewhere"));
  put_pair(node(0).inbox(), 12);
  const auto loader =
      node(0).begin({Node::kLoader, "--once", "--dir", node(0).inbox()}, in_haste(kHaste));
  EXPECT_TRUE(
      comes([&] { return contains(loader->err_so_far(), "the pair waits for the shared tree"); }));
  write_json_pair(wide(13));
  const Outcome by_hand = import_on(node(0), {"--consume"});
  EXPECT_EQ(2, by_hand.exit_code);
  EXPECT_TRUE(contains(by_hand.err, "cannot be put up for all nodes")) << by_hand.err;
  EXPECT_TRUE(exists("/scratch/data.json"));
  EXPECT_FALSE(exists(kShared));
  ASSERT_EQ(0, rename("/tavrix/mounted elsewhere", kShared.c_str()));
  EXPECT_EQ(0, loader->wait().exit_code);
  EXPECT_EQ(0, node(0).once().exit_code);
  EXPECT_EQ(12, node(0).folders());
}

// --- the leader ----------------------------------------------------------------------------------

TEST_F(ClusterMaps, OneNodeLeadsAndAnotherTakesOverWhenItDies) {
  const std::size_t leader = leader_of_two();
  node(leader).kill_daemon();
  hand_over(node(0), 40);
  EXPECT_TRUE(comes([&] { return node(1 - leader).folders() == 40; }));
  EXPECT_NE(node(leader).name(), committed()["by"]);
}

// Its process lives, so the kernel keeps its lock.
TEST_F(ClusterMaps, ALeaderThatHangsIsDeposed) {
  const std::size_t leader = leader_of_two();
  Node& other = node(1 - leader);
  kill(node(leader).daemon().pid(), SIGSTOP);
  hand_over(other, 40);
  EXPECT_TRUE(comes([&] { return other.folders() == 40; }));
  EXPECT_EQ(other.name(), committed()["by"]);
  EXPECT_TRUE(contains(other.daemon().err_so_far(),
                       node(leader).name() + " leads the cluster and has not said anything"));
  kill(node(leader).daemon().pid(), SIGCONT);
  EXPECT_TRUE(all_have(40)) << "it follows";
  hand_over(node(leader), 50);
  EXPECT_TRUE(all_have(50));
  EXPECT_EQ(3, committed()["number"]);
  EXPECT_EQ(other.name(), committed()["by"]) << "and leads no more";
}

TEST_F(ClusterMaps, TheLeaderFileSaysWhoMayCommit) {
  add("one");
  add("two");
  write_file("/scratch/leader", "two\n");
  start_daemons({"--leader-file", "/scratch/leader"});
  hand_over(node(0), 30);
  EXPECT_TRUE(all_have(30));
  EXPECT_EQ("two", committed()["by"]);
  write_file("/scratch/leader", "one\n");
  hand_over(node(0), 40);
  EXPECT_TRUE(all_have(40));
  EXPECT_EQ("one", committed()["by"]);
}

TEST_F(ClusterMaps, ANumberThatGoesBackIsPutBack) {
  add("one");
  hand_over(node(0), 30);
  ASSERT_EQ(0, node(0).once().exit_code);
  const std::string first = read_file(kShared + "/committed.json");
  hand_over(node(0), 40);
  ASSERT_EQ(0, node(0).once().exit_code);
  write_file(kShared + "/committed.json", first);
  const Outcome outcome = node(0).once();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(2, committed()["number"]);
  EXPECT_EQ(40, node(0).folders());
}

// --- differences ---------------------------------------------------------------------------------

TEST_F(ClusterMaps, NodesWithDifferentSettingsSaySoOnce) {
  add("one");
  add("two", "fence seconds = 11\n");
  start_daemons();
  const std::string sentence = "/etc/tavrix/tavrix.conf differs from that of node two";
  ASSERT_TRUE(comes([&] { return contains(node(0).daemon().err_so_far(), sentence); }));
  const int beat = node(0).state()["beat"];
  ASSERT_TRUE(comes([&] { return node(0).state()["beat"] > beat + 5; }));
  const std::string said = node(0).daemon().err_so_far();
  EXPECT_EQ(said.find(sentence), said.rfind(sentence)) << said;
}

// --- the daemon itself ---------------------------------------------------------------------------

TEST_F(ClusterMaps, AMachineThatIsNoNodeHasNoDaemon) {
  add("one");
  write_file(node(0).in_etc("tavrix.conf"), "");
  const Outcome outcome = node(0).once();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "CLUSTER:enabled is no")) << outcome.err;
}

TEST_F(ClusterMaps, AServiceManagerLearnsWhetherThereIsAnythingToRun) {
  add("one");
  EXPECT_EQ(0, node(0).is_enabled().exit_code);
  write_file(node(0).in_etc("tavrix.conf"), "");
  const Outcome outcome = node(0).is_enabled();
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "CLUSTER:enabled is no")) << outcome.err;
}

TEST_F(ClusterMaps, ASecondDaemonOfANodeEnds) {
  add("one");
  start_daemons();
  ASSERT_TRUE(comes([&] { return node(0).may_serve(); }));
  EXPECT_EQ(2, node(0).once().exit_code);
  EXPECT_EQ(0, node(0).join().exit_code) << "to join beside the daemon is possible";
}

}  // namespace
}  // namespace tavrix::test
