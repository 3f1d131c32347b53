// SPDX-License-Identifier: LGPL-3.0-or-later
// The first steps of a decision: arguments, the spelling of paths, the share root.

#include <gtest/gtest.h>
#include <unistd.h>
#include <climits>

#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/rule_table.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

// A decision whose every argument the test sets; this process asks as the superuser.
struct Plain {
  const char* root = "/tavrix";
  const char* path = "/tavrix/Shared";
  e_fsop_type op = FSOP_STAT;
  process_trustees_s trustees = trustees_of(kPat);
  int is_nav = 7;

  int verdict() { return vfs_enforce_perms(root, path, op, &trustees, 0, &is_nav); }
  int level(const std::string& message) {
    return level_of(message, [this] { verdict(); });
  }
};

std::string with_pid_and_uid(const std::string& text, const Caller& caller) {
  return text + " pid=(" + std::to_string(getpid()) + ") uid=(" + std::to_string(caller.uid) + ")";
}

// --- arguments ----------------------------------------------------------------------------------

class DecisionArguments : public Share {};

TEST_F(DecisionArguments, NeedAPath) {
  Plain plain{.path = nullptr};
  EXPECT_EQ(TXPERMS_INVALID_ARGS, plain.verdict());
  EXPECT_EQ(0, plain.level("ENFORCE_PERMS Invalid argument path NULL acl 16"));
}

TEST_F(DecisionArguments, NeedAPlaceForTheNavigationFlag) {
  Plain plain;
  const auto ask_without = [&] {
    return vfs_enforce_perms(plain.root, plain.path, plain.op, &plain.trustees, 0, nullptr);
  };
  EXPECT_EQ(TXPERMS_INVALID_ARGS, ask_without());
  EXPECT_EQ(0, level_of("ENFORCE_PERMS Invalid argument path /tavrix/Shared acl 16", ask_without));
}

TEST_F(DecisionArguments, NeedACaller) {
  Plain plain;
  const auto ask_without = [&] {
    return vfs_enforce_perms(plain.root, plain.path, plain.op, nullptr, 0, &plain.is_nav);
  };
  EXPECT_EQ(TXPERMS_INVALID_ARGS, ask_without());
  EXPECT_EQ(0, level_of("ENFORCE_PERMS Invalid argument path /tavrix/Shared acl 16", ask_without));
}

TEST_F(DecisionArguments, NeedAnOperation) {
  for (const int op : {0, 30, -1, INT_MAX, INT_MIN}) {
    Plain plain{.path = "/tavrix", .op = static_cast<e_fsop_type>(op)};
    EXPECT_EQ(TXPERMS_INVALID_ARGS, plain.verdict()) << op;
    EXPECT_EQ(0,
              plain.level("ENFORCE_PERMS Invalid argument path /tavrix acl " + std::to_string(op)));
  }
}

TEST_F(DecisionArguments, AreTold) {
  Plain plain;
  EXPECT_EQ(2, plain.level(with_pid_and_uid(
                   "ENFORCE_PERMS op=(16) root=(/tavrix) \n path=(/tavrix/Shared)", kPat)));
}

TEST_F(DecisionArguments, WithoutAShareRootAreASystemError) {
  Plain plain{.root = nullptr};
  EXPECT_EQ(TXPERMS_SYSTEM_ERR, plain.verdict());
  EXPECT_EQ(0, plain.is_nav);
}

TEST_F(DecisionArguments, WithARootThatClimbsAreASystemError) {
  Plain plain{.root = "../share"};
  EXPECT_EQ(TXPERMS_SYSTEM_ERR, plain.verdict());
  EXPECT_EQ(0, plain.level("ENFORCE_PERMS normalize(../share) failed for root: No such file or "
                           "directory"));
}

// --- the share root -----------------------------------------------------------------------------

class ShareRoot : public Share {};

TEST_F(ShareRoot, IsGrantedToEveryCallerForEveryOperation) {
  for (const Caller& caller : all_callers()) {
    as(caller, [] {
      for (const e_fsop_type op : all_operations()) {
        EXPECT_EQ(kGranted, ask(op, "/tavrix")) << name_of(op);
      }
    });
  }
}

TEST_F(ShareRoot, IsTheRootInAnyCase) {
  as(kStandardUser, [] { EXPECT_EQ(kGranted, ask(FSOP_STAT, "/TAVRIX")); });
}

TEST_F(ShareRoot, IsGrantedWithoutAMapAndWithoutGroups) {
  Plain plain{.path = "/tavrix"};
  plain.trustees = {};
  reset_calls();
  EXPECT_EQ(TXPERMS_HAS_PERMS, plain.verdict());
  EXPECT_EQ(0, plain.is_nav);
  EXPECT_EQ(0, calls("stat") + calls("shmat") + calls("semctl"));
}

TEST_F(ShareRoot, IsComparedInItsNormalSpellingToo) {
  Plain plain{.root = "/tavrix/./sub/..//deep/", .path = "/tavrix/./sub/..//deep/"};
  plain.trustees = {};
  EXPECT_EQ(TXPERMS_HAS_PERMS, plain.verdict());
  EXPECT_EQ(2, plain.level("ENFORCE_PERMS path matches root (/tavrix/deep), (/tavrix/deep) has "
                           "HAS_PERMS"));
}

