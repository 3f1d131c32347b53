// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions in the Private subtree: each user's own folder, and nobody else's.

#include <gtest/gtest.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/rule_table.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class PrivateDecision : public Share {
 protected:
  void SetUp() override {
    Share::SetUp();
    remove_all("/etc/tavrix/.permbe_map");  // no map is needed here
  }
};

TEST_F(PrivateDecision, FilesInPrivateItselfAreRefused) {
  for (const Caller& caller : {kAdministrator, kPat}) {
    as(caller, [] {
      EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "Private/new.txt"));
      EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "Private/pat"));
      EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Private/stray.txt"));
      EXPECT_EQ(2, level_when_asking("ENFORCE_PERMS disallow file operations in Private",
                                     FSOP_CREATE, "Private/new.txt"));
    });
  }
}

TEST_F(PrivateDecision, AdministratorsReadTheUserFolders) {
  as(kAdministrator, [] {
    for (const e_fsop_type op : operations_with_a_rule()) {
      if (op == FSOP_CREATE || op == FSOP_OPEN_READ) continue;
      const bool granted = rule_says(op, FSTYPE_FOLDER, 1, 1).granted;
      EXPECT_EQ(granted ? kGranted : kRefused, ask_share(op, "Private/pat")) << name_of(op);
    }
    EXPECT_EQ(2, level_when_asking("admin, enforce for R/R", FSOP_STAT, "Private/pat"));
  });
}

TEST_F(PrivateDecision, AdministratorsMayEverythingBelowThem) {
  as(kAdministrator, [] {
    for (const e_fsop_type op : operations_with_a_rule()) {
      EXPECT_EQ(kGranted, ask_share(op, "Private/pat/diary.txt")) << name_of(op);
    }
    EXPECT_EQ(2,
              level_when_asking("admin, enforce for RWD/RWD", FSOP_STAT, "Private/pat/diary.txt"));
  });
}

TEST_F(PrivateDecision, AMissingUserFolderIsRefused) {
  as(kAdministrator, [] {
    EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Private/nobody/x"));
    EXPECT_EQ(2, level_when_asking("Private subdir '/tavrix/Private/nobody' does not exist",
                                   FSOP_STAT, "Private/nobody/x"));
  });
  as(kPat, [] {
    EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Private/nobody/x"));
    EXPECT_EQ(kRefused, ask_share(FSOP_MKDIR, "Private/nobody"));
  });
}

TEST_F(PrivateDecision, AnotherUsersFolderIsRefused) {
  as(kPat, [] {
    EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Private/olga"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPENDIR, "Private/olga"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_READ, "Private/olga/diary.txt"));
    EXPECT_EQ(2,
              level_when_asking("ENFORCE_PERMS UID 1003 does not match 1004 for path Private/olga "
                                "in /Private",
                                FSOP_STAT, "Private/olga"));
  });
}

TEST_F(PrivateDecision, TheOwnersFolderMayBeRead) {
  as(kPat, [] {
    for (const e_fsop_type op : operations_with_a_rule()) {
      if (op == FSOP_CREATE || op == FSOP_OPEN_READ) continue;
      const bool granted = rule_says(op, FSTYPE_FOLDER, 1, 1).granted;
      EXPECT_EQ(granted ? kGranted : kRefused, ask_share(op, "Private/pat")) << name_of(op);
    }
    EXPECT_EQ(2,
              level_when_asking("parent is /Private, enforce for R/R", FSOP_STAT, "Private/pat"));
    EXPECT_EQ(4, level_when_asking("UID 1003 matches 1003 for path Private/pat in /Private",
                                   FSOP_STAT, "Private/pat"));
  });
}

TEST_F(PrivateDecision, BelowItTheOwnerMayEverythingWithoutTheRule) {
  as(kPat, [] {
    for (const e_fsop_type op : all_operations()) {
      EXPECT_EQ(kGranted, ask_share(op, "Private/pat/diary.txt")) << name_of(op);
      EXPECT_EQ(kGranted, ask_share(op, "Private/pat/new/file")) << name_of(op);
    }
    EXPECT_EQ(2, level_when_asking("ENFORCE_PERMS allow for user's own Private subdir", FSOP_UNLINK,
                                   "Private/pat/diary.txt"));
  });
}

TEST_F(PrivateDecision, FindsTheUserFolderBelowTheRootInItsCanonicalSpelling) {
  as(kPat, [] {
    process_trustees_s caller = trustees_of(kPat);
    int is_nav = 0;
    set_debug_level(4);
    EXPECT_EQ(TXPERMS_HAS_PERMS, vfs_enforce_perms("//tavrix/./", "/tavrix/Private/pat/diary.txt",
                                                   FSOP_OPEN_READ, &caller, 0, &is_nav));
    EXPECT_TRUE(logged("Built full private path: '/tavrix/Private/pat'"));
  });
}

TEST_F(PrivateDecision, JudgesItsOwnerAtTheUserFolderBeforeWhatLiesBelow) {
  as(kPat, [] {
    set_debug_level(4);
    EXPECT_EQ(kRefused, ask_share(FSOP_RMDIR, "Private/pat"));
    EXPECT_TRUE(logged("parent is /Private, enforce for R/R"));
    EXPECT_FALSE(logged("ENFORCE_PERMS deny for modify op on Private/subdir"));
  });
}

// The folder is looked up as the path spells it; Samba finds the right spelling before it asks.
TEST_F(PrivateDecision, IsRecognisedInAnyCaseAndLookedUpInThisOne) {
  as(kPat, [] { EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "PRIVATE/pat/diary.txt")); });
}

TEST_F(PrivateDecision, ALongNameThatBeginsLikePrivateIsAnotherFolder) {
  as(kPat, [] { EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Privates/pat/x")); });
}

TEST_F(PrivateDecision, AFailedLookAtTheUserFolderIsASystemError) {
  as(kPat, [] {
    const auto attempt = [] {
      fail_call("stat", EIO, 2);
      EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Private/pat/diary.txt"));
    };
    EXPECT_EQ(
        0, level_of("ENFORCE_PERMS stat(/tavrix/Private/pat) failed: Input/output error", attempt));
  });
}

TEST_F(PrivateDecision, LooksAtTheFoldersAndAtNothingElse) {
  as(kPat, [] {
    reset_calls();
    ask_share(FSOP_STAT, "Private/pat/diary.txt");
    EXPECT_EQ(2, calls("stat"));
    EXPECT_EQ(0, calls("shmat") + calls("semctl") + calls("shmget"));
  });
}

}  // namespace
}  // namespace tavrix::test
