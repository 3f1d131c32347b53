// SPDX-License-Identifier: LGPL-3.0-or-later
// The permission check of a connection.

#include <gtest/gtest.h>
#include <cerrno>
#include <memory>

#include "tavrix_vfs_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class CheckPerms : public Share {
 protected:
  void SetUp() override {
    Share::SetUp();
    record_ = std::make_unique<connection_private_data_s>();
    init_tlb(&cache());
    be(kAnna);
  }
  void TearDown() override { destroy_tlb(&cache()); }
  vfs_table_cache_s& cache() { return record_->vfs_table_cache; }
  void be(const Caller& caller) {
    groups_ = caller.groups;
    record_->groupmap = trustees_of({caller.name, caller.uid, caller.gid, groups_});
    record_->groupmap.gids = groups_.data();
  }
  e_vfs_enforce_perms check(const std::string& path, e_fsop_type op = FSOP_OPEN_WRITE) {
    return check_perms("/tavrix", path.c_str(), op, record_.get(), 0);
  }
  // true: the check looked at the map.
  bool decides(const std::string& path, e_fsop_type op = FSOP_OPEN_WRITE) {
    reset_calls();
    check(path, op);
    return calls("shmat") > 0;
  }
  int level(const std::string& message, const std::string& path) {
    return level_of(message, [&] {
      destroy_tlb(&cache());
      check(path);
    });
  }

  std::unique_ptr<connection_private_data_s> record_;
  std::vector<gid_t> groups_;
};

TEST_F(CheckPerms, IsTheDecision) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Team/report.txt"));
  be(kBen);
  destroy_tlb(&cache());
  EXPECT_EQ(TXPERMS_NO_PERM, check("Shared/Team/report.txt"));
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Team/report.txt", FSOP_OPEN_READ));
}

TEST_F(CheckPerms, AnswersTheSecondTimeFromItsCache) {
  EXPECT_TRUE(decides("Shared/Team/report.txt"));
  EXPECT_FALSE(decides("Shared/Team/report.txt"));
  EXPECT_FALSE(decides("Shared//Team/./report.txt"));
  EXPECT_TRUE(decides("Shared/Team/report.txt", FSOP_UNLINK));
  EXPECT_FALSE(decides("Shared/Team/report.txt", FSOP_UNLINK));
}

TEST_F(CheckPerms, MakesNoSystemCallAndOneAllocationFromItsCache) {
  check("Shared/Team/report.txt");
  reset_calls();
  const long before = allocations();
  check("Shared/Team/report.txt");
  EXPECT_EQ(1, allocations() - before);
  for (const char* call :
       {"stat", "semget", "semctl", "shmget", "shmat", "seteuid", "getresuid", "ftok"}) {
    EXPECT_EQ(0, calls(call)) << call;
  }
}

TEST_F(CheckPerms, RemembersRefusals) {
  be(kBen);
  EXPECT_EQ(TXPERMS_NO_PERM, check("Shared/Team/report.txt"));
  EXPECT_FALSE(decides("Shared/Team/report.txt"));
}

TEST_F(CheckPerms, RemembersNoErrorsAndNoStandardUsers) {
  be(kStandardUser);
  EXPECT_EQ(TXPERMS_STANDARD_USER, check("Shared/Team/report.txt"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
  be(kAnna);
  remove_all("/etc/tavrix/.permbe_map");
  EXPECT_EQ(TXPERMS_SYSTEM_ERR, check("Shared/Team/report.txt"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
}

TEST_F(CheckPerms, RefusesComputersWithoutALook) {
  record_->groupmap.is_computer_acct = 1;
  record_->reserved_user = 1;
  reset_calls();
  EXPECT_EQ(TXPERMS_NO_PERM, check("Shared/Team/report.txt"));
  EXPECT_EQ(TXPERMS_NO_PERM, check(""));
  EXPECT_EQ(0, calls("stat"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
  EXPECT_EQ(10, level_of("tavrix_check_perms TXPERMS_NO_PERM\n", [this] { check("x"); }));
}

TEST_F(CheckPerms, GrantsTheReservedUserEverythingAndRemembersIt) {
  be(kStandardUser);
  record_->reserved_user = 1;
  EXPECT_FALSE(decides("Shared/Closed/x"));
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Closed/x"));
  record_->reserved_user = 0;
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("Shared/Closed/x"));
  EXPECT_EQ(TXPERMS_STANDARD_USER, check("Shared/Closed/y"));
}

TEST_F(CheckPerms, GrantsAPathThatClimbs) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, check("../etc"));
  EXPECT_EQ(0, cache().vfs_tlb_end);
  EXPECT_EQ(
      10, level("returning HAS_PERMS, path normalization returned an unusable path ../etc: No such "
                "file or directory\n",
                "../etc"));
}

TEST_F(CheckPerms, WithoutMemoryIsAnError) {
  fail_call("malloc", ENOMEM);
  EXPECT_EQ(TXPERMS_MALLOC_ERR, check("Shared/x"));
  const auto attempt = [this] {
    fail_call("malloc", ENOMEM);
    check("Shared/x");
  };
  EXPECT_EQ(0, level_of("path normalization failed Shared/x: Cannot allocate memory\n", attempt));
}

TEST_F(CheckPerms, IsTold) {
  const std::string path = "Shared/Team/report.txt";
  EXPECT_EQ(1, level("Calling vfs_enforce_perms path=(" + path + ") op=(3), full_path=[/tavrix/" +
                         path + "]\n",
                     path));
  EXPECT_EQ(10, level("tavrix_check_perms: vfs_enforce_perms retval=3\n", path));
  EXPECT_EQ(10, level("TLB: Adding entry for " + path + ", op 3, perms 3, slot -1\n", path));
  check(path);
  EXPECT_EQ(10, level_of("TLB: Cache hit for " + path + ", op 3, perms 3, slot 0\n",
                         [&] { check(path); }));
  EXPECT_EQ(10, level_of("TLB: Updating entry for " + path + ", op 16, perms 3, slot 0\n", [&] {
              destroy_tlb(&cache());
              check(path);
              check(path, FSOP_STAT);
            }));
}

TEST_F(CheckPerms, IsFlushedWithTheIdentity) {
  check("Shared/Team/report.txt");
  cache().flush_tlb = 21;
  EXPECT_TRUE(decides("Shared/Team/report.txt"));
}

TEST_F(CheckPerms, LeavesNothingButTheCacheOnTheHeap) {
  check("Shared/Team/report.txt");
  destroy_tlb(&cache());
  const long blocks = live_allocations();
  check("Shared/Team/report.txt");
  check("../x");
  record_->reserved_user = 1;
  check("a");
  destroy_tlb(&cache());
  EXPECT_EQ(blocks, live_allocations());
}

}  // namespace
}  // namespace tavrix::test
