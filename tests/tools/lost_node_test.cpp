// SPDX-License-Identifier: LGPL-3.0-or-later
// The mark of a node that runs, and what tells the agent of a node that is gone.

#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/tools/sweeper.hpp"

namespace tavrix::test {
namespace {

const std::string kMarks = "/tavrix/.conf/cluster/running";

class LostNode : public SweeperWorld {
 protected:
  void SetUp() override {
    SweeperWorld::SetUp();
    ASSERT_EQ(0, unshare(CLONE_NEWUTS));
    be("node1");
    write_settings(65536, 1, "[CLUSTER]\nenabled = yes\n");
  }
  static void be(const std::string& node) { ASSERT_EQ(0, sethostname(node.data(), node.size())); }
  static std::string mark(const std::string& node) { return kMarks + "/" + node; }
  static std::string boot_of(const std::string& node) {
    const std::string text = read_file(mark(node));
    return text.substr(0, text.find('\n'));
  }
  // The mark that a node leaves when its power is cut.
  static void leave_mark(const std::string& node, const std::string& address = "") {
    make_dirs(kMarks);
    write_file(mark(node), "another boot\n" + address + "\n1\n");
  }
  static void forget_memory() {
    shmctl(segment(), IPC_RMID, nullptr);
    semctl(semaphore(), 0, IPC_RMID);
  }
  static Outcome once_with_file(const Environment& environment = {}) {
    return run_program({kSweeper, "--once", "--settings", kConf}, "", environment);
  }
  static bool tells_of(const std::string& node) {
    return exists(kRescan) && contains(read_file(kRescan), "node " + node + " stopped");
  }
  static Outcome lost(const std::string& node, const Environment& environment = {}) {
    return run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "cluster", "lost", node}, "",
                       environment);
  }
};

TEST_F(LostNode, HasAMarkOfItsOwnWhileItsSweeperRuns) {
  const auto sweeper = daemon({.with_file = true});
  EXPECT_TRUE(exists(mark("node1")));
  EXPECT_FALSE(exists(kRunning));
  EXPECT_EQ(boot_of("node1") + "\n", read_file("/proc/sys/kernel/random/boot_id"));
  EXPECT_EQ(0, stop(*sweeper).exit_code);
  EXPECT_FALSE(exists(mark("node1")));
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(LostNode, MarksAreTouchedEachPeriod) {
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  const timespec old[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, mark("node1").c_str(), old, 0));
  EXPECT_TRUE(comes([] {
    struct stat info {};
    return stat((kMarks + "/node1").c_str(), &info) == 0 && info.st_mtime > 1;
  }));
}

TEST_F(LostNode, MakesATakenMarkAnewWhileItLives) {
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  be("node2");
  ASSERT_EQ(0, lost("node1").exit_code);
  EXPECT_TRUE(comes([] { return exists(mark("node1")); }));
}

TEST_F(LostNode, NeedsANameForItsMark) {
  be("-");
  const Outcome outcome = once_with_file();
  EXPECT_TRUE(contains(outcome.err, "the host name is no name of a node")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "the previous settings hold")) << outcome.err;
  EXPECT_TRUE(!exists(kMarks) || list(kMarks).empty());
}

TEST_F(LostNode, IsToldOnce) {
  leave_mark("node2");
  const Outcome outcome = lost("node2");
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out, "the agent is asked for a rescan")) << outcome.out;
  EXPECT_TRUE(tells_of("node2"));
  EXPECT_TRUE(list(kMarks).empty());
  unlink(kRescan);
  EXPECT_EQ(0, lost("node2").exit_code);
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(LostNode, IsKnownByItsAddress) {
  leave_mark("node2", "10.0.0.2");
  EXPECT_EQ("node2", json({"cluster", "lost", "10.0.0.2"})["node"]);
  EXPECT_TRUE(tells_of("node2"));
}

// CTDB knows the address after the sweeper has started.
TEST_F(LostNode, TakesTheAddressIntoItsMarkWhenItIsKnown) {
  ASSERT_EQ(0, mount("tmpfs", "/run", "tmpfs", 0, nullptr));
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  make_dirs("/run/tavrix");
  write_file("/run/tavrix/cluster.address", "10.0.0.1\n");
  EXPECT_TRUE(comes([] { return contains(read_file(mark("node1")), "\n10.0.0.1\n"); }));
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(LostNode, ThatSeemsToLiveIsNotTold) {
  leave_mark("node2");
  make_dirs("/tavrix/.conf/cluster/nodes");
  write_file("/tavrix/.conf/cluster/nodes/node2.json", "{}");
  const Outcome outcome = lost("node2");
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "node node2 lives: it told its state")) << outcome.err;
  EXPECT_FALSE(exists(kRescan));
  EXPECT_TRUE(exists(mark("node2")));
  EXPECT_EQ(0, ctl({"cluster", "lost", "node2", "--force"}).exit_code);
  EXPECT_TRUE(tells_of("node2"));
}

TEST_F(LostNode, IsNotThisMachineInThisRun) {
  const auto sweeper = daemon({.with_file = true});
  const Outcome outcome = lost("node1");
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "it is this machine")) << outcome.err;
  EXPECT_FALSE(exists(kRescan));
}

TEST_F(LostNode, TellsItselfWhenItComesBack) {
  leave_mark("node1");
  const Outcome outcome = once_with_file();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(tells_of("node1"));
  EXPECT_TRUE(list(kMarks).empty());
}