TEST_F(ShareRoot, WithExtendedBytesIsComparedBySamba) {
  give_samba_library_its_name();
  Plain plain{.root = "/tavrix/\xc3\xa9", .path = "/tavrix/\xc3\x89"};
  plain.trustees = {};
  EXPECT_EQ(TXPERMS_HAS_PERMS, plain.verdict());
}

TEST_F(ShareRoot, IsToldAsAGrant) {
  Plain plain{.path = "/tavrix"};
  EXPECT_EQ(2, plain.level("ENFORCE_PERMS path matches root (/tavrix), (/tavrix) has HAS_PERMS"));
  EXPECT_EQ(2, plain.level("ENFORCE_PERMS GRANTED for op=(16) real_path=(/tavrix)"));
  EXPECT_EQ(2, plain.level("ENFORCE_PERMS Returning verdict={3} share_root=(/tavrix) "
                           "in_path=(/tavrix) real_path=[/tavrix]"));
}

// With the slash it is the folder "." of the share, to which the ordinary rules apply.
TEST_F(ShareRoot, WithATrailingSlashIsNotTheRoot) {
  as(kStandardUser, [] { EXPECT_EQ(kRefusedStandardUser, ask(FSOP_STAT, "/tavrix/")); });
  as(kPat, [] { EXPECT_EQ(kGranted, ask(FSOP_STAT, "/tavrix/")); });
}

// --- spelling -----------------------------------------------------------------------------------

class DecisionPath : public Share {
 protected:
  // A path of the client in the spelling of the decision.
  static std::string spelled(const char* root, const std::string& path) {
    Plain plain{.root = root, .path = path.c_str()};
    set_debug_level(2);
    clear_log();
    plain.verdict();
    const std::string last = messages().back();
    const auto from = last.find("real_path=[") + 11;
    return last.substr(from, last.size() - from - 1);
  }
};

TEST_F(DecisionPath, LosesTheMountAndBecomesCanonical) {
  EXPECT_EQ("Shared/Team", spelled("/tavrix", "/tavrix/Shared//Team/"));
  EXPECT_EQ("Shared/Team", spelled("/tavrix", "/tavrix/Shared/./x/../Team"));
  EXPECT_EQ("Shared", spelled("/tavrix", "/tavrix/./Shared"));
}

// Eight bytes go, whatever they and the root are: the module has always counted so.
TEST_F(DecisionPath, LosesEightBytesWhateverTheRootIs) {
  EXPECT_EQ("team/Shared", spelled("/tavrix/team", "/tavrix/team/Shared"));
  EXPECT_EQ("d/a", spelled("/tavrix", "/x/Shared/a"));
  EXPECT_EQ("/Shared", spelled("/tavrix", "/tavrix//Shared"));
}

TEST_F(DecisionPath, WithNothingLeftIsTheFolderItself) {
  for (const char* path : {"", "/", "abc", "/tavrix/", "/tavri/", "1234567", "12345678"}) {
    EXPECT_EQ(".", spelled("/tavrix", path)) << path;
  }
  EXPECT_EQ(".", spelled("/tavrix", "/tavrix/a/.."));
}

TEST_F(DecisionPath, IsToldWithItsSpelling) {
  Plain plain{.path = "/tavrix/a//b"};
  EXPECT_EQ(4, plain.level("ENFORCE_PERMS /tavrix/a//b normalized to a/b, change '' to '.' if "
                           "needed"));
  EXPECT_EQ(99, plain.level("ENFORCE_PERMS : set realpath to '.'"));
}

TEST_F(DecisionPath, WithNothingLeftIsToldSo) {
  Plain plain{.path = "/tavrix/a/.."};
  EXPECT_EQ(4,
            plain.level("ENFORCE_PERMS /tavrix/a/.. normalized to , change '' to '.' if needed"));
  EXPECT_EQ(4, plain.level("ENFORCE_PERMS : set realpath to '.'"));
}

TEST_F(DecisionPath, ThatClimbsAboveTheShareIsGrantedToEverybody) {
  for (const char* path : {"/tavrix/..", "/tavrix/../etc/passwd", "/tavrix/a/../../b",
                           "/tavrix/./..", "/tavrix/Private/../../x"}) {
    for (const Caller& caller : all_callers()) {
      as(caller, [path] { EXPECT_EQ(kGranted, ask(FSOP_UNLINK, path)) << path; });
    }
  }
}

TEST_F(DecisionPath, ThatClimbsIsTold) {
  Plain plain{.path = "/tavrix/../x"};
  EXPECT_EQ(2, plain.level("returning HAS_PERMS, path normalization returned an unusable path "
                           "/tavrix/../x: No such file or directory"));
  EXPECT_EQ(2, plain.level("ENFORCE_PERMS Returning verdict={3} share_root=(/tavrix) "
                           "in_path=(/tavrix/../x) real_path=[]"));
}

TEST_F(DecisionPath, ThatClimbsFromAnAbsoluteRestStaysInIt) {
  EXPECT_EQ("/x", spelled("/tavrix", "/tavrix//../x"));
}

}  // namespace
}  // namespace tavrix::test
