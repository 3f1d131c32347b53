// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions in the Shared subtree, at the top level, and by what an ACL says.

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

#include "perm_map.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/rule_table.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

class SharedDecision : public Share {};

// --- directly below Shared -----------------------------------------------------------------------

TEST_F(SharedDecision, FilesAreRefusedEvenToAdministrators) {
  for (const Caller& caller : {kAdministrator, kAnna}) {
    as(caller, [] {
      EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "Shared/new.txt"));
      EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "Shared/Team"));
      EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Shared/stray.txt"));
      EXPECT_EQ(kRefused, ask_share(FSOP_UNLINK, "Shared/stray.txt"));
    });
  }
}

TEST_F(SharedDecision, RefusedFilesAreTold) {
  as(kAdministrator, [] {
    EXPECT_EQ(2,
              level_when_asking("ENFORCE_PERMS DENIED no files allowed in Shared, type: 1, op: 16",
                                FSOP_STAT, "Shared/stray.txt"));
  });
}

TEST_F(SharedDecision, TeamFoldersAreTheAdministrators) {
  as(kAdministrator, [] {
    for (const e_fsop_type op :
         {FSOP_MKDIR, FSOP_RMDIR, FSOP_RENAME_SRC, FSOP_OPENDIR, FSOP_STAT}) {
      EXPECT_EQ(kGranted, ask_share(op, "Shared/Closed")) << name_of(op);
    }
    EXPECT_EQ(kGranted, ask_share(FSOP_MKDIR, "Shared/NewTeam"));
  });
}

TEST_F(SharedDecision, TeamFoldersAreJudgedUnderANavigableParent) {
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team"));
    EXPECT_EQ(kGranted, ask_share(FSOP_OPENDIR, "Shared/Team"));
    EXPECT_EQ(kRefused, ask_share(FSOP_MKDIR, "Shared/Team"));
    EXPECT_EQ(kRefused, ask_share(FSOP_RMDIR, "Shared/Team"));
    EXPECT_EQ(kRefused, ask_share(FSOP_MKDIR, "Shared/NewTeam"));
    EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Shared/Closed"));
  });
}

TEST_F(SharedDecision, NavigationAloneIsMarked) {
  as(kAnna, [] { EXPECT_EQ(kGrantedToSee, ask_share(FSOP_OPENDIR, "Shared/Lobby")); });
  as(kOlga, [] { EXPECT_EQ(kGrantedToSee, ask_share(FSOP_OPENDIR, "Shared/Lobby")); });
  as(kPat, [] { EXPECT_EQ(kRefused, ask_share(FSOP_OPENDIR, "Shared/Lobby")); });
}

// --- deeper --------------------------------------------------------------------------------------

TEST_F(SharedDecision, AdministratorsMayEverything) {
  as(kAdministrator, [] {
    for (const e_fsop_type op : operations_with_a_rule()) {
      EXPECT_EQ(kGranted, ask_share(op, "Shared/Team/report.txt")) << name_of(op);
      EXPECT_EQ(kGranted, ask_share(op, "Shared/Closed/x")) << name_of(op);
    }
  });
}

TEST_F(SharedDecision, EntriesOfTheUserAndItsGroups) {
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_UNLINK, "Shared/Team/report.txt"));
    EXPECT_EQ(kGranted, ask_share(FSOP_CREATE, "Shared/Team/new.txt"));
  });
  as(kBen, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_READ, "Shared/Team/report.txt"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/Team/report.txt"));
    EXPECT_EQ(kRefused, ask_share(FSOP_UNLINK, "Shared/Team/report.txt"));
  });
  as(kPat, [] { EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_READ, "Shared/Team/report.txt")); });
}

TEST_F(SharedDecision, EntriesPassDownTheTree) {
  as(kBen, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team/Docs/Deep"));
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_READ, "Shared/Team/Docs/plan.txt"));
    EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team/NotInMap"));
  });
}

