// SPDX-License-Identifier: LGPL-3.0-or-later
// The identity of a connection: built from the group list map, rebuilt after refresh files and
// users.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "eventstore.h"
#include "perm_enforcer.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/group_map.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kGroupMap = "/etc/tavrix/groupmap_refresh";
constexpr const char* kPermissions = "/etc/tavrix/permission_refresh";
constexpr uid_t kDaemon = 1;  // a user of every machine
constexpr uid_t kNobody = 65534;
constexpr uid_t kUnknown = 4242424;

class Identity : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    set_debug_level(-1);
    write_map({{"anna", {100, 9002}}, {"ben", {100, 200, 300}}});
    write_file(kPermissions, "");
    record_ = std::make_unique<connection_private_data_s>();
    init_tlb(&record_->vfs_table_cache);
    record_->user_name_as_passed_in = name_;
    record_->refresh_creds.euid = kDaemon;
    be("anna");
  }
  void TearDown() override { std::free(record_->groupmap.gids); }

  static void write_map(const std::vector<GroupMapUser>& users) {
    write_file("/scratch/new",
               group_map_bytes({{{"tavrix-admins", 9001}, {"tavrix-powerusers", 9002}}, users}));
    rename("/scratch/new", kGroupMap);
  }
  void be(const std::string& name) { std::snprintf(name_, sizeof name_, "%s", name.c_str()); }
  int reset() {
    testing::internal::CaptureStderr();
    const int result = reset_groupmap(record_.get());
    testing::internal::GetCapturedStderr();
    return result;
  }
  void refresh() {
    testing::internal::CaptureStderr();
    refresh_credentials(record_.get());
    testing::internal::GetCapturedStderr();
  }
  std::vector<gid_t> gids() const {
    return {record_->groupmap.gids, record_->groupmap.gids + record_->groupmap.num_sup_gids};
  }
  static void set_time(const char* path, time_t when) {
    const timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path, times, 0));
  }
  int level_of_reset(const std::string& message) {
    return level_of(message, [this] { reset(); });
  }

  char name_[64] = "";
  std::unique_ptr<connection_private_data_s> record_;
};

using Gids = std::vector<gid_t>;

TEST_F(Identity, HasTheGroupsOfTheNameThatTheClientGave) {
  EXPECT_EQ(0, reset());
  EXPECT_EQ((Gids{100, 9002}), gids());
  be("BEN");
  EXPECT_EQ(0, reset());
  EXPECT_EQ((Gids{100, 200, 300}), gids());
}

TEST_F(Identity, HasTheUserAndGroupOfItsPasswordEntry) {
  record_->refresh_creds.euid = kNobody;
  EXPECT_EQ(0, reset());
  EXPECT_EQ(kNobody, record_->groupmap.euid);
  EXPECT_EQ(65534U, record_->groupmap.egid);
  EXPECT_EQ(0, record_->groupmap.is_computer_acct);
}

// An entry that does not fit into the buffer that the C library suggests is read with a larger one,
// up to 1 MiB.
TEST_F(Identity, HasAPasswordEntryOfAnyUsualLength) {
  const auto suggested = static_cast<std::size_t>(sysconf(_SC_GETPW_R_SIZE_MAX));
  std::string text = read_file("/etc/passwd");
  const auto add = [&text](const std::string& name, int uid, std::size_t bytes) {
    const std::string id = std::to_string(uid);
    text += name + ":x:" + id + ":" + id + ":" + std::string(bytes, 'x') + ":/:/bin/false\n";
  };
  add("pc$", 4243, 5 * suggested);
  add("huge", 4244, std::size_t{1} << 20);
  remove_all("/etc/passwd");  // a link
  write_file("/etc/passwd", text);
  record_->refresh_creds.euid = 4243;
  EXPECT_EQ(0, reset());
  EXPECT_EQ(4243U, record_->groupmap.egid);
  EXPECT_EQ(1, record_->groupmap.is_computer_acct);
  record_->refresh_creds.euid = 4244;
  EXPECT_EQ(-1, reset());
  EXPECT_EQ(0, level_of_reset("Cannot get username for uid 4244 to update user's groups: "
                              "Numerical result out of range\n"));
}

TEST_F(Identity, TellsTheDecisionTheReservedGroups) {
  EXPECT_EQ(0, reset());
  gid_t group = 9001;
  process_trustees_s caller{};
  caller.num_sup_gids = 1;
  caller.gids = &group;
  int is_nav = 0;
  vfs_enforce_perms("/tavrix", "/tavrix/x", FSOP_STAT, &caller, 0, &is_nav);
  EXPECT_EQ(1, caller.admin);
}

