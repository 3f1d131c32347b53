// SPDX-License-Identifier: LGPL-3.0-or-later
// The lease of a node: renewed while the node is current and the shared tree answers, and by
// nothing else.

#include <sys/wait.h>

#include "tests/clusterd/nodes.hpp"

namespace tavrix::test {
namespace {

constexpr int64_t kSecond = 1'000'000'000;

class ClusterLease : public Cluster {
 protected:
  static constexpr const char* kShort = "fence seconds = 2\n";
  [[nodiscard]] int64_t end_of_lease(std::size_t index) const {
    return cluster::lease_end("/scratch/" + node(index).name() + "/run/tavrix/cluster.lease")
        .value_or(0);
  }
  [[nodiscard]] bool is_renewed(std::size_t index) const {
    const int64_t before = end_of_lease(index);
    return comes([&] { return end_of_lease(index) > before; });
  }
};

TEST_F(ClusterLease, IsRenewedWhileAllIsWell) {
  add("one");
  start_daemons();
  ASSERT_TRUE(comes([&] { return node(0).may_serve(); })) << "before the first map too";
  EXPECT_TRUE(is_renewed(0));
  EXPECT_LE(end_of_lease(0), cluster::lease_clock() + 10 * kSecond) << "never past the fence";
}

TEST_F(ClusterLease, EndsWhenTheDaemonIsKilledOrHangs) {
  add("one", kShort);
  for (const int signal : {SIGKILL, SIGSTOP}) {
    start_daemons();
    ASSERT_TRUE(comes([&] { return node(0).may_serve(); }));
    kill(node(0).daemon().pid(), signal);
    EXPECT_TRUE(comes([&] { return !node(0).may_serve(); }));
    node(0).kill_daemon();
  }
  start_daemons();
  EXPECT_TRUE(comes([&] { return node(0).may_serve(); })) << "and is given again";
}

// The file that servers have mapped goes on: another one would end their sessions.
TEST_F(ClusterLease, KeepsItsFileWhenTheDaemonStartsAgain) {
  add("one");
  start_daemons();
  ASSERT_TRUE(comes([&] { return node(0).may_serve(); }));
  struct stat before {
  }, after{};
  const std::string file = "/scratch/one/run/tavrix/cluster.lease";
  ASSERT_EQ(0, stat(file.c_str(), &before));
  start_daemons();
  ASSERT_TRUE(is_renewed(0));
  ASSERT_EQ(0, stat(file.c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(ClusterLease, EndsWhileTheSharedTreeCannotBeWritten) {
  add("one", kShort);
  hand_over(node(0), 30);
  node(0).start_daemon(in_haste(kHaste, "rename@nodes/one.json:5:20:9999"));
  EXPECT_TRUE(comes([&] { return node(0).folders() == 30; }));
  EXPECT_TRUE(comes([&] { return end_of_lease(0) > 0 && !node(0).may_serve(); }));
  EXPECT_TRUE(contains(node(0).daemon().err_so_far(), "Input/output error"));
}

// The read never comes back, as on a file system that waits for its cluster.
TEST_F(ClusterLease, EndsWhileTheSharedTreeHangs) {
  add("one", kShort);
  node(0).start_daemon(in_haste(kHaste, "open@committed.json:stop:20"));
  ASSERT_TRUE(comes([&] { return node(0).may_serve(); }));
  EXPECT_TRUE(comes([&] { return !node(0).may_serve(); }));
  kill(node(0).daemon().pid(), SIGCONT);
  EXPECT_TRUE(comes([&] { return node(0).may_serve(); })) << "the tree answers again";
}

// The tree is not mounted: the folder below the mount point is empty.
TEST_F(ClusterLease, EndsWhenTheTreeIsAnEmptyFolder) {
  add("one", kShort);
  hand_over(node(0), 30);
  start_daemons();
  ASSERT_TRUE(comes([&] { return node(0).folders() == 30 && node(0).may_serve(); }));
  ASSERT_EQ(0, rename("/tavrix/.conf", "/tavrix/.away"));
  EXPECT_TRUE(comes([&] { return !node(0).may_serve(); }));
  EXPECT_TRUE(contains(node(0).daemon().err_so_far(), "is the shared tree mounted?"));
  ASSERT_EQ(0, rename("/tavrix/.away", "/tavrix/.conf"));
  EXPECT_TRUE(comes([&] { return node(0).may_serve(); }));
}

// The bound counts from the last look at which the map of this node was the committed one, so the
// lease of before does not grow.
TEST_F(ClusterLease, IsNotRenewedOnANodeThatIsBehind) {
  add("one");
  add("two");
  start_daemons();
  hand_over(node(0), 30);
  ASSERT_TRUE(all_have(30));
  node(1).kill_daemon();
  hand_over(node(0), 40);
  ASSERT_TRUE(comes([&] { return node(0).folders() == 40; }));
  const int64_t before = end_of_lease(1);
  node(1).start_daemon(in_haste(kHaste, "setall:1:1:9999"));
  ASSERT_TRUE(comes([&] { return !node(1).state()["problems"].empty(); }));
  EXPECT_EQ(before, end_of_lease(1));
  EXPECT_TRUE(comes([&] { return !node(1).may_serve(); }));
}

}  // namespace
}  // namespace tavrix::test