TEST_F(SharedDecision, AUserEntryWithoutRightsLetsTheGroupsSpeak) {
  as(kAnna, [] { EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Shared/Team/Secret")); });
  publish_team({{kAnna.uid, 0}}, {{kWriters, 3}});
  as(kAnna, [] { EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team")); });
}

TEST_F(SharedDecision, AUserEntryWithRightsSilencesTheGroups) {
  publish_team({{kAnna.uid, 1}}, {{kWriters, 7}});
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_READ, "Shared/Team/report.txt"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/Team/report.txt"));
  });
}

TEST_F(SharedDecision, TheFirstEntryOfAUserCounts) {
  publish_team({{kAnna.uid, 3}, {kAnna.uid, 1}}, {});
  as(kAnna, [] { EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_WRITE, "Shared/Team/report.txt")); });
}

TEST_F(SharedDecision, MasksOfAllGroupsAddUp) {
  publish_team({}, {{kWriters, 2}, {kPeople, 1}});
  as(kAnna, [] { EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_WRITE, "Shared/Team/report.txt")); });
  publish_team({}, {{kWriters, 2}, {4711, 1}});
  as(kAnna, [] { EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/Team/report.txt")); });
}

TEST_F(SharedDecision, NavigationNeverPassesDown) {
  as(kAnna, [] {
    EXPECT_EQ(kRefused, ask_share(FSOP_OPENDIR, "Shared/Lobby/Inner"));
    EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Shared/Lobby/Inner"));
  });
}

TEST_F(SharedDecision, AnInheritedNavigateEntryLetsALaterOneCount) {
  publish_team({{kAnna.uid, 8}, {kAnna.uid, 1}}, {});
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPENDIR, "Shared/Team/Docs"));
    EXPECT_EQ(kGrantedToSee, ask_share(FSOP_OPENDIR, "Shared/Team"));
  });
}

TEST_F(SharedDecision, AnObjectThatIsMissingIsJudgedByItsParent) {
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_WRITE, "Shared/Team/none.txt"));
    EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Closed/none.txt"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/Closed/none.txt"));
  });
  as(kAnna, [] {
    EXPECT_EQ(2, level_when_asking("ENFORCE_PERM GRANTED RWD for non-existent path", FSOP_STAT,
                                   "Shared/Team/none.txt"));
  });
}

TEST_F(SharedDecision, AViewerSeesAndDoesNotRead) {
  as(kAnna, [] {
    EXPECT_EQ(kGrantedToSee, ask_share(FSOP_OPENDIR, "Shared/Team/Gallery"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_READ, "Shared/Team/Gallery/picture.jpg"));
  });
}

TEST_F(SharedDecision, NamesAreComparedInAnyCase) {
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPENDIR, "SHARED/TEAM", FSTYPE_FOLDER));
    EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "sHaReD/x"));
  });
}

TEST_F(SharedDecision, TheTypeMayBeTold) {
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPENDIR, "Shared/Team/Secret", FSTYPE_FILE));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPENDIR, "Shared/Team/Secret", FSTYPE_FOLDER));
  });
}

// --- the whole, against the table of rules -------------------------------------------------------

TEST_F(SharedDecision, IsTheRuleForEveryOperationAndPairOfMasks) {
  make_folder("Shared/Team/Sub");
  make_file("Shared/Team/Sub/file.txt");
  for (uint16_t parent = 0; parent < 32; parent = static_cast<uint16_t>(parent + 5)) {
    for (uint16_t self = 0; self < 32; self = static_cast<uint16_t>(self + 3)) {
      const Folder sub{.name = "Sub", .users = {{kPat.uid, self}}};
      const Folder team{.name = "Team", .users = {{kPat.uid, parent}}, .children = {sub}};
      publish_map({.name = "/", .children = {{.name = "Shared", .children = {team}}}});
      as(kPat, [=] {
        for (const e_fsop_type op : operations_with_a_rule()) {
          const bool shortcut = op == FSOP_OPEN_READ;
          const bool granted = shortcut || rule_says(op, FSTYPE_FOLDER, self, parent).granted;
          const bool to_see = !shortcut && granted && (self == 8 || self == 16);
          ASSERT_EQ((Ruling{granted ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM, to_see ? 1 : 0}),
                    ask_share(op, "Shared/Team/Sub"))
              << name_of(op) << " " << self << " " << parent;
        }
      });
    }
  }
}

// --- shortcuts, special files --------------------------------------------------------------------