TEST_F(Identity, HasNoGroupsWhenTheNameIsUnknown) {
  be("nobody there");
  EXPECT_EQ(0, reset());
  EXPECT_EQ(0, record_->groupmap.num_sup_gids);
}

TEST_F(Identity, HasNoGroupsWithoutAMap) {
  reset();
  remove_all(kGroupMap);
  EXPECT_EQ(0, reset());
  EXPECT_EQ(0, record_->groupmap.num_sup_gids);
  EXPECT_EQ(nullptr, record_->groupmap.gids);
}

TEST_F(Identity, HasNoGroupsWithABrokenMap) {
  for (const std::string& text : {std::string(), std::string(100, 'x'), std::string(8193, 'x'),
                                  std::string(8192, '\xff'), std::string(8192, '\0')}) {
    write_file(kGroupMap, text);
    EXPECT_EQ(0, reset());
    EXPECT_EQ(0, record_->groupmap.num_sup_gids) << text.size();
  }
}

TEST_F(Identity, WithoutANameStaysAsItIs) {
  reset();
  record_->user_name_as_passed_in = nullptr;
  record_->refresh_creds.euid = kNobody;
  EXPECT_EQ(0, level_of_reset(
                   "reset_groupmap: user_name is NULL will not continue with reset_groupmap\n"));
  EXPECT_EQ(0, reset());
  EXPECT_EQ(kDaemon, record_->groupmap.euid);
  EXPECT_EQ((Gids{100, 9002}), gids());
}

TEST_F(Identity, OfAnUnknownUserFailsAndKeepsItsGroups) {
  reset();
  record_->refresh_creds.euid = kUnknown;
  EXPECT_EQ(-1, reset());
  EXPECT_EQ((Gids{100, 9002}), gids());
  EXPECT_EQ(0, level_of_reset("reset_groupmap: No user with uid 4242424\n"));
}

TEST_F(Identity, WithoutMemoryFails) {
  const auto attempt = [this] {
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(-1, reset());
  };
  bool told = false;
  set_debug_level(0);
  clear_log();
  attempt();
  for (const auto& text : messages()) told |= text.starts_with("Cannot allocate memory of size ");
  EXPECT_TRUE(told);
}

TEST_F(Identity, LeavesOneListOnTheHeap) {
  reset();
  const long blocks = live_allocations();
  for (int i = 0; i < 50; ++i) reset();
  EXPECT_EQ(blocks, live_allocations());
}

TEST_F(Identity, TellsWhatItLoaded) {
  set_debug_level(10);
  clear_log();
  reset();
  bool told = false;
  for (const auto& text : messages()) told |= text.starts_with("Loaded 2 groups at 0x");
  EXPECT_TRUE(told);
}

// --- the handler ---------------------------------------------------------------------------------

TEST_F(Identity, IsRebuiltByItsHandler) {
  flush_perms_handler(SIGUSR1, record_.get());
  EXPECT_EQ((Gids{100, 9002}), gids());
  EXPECT_EQ(21, record_->vfs_table_cache.flush_tlb);
  EXPECT_EQ(kDaemon, record_->refresh_creds.tlb_owner);
}

TEST_F(Identity, IsLeftAloneByOtherSignals) {
  EXPECT_EQ(0, level_of("Unexpected signal 12 caught \n",
                        [this] { flush_perms_handler(SIGUSR2, record_.get()); }));
  EXPECT_EQ(nullptr, record_->groupmap.gids);
  EXPECT_EQ(0, record_->vfs_table_cache.flush_tlb);
}

TEST_F(Identity, RequestsAFlushAfterAFailureToo) {
  record_->refresh_creds.euid = kUnknown;
  EXPECT_EQ(0, level_of("Could not reset global groupmap. Permissions are stale\n",
                        [this] { flush_perms_handler(SIGUSR1, record_.get()); }));
  EXPECT_EQ(21, record_->vfs_table_cache.flush_tlb);
}

TEST_F(Identity, OfAComputerKeepsItsCache) {
  // No machine has such a user, and none is needed: only the flag counts.
  record_->user_name_as_passed_in = nullptr;
  record_->groupmap.is_computer_acct = 1;
  flush_perms_handler(SIGUSR1, record_.get());
  EXPECT_EQ(0, record_->vfs_table_cache.flush_tlb);
}

