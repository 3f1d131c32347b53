// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl health: a row for each thing that keeps a machine from serving, and what never does.

#include <fcntl.h>
#include <sys/stat.h>

#include "mkperms_shm.h"
#include "tests/tools/nodes.hpp"
#include "tools/cluster/lease.h"

namespace tavrix::test {
namespace {

class Health : public Nodes {
 protected:
  void SetUp() override {
    Nodes::SetUp();
    ASSERT_EQ(0, mount("tmpfs", "/run", "tmpfs", 0, "mode=0755"));
    make_dirs("/run/tavrix");
    write_file("/etc/tavrix/tavrix.conf", read_file(kConf));
    ASSERT_EQ(0, import(team()).exit_code);
    sweeper_ = daemon();
  }
  void join() {
    stop(*sweeper_);
    join_cluster();
    sweeper_ = daemon({.with_file = true});
    make_dirs(std::string(kCluster) + "/nodes");
    make_dirs(std::string(kCluster) + "/running");
    lease(60);
  }
  static void lease(int64_t seconds) {
    tavrix_lease lease{};
    std::memcpy(lease.magic, TAVRIX_LEASE_MAGIC, sizeof lease.magic);
    lease.version = TAVRIX_LEASE_VERSION;
    lease.size = sizeof lease;
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    lease.until = (now.tv_sec + seconds) * 1'000'000'000;
    write_lease(lease);
  }
  static void write_lease(const tavrix_lease& lease) {
    write_file(TAVRIX_LEASE_FILE, {reinterpret_cast<const char*>(&lease), sizeof lease});
  }
  static void commit(int number, int generation, int seconds_ago) {
    nlohmann::json json;
    json["number"] = number;
    json["generation"] = generation;
    json["when"] = ::time(nullptr) - seconds_ago;
    write_file(std::string(kCluster) + "/committed.json", json.dump());
  }
  static void expect_healthy() {
    const Outcome outcome = ctl({"health"});
    EXPECT_EQ(0, outcome.exit_code) << outcome.out << outcome.err;
    EXPECT_TRUE(outcome.out.starts_with("healthy\n")) << outcome.out;
  }
  // The check fails, with a sentence that has these words, and the others do not.
  static void expect_unhealthy(const std::string& check, const std::string& words) {
    const Outcome outcome = ctl({"health"});
    EXPECT_EQ(1, outcome.exit_code);
    EXPECT_TRUE(outcome.out.starts_with("not healthy: ") && contains(outcome.out, words))
        << outcome.out;
    const auto health = json({"health"});
    EXPECT_EQ(false, health["healthy"]);
    EXPECT_TRUE(contains(health["problem"], words)) << health;
    for (const auto& entry : health["checks"]) {
      EXPECT_EQ(entry["name"] != check, entry["well"]) << entry;
    }
  }
  static bool is_noted(const std::string& name) {
    const auto health = json({"health"});
    for (const auto& note : health["notes"]) {
      if (note["name"] == name) return true;
    }
    return false;
  }

