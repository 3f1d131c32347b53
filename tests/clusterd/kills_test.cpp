// SPDX-License-Identifier: LGPL-3.0-or-later
// A node that is killed at any step of a map's way leaves a cluster that goes on: all nodes get the
// next map, and every file in the shared tree is whole.

#include "tests/clusterd/nodes.hpp"

namespace tavrix::test {
namespace {

class ClusterKills : public Cluster, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr int kMost = 60;  // more calls of a kind than a map's way has

  void SetUp() override {
    Cluster::SetUp();
    add("one");
    add("two");
    hand_over(node(0), kFolders);
    ASSERT_EQ(0, node(0).once().exit_code);
  }
  [[nodiscard]] static std::string rule(int nth) {
    return std::string(GetParam()) + ":kill:" + std::to_string(nth);
  }
  // The other node says nothing, so nobody waits for it.
  void silence_other() const { unlink((kShared + "/nodes/" + node(1).name() + ".json").c_str()); }
  // The loader refuses a pair whose import is killed, as it does on a machine of its own: it lies
  // there whole, with the reason. Forgets it.
  [[nodiscard]] bool is_set_aside() const {
    const std::string refused = node(0).inbox() + "/refused";
    const auto names = exists(refused) ? list(refused) : std::vector<std::string>{};
    for (const std::string& name : names) {
      EXPECT_EQ((std::vector<std::string>{"data.json", "reason.txt", "size.json"}),
                list(refused + "/" + name));
    }
    remove_all(refused);
    return !names.empty();
  }
  [[nodiscard]] Outcome once() const { return node(0).once(in_haste(kHaste)); }
  static constexpr int kFolders = 10;
};

// The daemon or its child is killed; both are on the way of the map.
TEST_P(ClusterKills, OfADaemonLeaveAMapForAllNodes) {
  bool is_reached = true;
  for (int nth = 1; is_reached && nth <= kMost; ++nth) {
    SCOPED_TRACE(rule(nth));
    const int folders = kFolders + nth;
    hand_over(node(0), static_cast<uint32_t>(folders));
    silence_other();
    static_cast<void>(node(0).once(in_haste(kHaste, rule(nth))));
    is_reached = !reached().empty();
    const Outcome outcome = once();
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
    ASSERT_EQ(folders, node(0).folders());
    ASSERT_EQ(folders, committed()["generation"]);
    ASSERT_EQ(std::vector<std::string>{std::to_string(committed()["number"].get<int>())},
              proposals());
    const Outcome joined = node(1).join();
    ASSERT_EQ(0, joined.exit_code) << joined.err;
    ASSERT_EQ(folders, node(1).folders());
  }
  EXPECT_FALSE(is_reached) << "more calls than expected";
}

// The pair has one number, whatever happened to the loader that put it up.
TEST_P(ClusterKills, OfALoaderNeitherLoseAPairNorPutItUpTwice) {
  bool is_reached = true;
  for (int nth = 1; is_reached && nth <= kMost; ++nth) {
    SCOPED_TRACE(rule(nth));
    const int folders = kFolders + nth;
    const int before = committed()["number"];
    put_pair(node(0).inbox(), static_cast<uint32_t>(folders));
    static_cast<void>(load(node(0), in_haste(kHaste, rule(nth))));
    is_reached = !reached().empty();
    if (is_set_aside()) continue;
    const Outcome outcome = load(node(0));
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
    ASSERT_EQ(0, once().exit_code);
    ASSERT_EQ(folders, node(0).folders());
    ASSERT_EQ(before + 1, committed()["number"]);
  }
  EXPECT_FALSE(is_reached) << "more calls than expected";
}

INSTANTIATE_TEST_SUITE_P(Calls, ClusterKills,
                         testing::Values("rename", "fsync", "unlink", "mkdir", "link", "setall",
                                         "shmnew", "shmrm", "fork", "flock", "write"),
                         [](const auto& call) { return std::string(call.param); });

// The leader is killed between a rename and the sync of the folder, for each file it names; the
// other node has its daemon all the time.
TEST_F(Cluster, AKilledLeaderLeavesTheOtherToCommit) {
  add("one");
  add("two");
  for (const char* at : {"rename@committed.json", "rename@prepared/one", "rename@nodes/one",
                         "rename@cluster/current.json", "rename@.permbe_map.mark"}) {
    SCOPED_TRACE(at);
    static uint32_t folders = 20;
    ++folders;
    node(1).kill_daemon();
    node(0).start_daemon(in_haste(kHaste, std::string(at) + ":kill:1"));
    hand_over(node(0), folders);
    node(1).start_daemon(in_haste(kHaste));
    EXPECT_TRUE(comes([&] { return node(1).folders() == static_cast<int>(folders); }));
    node(0).start_daemon(in_haste(kHaste));
    EXPECT_TRUE(all_have(static_cast<int>(folders)));
    node(0).kill_daemon();
  }
}

}  // namespace
}  // namespace tavrix::test
