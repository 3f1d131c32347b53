// SPDX-License-Identifier: LGPL-3.0-or-later
// The messages of a decision: each text, and the least level that shows it.

#include <gtest/gtest.h>

#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

struct Told {
  int level;
  const char* message;
};

class DecisionMessages : public Share {
 protected:
  static void expect(const Caller& caller, e_fsop_type op, const char* path,
                     const std::vector<Told>& all) {
    as(caller, [&] {
      for (const Told& told : all) {
        EXPECT_EQ(told.level, level_when_asking(told.message, op, path)) << told.message;
      }
    });
  }
};

TEST_F(DecisionMessages, AboutAFileInATeamFolder) {
  expect(
      kAnna, FSOP_STAT, "Shared/Team/report.txt",
      {{4,
        "ENFORCE_PERMS real_root=[/tavrix] real_path=[Shared/Team/report.txt], "
        "stat_path=[/tavrix/Shared/Team/report.txt]"},
       {4, "path '/tavrix/Shared/Team/report.txt' is NOT a folder"},
       {4, "check for last path component of '*'"},
       {4, "ENFORCE_PERMS checking trustees"},
       {4, "ENFORCE_PERMS checking for Private/"},
       {4, "ENFORCE_PERMS Before get_perm_map_addr"},
       {4, "ENFORCE_PERMS perm is: 7"},
       {4, "ENFORCE_PERMS parent perm is: 7"},
       {kNever, "Found Group ACE"},
       {4, "checking for Shared/"},
       {4, "ENFORCE_PERMS path is in Shared/ check if parent is Shared"},
       {2, "Calling enforce_tavrix_permissions with op: 16, perm mask: 7, parent perm mask: 7"}});
}

// Filters outside look for a message of an exported function by the name in its prefix.
TEST_F(DecisionMessages, NameTheExportedFunction) {
  const auto function_of = [](const std::string& begin) {
    for (const LogLine& line : log_lines()) {
      if (line.message.starts_with(begin)) return line.function;
    }
    return "no message: " + begin;
  };
  as(kAnna, [&] {
    set_debug_level(4);
    clear_log();
    ask_share(FSOP_STAT, "Shared/Team/report.txt");
    EXPECT_EQ("vfs_enforce_perms", function_of("ENFORCE_PERMS op=(16)"));
    EXPECT_EQ("enforce_tavrix_permissions", function_of("Checking op 16"));
    EXPECT_EQ("enforce_tavrix_permissions", function_of("Allow for Read on parent"));
    clear_log();
    vfs_enforce_perms("/tavrix", nullptr, FSOP_STAT, nullptr, 0, nullptr);
    EXPECT_EQ("vfs_enforce_perms", function_of("ENFORCE_PERMS Invalid argument"));
  });
}

TEST_F(DecisionMessages, OfRightsThatAGroupGives) {
  expect(kBen, FSOP_STAT, "Shared/Team/report.txt",
         {{4, "ENFORCE_PERMS perm is: 0"},
          {4, "Found Group ACE"},
          {4, "Found Parent Group ACE"},
          {4, "ace perm: 3"},
          {4, "ACE is INHERITED"},
          {4, "ACE is NOT INHERITED"},
          {4, "Group is found, perm is now: 1"},
          {4, "Parent Group is found, perm is now: 1"}});
}

TEST_F(DecisionMessages, AboutATeamFolder) {
  expect(kAnna, FSOP_OPENDIR, "Shared/Team",
         {{4, "path '/tavrix/Shared/Team' is a folder"},
          {4, "ENFORCE_PERMS parent is Shared"},
          {2,
           "ENFORCE_PERMS Calling enforce_tavrix_permissions with op=5 perm mask=7, parent perm "
           "mask: TAVRIX_PERM_MASK_NAVIGATE"}});
}

TEST_F(DecisionMessages, AboutWhatIsNotThere) {
  expect(kAnna, FSOP_STAT, "Shared/Team/none",
         {{4, "stat(/tavrix/Shared/Team/none) returned -1, does not exist"},
          {2, "ENFORCE_PERM GRANTED RWD for non-existent path"}});
}

TEST_F(DecisionMessages, OfAnAdministratorBelowShared) {
  expect(kAdministrator, FSOP_STAT, "Shared/Closed",
         {{2,
           "Calling enforce_tavrix_permissions with op: 16, perm mask: "
           "TAVRIX_PERM_MASK_RDWRDEL, parent perm mask: TAVRIX_PERM_MASK_RDWRDEL"},
          {2, "ENFORCE_PERMS GRANTED RDWRDEL for Admin"}});
}

TEST_F(DecisionMessages, OfTheTopLevel) {
  expect(kAnna, FSOP_STAT, "Shared",
         {{4, "ENFORCE_PERMS UNKNOWN_PATH neither in /Shared nor /Private"},
          {4, "ENFORCE_PERMS UNKNOWN_PATH check if path is Private"},
          {4, "ENFORCE_PERMS UNKNOWN_PATH check if path is Shared"},
          {2, "everyone has R/R permission for /Shared"},
          {2,
           "Calling enforce_tavrix_permissions with op: 16, perm mask: "
           "TAVRIX_PERM_MASK_RDONLY, parent perm mask: TAVRIX_PERM_MASK_RDONLY"}});
  expect(kAnna, FSOP_STAT, ".",
         {{4, "ENFORCE_PERMS UNKNOWN_PATH Check for '.' which is a valid folder under root"},
          {2, "everyone has R/R permission for '.'"}});
  expect(kAnna, FSOP_STAT, "Private",
         {{2, "admin and power users have R/R permission for /Private"}});
}

TEST_F(DecisionMessages, OfPrivate) {
  expect(kAdministrator, FSOP_STAT, "Private/pat",
         {{2, "allow R for admins in Private"}, {2, "admin, enforce for R/R"}});
  expect(kPat, FSOP_STAT, "Private/pat",
         {{4, "get subdir under Private"},
          {4, "Built full private path: '/tavrix/Private/pat'"},
          {4, "Performed stat for: /tavrix/Private/pat, checking for admin"},
          {2, "parent is /Private, enforce for R/R"}});
  expect(kPat, FSOP_STAT, "Private/pat/diary.txt",
         {{2, "ENFORCE_PERMS allow for user's own Private subdir"}});
}

TEST_F(DecisionMessages, OfAStandardUser) {
  expect(kStandardUser, FSOP_STAT, "Shared/Team",
         {{2, "ENFORCE_PERMS DENIED permission to standard user"}});
}

}  // namespace
}  // namespace tavrix::test
