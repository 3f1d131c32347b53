// SPDX-License-Identifier: LGPL-3.0-or-later
// The class of a caller: administrator, power user, or a standard user, who gets nothing.

#include <gtest/gtest.h>
#include <unistd.h>
#include <numeric>

#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/rule_table.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class CallerClass : public Share {
 protected:
  // Asks for the status of "Shared", which every administrator and power user may see.
  int verdict_for(std::vector<gid_t> groups, gid_t primary = kPeople) {
    groups_ = std::move(groups);
    trustees_ = trustees_of({"", kPat.uid, primary, groups_});
    trustees_.gids = groups_.data();
    return ask_with_trustees();
  }
  int ask_with_trustees() {
    int is_nav = -1;
    return vfs_enforce_perms("/tavrix", "/tavrix/Shared", FSOP_STAT, &trustees_, 0, &is_nav);
  }
  int level(const std::string& message) {
    return level_of(message, [this] { ask_with_trustees(); });
  }
  static std::string who(const std::string& text) {
    return text + " pid:(" + std::to_string(getpid()) + ") uid:(1003) op:(16)";
  }

  std::vector<gid_t> groups_;
  process_trustees_s trustees_{};
};

TEST_F(CallerClass, ComesFromTheSupplementaryGroups) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_for({kAdmins}));
  EXPECT_EQ(1, trustees_.admin);
  EXPECT_EQ(0, trustees_.poweruser);
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_for({7, 8, kPowerUsers}));
  EXPECT_EQ(0, trustees_.admin);
  EXPECT_EQ(1, trustees_.poweruser);
}

TEST_F(CallerClass, MayBeBoth) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_for({kPowerUsers, kAdmins}));
  EXPECT_EQ(1, trustees_.admin);
  EXPECT_EQ(1, trustees_.poweruser);
}

TEST_F(CallerClass, DoesNotComeFromThePrimaryGroup) {
  EXPECT_EQ(TXPERMS_STANDARD_USER, verdict_for({}, kAdmins));
  EXPECT_EQ(TXPERMS_STANDARD_USER, verdict_for({kWriters}, kPowerUsers));
  EXPECT_EQ(0, trustees_.admin);
  EXPECT_EQ(0, trustees_.poweruser);
}

TEST_F(CallerClass, DoesNotComeFromTheCallersOwnFields) {
  verdict_for({});
  trustees_.admin = trustees_.poweruser = 1;
  EXPECT_EQ(TXPERMS_STANDARD_USER, ask_with_trustees());
}

TEST_F(CallerClass, IsFoundAmongManyGroups) {
  std::vector<gid_t> many(60000);
  std::iota(many.begin(), many.end(), 100000U);
  EXPECT_EQ(TXPERMS_STANDARD_USER, verdict_for(many));
  many.push_back(kPowerUsers);
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_for(many));
}

TEST_F(CallerClass, FollowsTheGroupsThatTheProcessWasTold) {
  vfs_set_admins_powerusers(50, 60);
  EXPECT_EQ(TXPERMS_STANDARD_USER, verdict_for({kAdmins, kPowerUsers}));
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_for({60}));
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_for({50}));
}

TEST_F(CallerClass, IsStandardInAProcessThatWasToldNoGroups) {
  vfs_set_admins_powerusers(static_cast<gid_t>(-1), static_cast<gid_t>(-1));
  EXPECT_EQ(TXPERMS_STANDARD_USER, verdict_for({kAdmins, kPowerUsers, static_cast<gid_t>(-1)}));
}

TEST_F(CallerClass, IsStandardWhenTheGroupsCountIsNegative) {
  verdict_for({kAdmins});
  trustees_.num_sup_gids = -1;
  EXPECT_EQ(TXPERMS_STANDARD_USER, ask_with_trustees());
}

TEST_F(CallerClass, CannotBeToldWhenTheGroupsAreMissing) {
  verdict_for({kAdmins});
  trustees_.gids = nullptr;
  EXPECT_EQ(TXPERMS_SYSTEM_ERR, ask_with_trustees());
  EXPECT_EQ(0, level("ENFORCE_PERMS : Failed to _set_admin flag, rtn TXPERMS_SYSTEM_ERR"));
  EXPECT_EQ(0, level(who("ENFORCE_PERMS ERR cannot determine user type")));
}

TEST_F(CallerClass, IsTold) {
  verdict_for({kAdmins});
  EXPECT_EQ(4, level("initialize 9001 indication to 0"));
  EXPECT_EQ(4, level("initialize 9002 indication to 0"));
  EXPECT_EQ(4, level("Found 9001 group in supp group ids, setting indication to 1"));
  EXPECT_EQ(99, level("Found 9002 group in supp group ids, setting indication to 1"));
}

TEST_F(CallerClass, OfAPowerUserIsTold) {
  verdict_for({kPowerUsers});
  EXPECT_EQ(4, level("Found 9002 group in supp group ids, setting indication to 1"));
  EXPECT_EQ(99, level("Found 9001 group in supp group ids, setting indication to 1"));
}

TEST_F(CallerClass, TheGroupsThatMakeItAreTold) {
  EXPECT_EQ(4, level_of("\nvfs_set_admins_powerusers: tavrix_admins_gid=4294967295 "
                        "tavrix_powerusers_gid=60",
                        [] { vfs_set_admins_powerusers(static_cast<gid_t>(-1), 60); }));
}

// --- standard users -----------------------------------------------------------------------------

TEST_F(CallerClass, AStandardUserGetsOneForEverythingButTheRoot) {
  as(kStandardUser, [] {
    for (const e_fsop_type op : all_operations()) {
      for (const char* path : {"Shared", "Shared/Team", "Shared/*", "Private/pat", ".DS_Store",
                               "Nothing", "", "Shared/Team/a.sb-b"}) {
        EXPECT_EQ(kRefusedStandardUser, ask_share(op, path)) << name_of(op) << " " << path;
      }
    }
  });
}

TEST_F(CallerClass, AStandardUserCausesNoLookAtDiskOrMap) {
  reset_calls();
  EXPECT_EQ(TXPERMS_STANDARD_USER, verdict_for({}));
  EXPECT_EQ(0, calls("stat") + calls("shmat") + calls("semctl"));
}

TEST_F(CallerClass, AStandardUserIsTold) {
  verdict_for({kWriters});
  EXPECT_EQ(2, level("ENFORCE_PERMS DENIED permission to standard user"));
  EXPECT_EQ(2, level(who("ENFORCE_PERMS DENIED standard usr")));
  EXPECT_EQ(2, level("ENFORCE_PERMS Returning verdict={1} share_root=(/tavrix) "
                     "in_path=(/tavrix/Shared) real_path=[Shared]"));
}

}  // namespace
}  // namespace tavrix::test