TEST(ComputerName, EndsInADollar) {
  EXPECT_EQ(1, is_computer_name("PC01$"));
  EXPECT_EQ(1, is_computer_name("$"));
  EXPECT_EQ(0, is_computer_name("PC$01"));
  EXPECT_EQ(0, is_computer_name(""));
  EXPECT_EQ(0, is_computer_name(nullptr));
  EXPECT_EQ(1, _check_if_special_user("PC01$"));
  EXPECT_EQ(0, _check_if_special_user("anna"));
}

// --- refresh -------------------------------------------------------------------------------------

class Refresh : public Identity {
 protected:
  void SetUp() override {
    Identity::SetUp();
    record_->refresh_creds.groupmap_refresh = 1000;
    record_->refresh_creds.permmap_refresh = 1000;
    set_time(kGroupMap, 1000);
    set_time(kPermissions, 1000);
  }
  // true: a refresh rebuilds the identity now.
  bool rebuilds() {
    record_->vfs_table_cache.flush_tlb = 0;
    refresh();
    return record_->vfs_table_cache.flush_tlb == 21;
  }
};

TEST_F(Refresh, DoesNothingWhileNothingChanges) { EXPECT_FALSE(rebuilds()); }

TEST_F(Refresh, RebuildsOnceWhenTheGroupMapChanges) {
  set_time(kGroupMap, 1001);
  const time_t before = time(nullptr);
  EXPECT_TRUE(rebuilds());
  EXPECT_GE(record_->refresh_creds.groupmap_refresh, before);
  EXPECT_EQ(1000, record_->refresh_creds.permmap_refresh);
  EXPECT_FALSE(rebuilds());
}

TEST_F(Refresh, RebuildsOnceWhenPermissionsChange) {
  set_time(kPermissions, 1001);
  EXPECT_TRUE(rebuilds());
  EXPECT_FALSE(rebuilds());
  EXPECT_EQ(1000, record_->refresh_creds.groupmap_refresh);
}

TEST_F(Refresh, ReadsTheNewMap) {
  rebuilds();
  write_map({{"anna", {7}}});
  EXPECT_TRUE(rebuilds());
  EXPECT_EQ(Gids{7}, gids());
}

TEST_F(Refresh, TellsMissingRefreshFiles) {
  remove_all(kGroupMap);
  remove_all(kPermissions);
  EXPECT_EQ(0, level_of("Error: Group map refresh file /etc/tavrix/groupmap_refresh is missing\n",
                        [this] { refresh(); }));
  EXPECT_EQ(
      0, level_of("Error: Permission map refresh file /etc/tavrix/permission_refresh is missing\n",
                  [this] { refresh(); }));
  EXPECT_FALSE(rebuilds());
}

TEST_F(Refresh, IsTold) {
  const std::string pid = std::to_string(getpid());
  const auto level_after = [this](const std::string& message, const char* touched) {
    return level_of(message, [&] {
      record_->refresh_creds.groupmap_refresh = record_->refresh_creds.permmap_refresh = 1000;
      set_time(kGroupMap, touched == kGroupMap ? 1001 : 999);
      set_time(kPermissions, touched == kPermissions ? 1001 : 999);
      refresh();
    });
  };
  EXPECT_EQ(10, level_after("Tavrix Group map will be refreshed  for process 1001 1000 for pid " +
                                pid + " \n",
                            kGroupMap));
  // The message prints the group map's time first here too.
  EXPECT_EQ(10, level_after("Tavrix Permissions map will be refreshed for process 999 1000 for "
                            "pid " +
                                pid + " \n",
                            kPermissions));
  EXPECT_EQ(
      10, level_after("Resetting Tavrix permission caches and group maps for process " + pid + "\n",
                      kGroupMap));
  EXPECT_EQ(10, level_after(
                    "Tavrix permission caches and group maps for process " + pid + " was reset.\n",
                    kGroupMap));
}

TEST_F(Refresh, FollowsTheEffectiveUser) {
  const Outcome outcome = in_child([this] {
    reset();
    be("ben");
    become_samba_user(kNobody, 65534);
    EXPECT_TRUE(rebuilds());
    EXPECT_EQ(kNobody, record_->refresh_creds.euid);
    EXPECT_EQ(kNobody, record_->refresh_creds.tlb_owner);
    EXPECT_EQ(kNobody, record_->groupmap.euid);
    EXPECT_EQ((Gids{100, 200, 300}), gids());
    EXPECT_FALSE(rebuilds());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

TEST_F(Refresh, TakesRootForNobody) {
  record_->refresh_creds.euid = kDaemon;
  ASSERT_EQ(0U, geteuid());
  EXPECT_FALSE(rebuilds());
  EXPECT_EQ(kDaemon, record_->refresh_creds.euid);
}

}  // namespace
}  // namespace tavrix::test