TEST_F(SharedDecision, FoldersMayAlwaysBeOpenedForReading) {
  as(kPat, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_READ, "Shared/Closed"));
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_READ, "Private/olga"));
    EXPECT_EQ(2,
              level_when_asking("ENFORCE_PERMS GRANTED OPEN_READ on a folder, returning HAS_PERMS",
                                FSOP_OPEN_READ, "Shared/Closed"));
  });
}

TEST_F(SharedDecision, WildcardsMayAlwaysBeStated) {
  as(kPat, [] {
    for (const char* path : {"*", "Shared/*", "Private/olga/*", "Nothing/at/*"}) {
      EXPECT_EQ(kGranted, ask_share(FSOP_STAT, path)) << path;
      EXPECT_EQ(kGranted, ask_share(FSOP_LSTAT, path)) << path;
    }
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/Closed/*"));
    EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Shared/Closed/*x", FSTYPE_FILE));
    EXPECT_EQ(2,
              level_when_asking("Allow for stat of * component: Shared/*", FSOP_STAT, "Shared/*"));
  });
}

TEST_F(SharedDecision, RefusedSpecialFilesAreLetThrough) {
  as(kPat, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_CREATE, ".DS_Store"));
    EXPECT_EQ(kGranted, ask_share(FSOP_CREATE, "Shared/.DS_Store"));
    EXPECT_EQ(kGranted, ask_share(FSOP_CREATE, "Private/.DS_Store"));
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_WRITE, "Shared/Closed/a.sb-1/x"));
    EXPECT_EQ(kGranted, ask_share(FSOP_UNLINK, "Private/olga/x.sb-2"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/Closed/.DS_Store"));
    EXPECT_EQ(2,
              level_when_asking("ENFORCE_PERMS got NO PERM but path is a special path so overturn "
                                "verdict",
                                FSOP_CREATE, ".DS_Store"));
  });
}

// --- the top level -------------------------------------------------------------------------------

TEST_F(SharedDecision, TheTopLevelFoldersMayBeRead) {
  for (const Caller& caller : {kAdministrator, kPat}) {
    as(caller, [] {
      for (const char* folder : {"Shared", "Private", "SHARED", "private", "."}) {
        // The map lets everybody navigate the two folders, so the grant is marked.
        const Ruling expected = std::string(folder) == "." ? kGranted : kGrantedToSee;
        EXPECT_EQ(expected, ask_share(FSOP_STAT, folder, FSTYPE_FOLDER)) << folder;
        EXPECT_EQ(expected, ask_share(FSOP_OPENDIR, folder, FSTYPE_FOLDER)) << folder;
        EXPECT_EQ(kRefused, ask_share(FSOP_RMDIR, folder, FSTYPE_FOLDER)) << folder;
        EXPECT_EQ(kRefused, ask_share(FSOP_MKDIR, folder, FSTYPE_FOLDER)) << folder;
        EXPECT_EQ(kRefused, ask_share(FSOP_RENAME_SRC, folder, FSTYPE_FOLDER)) << folder;
      }
    });
  }
}

TEST_F(SharedDecision, TheTopLevelHasNothingElse) {
  for (const Caller& caller : {kAdministrator, kPat}) {
    as(caller, [] {
      EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Other"));
      EXPECT_EQ(kRefused, ask_share(FSOP_MKDIR, "New"));
      EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "new.txt"));
      EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "top.txt"));
      EXPECT_EQ(kRefused, ask_share(FSOP_STAT, "Other/below"));
      EXPECT_EQ(kRefused, ask_share(FSOP_CREATE, "Shared"));
    });
  }
}

TEST_F(SharedDecision, TheTopLevelIsTold) {
  as(kPat, [] {
    EXPECT_EQ(2, level_when_asking("Invalid Tavrix path 'Other/below'", FSOP_STAT, "Other/below"));
    EXPECT_EQ(2,
              level_when_asking("ENFORCE_PERMS UNKNOWN_PATH Invalid Tavrix path 'Other' under root",
                                FSOP_STAT, "Other"));
    EXPECT_EQ(
        2, level_when_asking("Deny due to file or file operation in Tavrix root, type: 1, op: 16",
                             FSOP_STAT, "top.txt"));
    EXPECT_EQ(2, level_when_asking("everyone has R/R permission for /Shared", FSOP_STAT, "Shared"));
    EXPECT_EQ(2, level_when_asking("admin and power users have R/R permission for /Private",
                                   FSOP_STAT, "Private"));
    EXPECT_EQ(2, level_when_asking("everyone has R/R permission for '.'", FSOP_STAT, "."));
    EXPECT_EQ(2, level_when_asking("ENFORCE_PERMS DENIED for op=(16) real_path=(Other)", FSOP_STAT,
                                   "Other"));
  });
}

// --- what goes wrong -----------------------------------------------------------------------------

TEST_F(SharedDecision, WithoutAMapIsASystemErrorBeforeAnyRefusal) {
  remove_all("/etc/tavrix/.permbe_map");
  as(kAnna, [] {
    EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Shared/Team"));
    EXPECT_EQ(kSystemError, ask_share(FSOP_CREATE, "Shared/x"));
    EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Other"));
    EXPECT_EQ(0, level_when_asking("ENFORCE_PERMS ERROR Cannot access the permission map",
                                   FSOP_STAT, "Shared/Team"));
  });
}

TEST_F(SharedDecision, WithoutATableOrSemaphoresIsASystemError) {
  shmctl(shmget(0x7065726a, 0, 0), IPC_RMID, nullptr);
  as(kAnna, [] { EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Shared/Team")); });
  destroy_perm_map();
  as(kAnna, [] { EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Shared/Team")); });
}

TEST_F(SharedDecision, AFailedLookAtTheObjectIsASystemError) {
  as(kAnna, [] {
    const auto attempt = [] {
      fail_call("stat", EIO);
      EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, "Shared/Team"));
    };
    EXPECT_EQ(0, level_of("ENFORCE_PERMS stat(/tavrix/Shared/Team) failed, code=5 (Input/output "
                          "error)",
                          attempt));
  });
}

TEST_F(SharedDecision, AnObjectBelowAFileIsMissing) {
  as(kAnna, [] { EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team/report.txt/below")); });
}

TEST_F(SharedDecision, AttachesTheTableOnceAndForTheDecisionOnly) {
  as_effective(kAnna, [] {
    reset_calls();
    ask_share(FSOP_STAT, "Shared/Team/report.txt");
    EXPECT_EQ(1, calls("shmat"));
    EXPECT_EQ(1, calls("shmdt"));
    EXPECT_EQ(2, calls("stat"));  // the object and the local copy
  });
  EXPECT_EQ(0, attach_count(0x7065726a));
}

TEST_F(SharedDecision, TakesVeryLongPaths) {
  const std::string path = "Shared/Team/" + std::string(100000, 'x');
  as(kAnna, [&] {
    // No file system has such a path: stat() fails with an error that is not "missing".
    EXPECT_EQ(kSystemError, ask_share(FSOP_STAT, path));
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_WRITE, path, FSTYPE_DOES_NOT_EXIST));
  });
}

TEST_F(SharedDecision, TakesPathsOfAnyBytes) {
  give_samba_library_its_name();
  as(kAnna, [] {
    EXPECT_EQ(kGranted, ask_share(FSOP_OPEN_WRITE, "Shared/Team/\xff\xfe%s%n"));
    EXPECT_EQ(kRefused, ask_share(FSOP_OPEN_WRITE, "Shared/\xc3\xa9/x"));
  });
}

TEST_F(SharedDecision, WithoutMemoryEndsInAnErrorOrAnAbortAndLeavesNothing) {
  for (int nth = 1; nth < 25; ++nth) {
    const Outcome outcome = outcome_as(kAnna, [nth] {
      fail_call("malloc", ENOMEM, nth);
      const Ruling ruling = ask_share(FSOP_STAT, "Shared/Team/report.txt");
      const bool is_error =
          ruling.verdict == TXPERMS_MALLOC_ERR || ruling.verdict == TXPERMS_SYSTEM_ERR;
      EXPECT_TRUE(is_error || ruling == kGranted) << ruling;
    });
    EXPECT_TRUE(outcome.ok() || outcome.signal == SIGABRT) << nth << outcome.out << outcome.err;
  }
}

}  // namespace
}  // namespace tavrix::test