  std::unique_ptr<Child> sweeper_;
};

TEST_F(Health, IsWellOnAMachineAlone) {
  expect_healthy();
  const auto health = json({"health"});
  EXPECT_FALSE(health.contains("node"));
  EXPECT_EQ(4U, health["checks"].size());
}

TEST_F(Health, IsWellOnANode) {
  join();
  expect_healthy();
  const auto health = json({"health"});
  EXPECT_EQ("alpha", health["node"]);
  EXPECT_EQ(6U, health["checks"].size());
}

TEST_F(Health, NeedsSettings) {
  stop(*sweeper_);
  ctl({"config", "remove", "--yes"});
  const Outcome outcome = ctl({"health"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.out, "there is no parameter block")) << outcome.out;
}

TEST_F(Health, NeedsAMap) {
  ctl({"map", "remove", "--yes"});
  expect_unhealthy("map", "there is no map, so nobody may do anything");
}

TEST_F(Health, NeedsTheLocalCopyThatReadersAskFor) {
  ASSERT_EQ(0, unlink("/etc/tavrix/.permbe_map"));
  expect_unhealthy("map", "/etc/tavrix/.permbe_map: No such file or directory");
}

TEST_F(Health, NeedsAMapWithASoundHeader) {
  for (const int key : {0x70657269, 0x7065726a}) {
    const int id = shmget(key, 0, 0);
    if (id == -1) continue;
    const ShmAttachment table(shmat(id, nullptr, 0));
    std::memset(table.get(), 0, sizeof(tavrix_be_header));
  }
  expect_unhealthy("map", "the current map is damaged");
}

TEST_F(Health, NeedsASweeper) {
  stop(*sweeper_);
  expect_unhealthy("sweeper", "tavrix-sweeper does not run");
}

TEST_F(Health, NeedsASweeperThatWorks) {
  ::kill(sweeper_->pid(), SIGSTOP);
  const timespec long_ago[2] = {{1700000000, 0}, {1700000000, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, kRunning, long_ago, 0));
  expect_unhealthy("sweeper", "tavrix-sweeper has not worked for ");
  ::kill(sweeper_->pid(), SIGCONT);
}

TEST_F(Health, NeedsAStagingFolder) {
  ASSERT_EQ(0, rename(kStaging, "/scratch/away"));
  expect_unhealthy("staging", "/scratch/staging: No such file or directory");
}

TEST_F(Health, NeedsAStagingFolderThatCanBeWritten) {
  ASSERT_EQ(0, mount(kStaging, kStaging, nullptr, MS_BIND, nullptr));
  ASSERT_EQ(0, mount(nullptr, kStaging, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr));
  expect_unhealthy("staging", "/scratch/staging: Read-only file system");
}

TEST_F(Health, NeedsSpaceOnAMachineAlone) {
  mount_small_disk(kStaging, 65536);
  expect_unhealthy("staging", "/scratch/staging: the disk is full");
}

// --- on a node -----------------------------------------------------------------------------------

TEST_F(Health, NeedsALeaseOnANode) {
  join();
  lease(-5);
  expect_unhealthy("lease", "the lease is over for ");
  ASSERT_EQ(0, unlink(TAVRIX_LEASE_FILE));
  expect_unhealthy("lease", "there is no lease");
  write_file(TAVRIX_LEASE_FILE, "something else");
  expect_unhealthy("lease", "is no lease");
  tavrix_lease none{};
  std::memcpy(none.magic, TAVRIX_LEASE_MAGIC, sizeof none.magic);
  none.version = TAVRIX_LEASE_VERSION;
  none.size = sizeof none;
  write_lease(none);
  expect_unhealthy("lease", "this node may not serve yet");
}

TEST_F(Health, NeedsTheMapOfTheCluster) {
  join();
  commit(1, 1 << 30, 60);
  expect_unhealthy("committed", "the map is an old one: the cluster has map 1, generation");
  commit(1, 1 << 30, 2);
  expect_healthy();  // the other nodes may not have it either
  commit(1, 0, 60);
  expect_healthy();
}

// A rollback is an older generation under a new number.
TEST_F(Health, GoesByTheNumberThatThisNodeTells) {
  join();
  const auto tell = [](int number) {
    nlohmann::json json = {{"time", 1},
                           {"generation", 9},
                           {"prepared", 1},
                           {"settings_hash", ""},
                           {"smb_conf_hash", ""},
                           {"group_map_hash", ""},
                           {"problems", nlohmann::json::array()}};
    json["number"] = number;
    std::string boot = read_file("/proc/sys/kernel/random/boot_id");
    boot.pop_back();
    json["boot"] = boot;
    write_file(std::string(kCluster) + "/nodes/alpha.json", json.dump());
  };
  commit(4, 0, 60);
  tell(3);
  expect_unhealthy("committed", "the cluster has map 4");
  tell(4);
  expect_healthy();
}

// A trouble that all nodes share would take all of them out of service at once.
TEST_F(Health, OnlyNotesWhatAllNodesShare) {
  join();
  write_file(kSyncOff, "Failed to write event.");
  write_file(kRescan, "a reason");
  mount_small_disk("/scratch/staging/alpha", 65536);
  expect_healthy();
  EXPECT_TRUE(is_noted("sync-off"));
  EXPECT_TRUE(is_noted("rescan"));
  EXPECT_TRUE(is_noted("space"));
  write_file(std::string(kCluster) + "/committed.json", "{}");
  expect_healthy();
  write_file(std::string(kCluster) + "/committed.json", "no JSON");
  expect_healthy();
}

// Without a map no node could be healthy, and no address would be served to say so.
TEST_F(Health, NeedsNoMapBeforeTheClusterHasOne) {
  join();
  ctl({"map", "remove", "--yes"});
  expect_healthy();
  EXPECT_TRUE(is_noted("map"));
  commit(1, 1, 0);
  expect_unhealthy("map", "there is no map, so nobody may do anything");
  EXPECT_FALSE(is_noted("map"));
}

TEST_F(Health, NotesAlarmsOnAMachineAlone) {
  EXPECT_FALSE(is_noted("sync-off"));
  write_file(kSyncOff, "Failed to write event.");
  expect_healthy();
  EXPECT_TRUE(is_noted("sync-off"));
}

// Nothing ends a process that waits for a file system. Here it waits for somebody to open the other
// end of a pipe.
TEST_F(Health, AnswersWhileTheSharedTreeDoesNot) {
  join();
  commit(1, 1, 0);
  expect_healthy();
  const std::string committed = std::string(kCluster) + "/committed.json";
  remove_all(committed);
  ASSERT_EQ(0, mkfifo(committed.c_str(), 0600));
  for (const bool has_lease : {true, false}) {
    if (!has_lease) lease(-1);
    const Outcome outcome =
        run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "health"}, {}, in_haste(20));
    EXPECT_EQ(1, outcome.exit_code) << outcome.err;
    const char* words = has_lease ? "/tavrix does not answer" : "the lease is over for";
    EXPECT_TRUE(contains(outcome.out, words)) << outcome.out;
    const auto health = nlohmann::json::parse(
        run_program({TAVRIX_BUILD_DIR "/tools/tavrixctl", "--json", "health"}, {}, in_haste(20))
            .out);
    EXPECT_EQ(false, health["healthy"]);
    EXPECT_EQ("tree", health["checks"].back()["name"]);
    EXPECT_EQ(false, health["checks"].back()["well"]);
    EXPECT_EQ(has_lease, health["checks"][0]["well"]);
  }
}

}  // namespace
}  // namespace tavrix::test