TEST_F(LostNode, TellsWhatItLostAsAMachineAlone) {
  write_file(kRunning, "another boot\n");
  EXPECT_EQ(0, once_with_file().exit_code);
  EXPECT_TRUE(contains(read_file(kRescan), "the machine stopped while events were in memory"));
  EXPECT_FALSE(exists(kRunning));
}

TEST_F(LostNode, KeepsWhatItHasAsAMachineAlone) {
  const auto alone = daemon();
  send("a");
  alone->kill();
  alone->wait();
  ASSERT_TRUE(exists(kRunning));
  EXPECT_EQ(0, once_with_file().exit_code);
  EXPECT_FALSE(exists(kRescan));
  EXPECT_FALSE(exists(kRunning));
  EXPECT_EQ(Paths{"a"}, dumped(std::string(kStaging) + "/node1"));
}

// Somebody may have made the buffer of this run before the sweeper comes.
TEST_F(LostNode, TellsItselfAlsoWithANewBuffer) {
  ASSERT_EQ(0, ctl({"events", "buffer", "create"}).exit_code);
  leave_mark("node1");
  EXPECT_EQ(0, once_with_file().exit_code);
  EXPECT_TRUE(tells_of("node1"));
}

TEST_F(LostNode, TellsOfABufferThatWasTakenAway) {
  const auto sweeper = daemon({.with_file = true, .haste = kHaste});
  shmctl(segment(), IPC_RMID, nullptr);
  EXPECT_TRUE(comes([] { return exists(kRescan); }));
  EXPECT_TRUE(contains(read_file(kRescan), "node node1: the staging buffer was taken away"));
}

TEST_F(LostNode, OfASweeperThatOnlyDiedIsNotTold) {
  const auto sweeper = daemon({.with_file = true});
  send("a");
  sweeper->kill();
  sweeper->wait();
  EXPECT_EQ(0, once_with_file().exit_code);
  EXPECT_FALSE(exists(kRescan));
  EXPECT_EQ(Paths{"a"}, dumped(std::string(kStaging) + "/node1"));
}

TEST_F(LostNode, IsToldByOneOfMany) {
  leave_mark("node2");
  std::vector<std::unique_ptr<Child>> callers;
  callers.reserve(8);
  for (int i = 0; i < 8; ++i) {
    callers.push_back(std::make_unique<Child>([] {
      execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "--json", "cluster", "lost", "node2",
            nullptr);
      _exit(127);
    }));
  }
  int told = 0;
  for (const auto& caller : callers) {
    const Outcome outcome = caller->wait();
    EXPECT_EQ(0, outcome.exit_code) << outcome.err;
    told += contains(outcome.out, "\"told\"") ? 1 : 0;
  }
  EXPECT_EQ(1, told);
  EXPECT_TRUE(tells_of("node2"));
}

TEST_F(LostNode, IsKeptWhenTheMarkerCannotBeWritten) {
  leave_mark("node2");
  const Outcome outcome = lost("node2", with_faults("open@tavrix_event_status:28:1:9"));  // ENOSPC
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "is kept for the next attempt")) << outcome.err;
  EXPECT_NE("", reached());
  EXPECT_EQ(0, once_with_file().exit_code);  // any node's sweeper
  EXPECT_TRUE(tells_of("node2"));
  EXPECT_TRUE(list(kMarks).empty());
}

// --- killed at every step ------------------------------------------------------------------------

// Kills at the NTH call of each kind; returns false when there is no such call any more.
template <typename Run>
bool killed(const char* call, int nth, Run run) {
  const Outcome outcome = run(std::string(call) + ":kill:" + std::to_string(nth));
  return outcome.signal == SIGKILL;
}

const char* const kCallsThatMatter[] = {"open", "rename", "unlink", "write", "fsync", "close"};

TEST_F(LostNode, IsToldAfterTheTellerIsKilledAtAnyStep) {
  int kills = 0;
  for (const char* call : kCallsThatMatter) {
    for (int nth = 1;; ++nth) {
      leave_mark("node2");
      unlink(kRescan);
      const bool was_killed = killed(
          call, nth, [](const std::string& rule) { return lost("node2", with_faults(rule)); });
      if (!was_killed) break;
      ++kills;
      ASSERT_EQ(0, lost("node2").exit_code);
      ASSERT_TRUE(tells_of("node2")) << call << " " << nth;
      ASSERT_TRUE(list(kMarks).empty()) << call << " " << nth;
    }
  }
  EXPECT_GT(kills, 5);
}

TEST_F(LostNode, IsToldAfterItsOwnSweeperIsKilledAtAnyStep) {
  int kills = 0;
  for (const char* call : {"open", "rename", "unlink", "fsync"}) {
    for (int nth = 1;; ++nth) {
      leave_mark("node1");
      unlink(kRescan);
      forget_memory();
      const bool was_killed = killed(
          call, nth, [](const std::string& rule) { return once_with_file(with_faults(rule)); });
      if (!was_killed) break;
      ++kills;
      ASSERT_EQ(0, once_with_file().exit_code);
      // A kill behind the mark and before the buffer counts as a loss of the buffer too.
      ASSERT_TRUE(exists(kRescan)) << call << " " << nth;
      ASSERT_TRUE(contains(read_file(kRescan), "node node1")) << call << " " << nth;
    }
  }
  EXPECT_GT(kills, 5);
}

}  // namespace
}  // namespace tavrix::test
