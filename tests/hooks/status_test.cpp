// SPDX-License-Identifier: LGPL-3.0-or-later
// Status queries.

#include <fcntl.h>
#include <sys/stat.h>

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

class Stat : public Hooks {
 protected:
  static Answer stats(Session& session, const char* name) {
    return session.call(
        [&] { return stat_preprocess(session.get(), name, "/tavrix", session.slot()); });
  }
  static Answer lstats(Session& session, const char* name) {
    return session.call(
        [&] { return lstat_preprocess("/tavrix", name, session.slot(), session.get()); });
  }
  static Answer statvfs(Session& session, const char* name) {
    return session.call(
        [&] { return statvfs_preprocess("/tavrix", name, session.get(), session.slot()); });
  }
  static void as_root(const std::function<void()>& action) {
    tx_perm_ctx_t* root = tavrix_vfs_become_root();
    action();
    tavrix_vfs_unbecome_root(root);
  }
  static void touch(const char* path, time_t when) {
    const timespec times[2] = {{when, 0}, {when, 0}};
    as_root([&] { ASSERT_EQ(0, utimensat(AT_FDCWD, path, times, 0)); });
  }
};

TEST_F(Stat, DeniedIsNotPermittedAndLstatDeniedIsNoAccess) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kNotPermitted, stats(session, "Shared/Closed"));
    EXPECT_EQ(kRefusedAccess, lstats(session, "Shared/Closed"));
  });
}

TEST_F(Stat, IsAnsweredFromTheCacheTheSecondTimeAndLstatNever) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kProceed, stats(session, "Shared/Team"));
    reset_calls();
    EXPECT_EQ(kProceed, stats(session, "Shared/Team"));
    EXPECT_EQ(0, calls("shmat"));
    EXPECT_EQ(kProceed, lstats(session, "Shared/Team"));
    EXPECT_EQ(1, calls("shmat"));
    EXPECT_EQ(kProceed, lstats(session, "Shared/Team"));
    EXPECT_EQ(2, calls("shmat"));
  });
}

TEST_F(Stat, OfAComputerIsRefusedAndItsLstatIsTheMaps) {
  as(kAnna, [] {
    Session session(kAnna);
    session->groupmap.is_computer_acct = 1;
    EXPECT_EQ(kNotPermitted, stats(session, "Shared/Team"));
    EXPECT_EQ(kNotPermitted, stats(session, "."));
    EXPECT_EQ(kProceed, lstats(session, "Shared/Team"));
  });
}

TEST_F(Stat, OfNoNameIsNoMemory) {
  as(kAnna, [] {
    Session session(kAnna);
    EXPECT_EQ(kNoName, stats(session, nullptr));
    EXPECT_EQ(kNoName, lstats(session, nullptr));
    EXPECT_EQ(kNoName, statvfs(session, nullptr));
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(kNoName, lstats(session, "x"));
    fail_call("calloc", ENOMEM);
    EXPECT_EQ(kNoName, statvfs(session, "x"));
  });
}

TEST_F(Stat, NoticesANewMapAndANewGroupList) {
  as(kAnna, [] {
    Session session(kAnna);
    session->groupmap.gids = nullptr;  // the refresh frees the list that it finds
    session->groupmap.num_sup_gids = 0;
    session->refresh_creds.groupmap_refresh = 0;
    EXPECT_EQ(kProceed, stats(session, "Shared/Team")) << "the groups come from the list";
    EXPECT_EQ(static_cast<int>(kAnna.groups.size()), session->groupmap.num_sup_gids);
    as_root([] { publish_team({{kAnna.uid, 0}}, {}); });
    EXPECT_EQ(kProceed, stats(session, "Shared/Team")) << "cached";
    touch("/etc/tavrix/permission_refresh", time(nullptr) + 10);
    EXPECT_EQ(kNotPermitted, stats(session, "Shared/Team"));
    EXPECT_EQ(TAVRIX_TLB_FLUSHED, session->vfs_table_cache.flush_tlb);
    std::free(session->groupmap.gids);
  });
}

TEST_F(Stat, NoticesAnotherUserAndLstatDoesNot) {
  as(kAnna, [] {
    Session session(kAnna);
    session->groupmap.gids = nullptr;
    session->groupmap.num_sup_gids = 0;
    session->refresh_creds.euid = kBen.uid;
    EXPECT_EQ(kRefusedAccess, lstats(session, "Shared/Team"));
    EXPECT_EQ(kBen.uid, session->refresh_creds.euid);
    EXPECT_EQ(kProceed, stats(session, "Shared/Team"));
    EXPECT_EQ(kAnna.uid, session->refresh_creds.euid);
    EXPECT_EQ(kAnna.uid, session->groupmap.euid);
    std::free(session->groupmap.gids);
  });
}

TEST_F(Stat, OfTheFileSystemIsGrantedAtTheShareItself) {
  for (const Caller& caller : all_callers()) {
    as(caller, [&] {
      Session session(caller);
      EXPECT_EQ(kProceed, statvfs(session, "/tavrix")) << caller.name;
      const auto asked = asked_by([&] { statvfs(session, "/tavrix"); });
      EXPECT_EQ((std::vector<Question>{{FSOP_STATVFS, "/tavrix//tavrix"}}), asked);
    });
  }
}

// The operation has no rule: the share's root is decided before the rules are reached.
TEST_F(Stat, OfTheFileSystemElsewhereEndsTheProcess) {
  for (const char* name : {"Shared", "."}) {
    const Outcome outcome = outcome_as(kAdministrator, [&] {
      Session session(kAdministrator);
      statvfs(session, name);
    });
    EXPECT_EQ(SIGABRT, outcome.signal) << name;
  }
}

TEST_F(Stat, OfTheFileSystemIsRefusedToStandardUsersElsewhere) {
  as(kStandardUser, [] {
    Session session(kStandardUser);
    EXPECT_EQ(kRefusedAccess, statvfs(session, "Shared"));
  });
}

TEST_F(Stat, IsTold) {
  as(kAnna, [] {
    Session session(kAnna);
    const auto stat = [&](const char* name) { return [&, name] { stats(session, name); }; };
    EXPECT_EQ(0, level_of("stat_preprocess: base_name null\n", stat(nullptr)));
    EXPECT_EQ(1, level_of("Calling check_perms enforce perms nlpath=[Shared]\n", stat("Shared")));
    EXPECT_EQ(1, level_of("Back from enforce perms 3\n", stat("Shared")));
    EXPECT_EQ(1, level_of("Back from enforce perms 2\n", stat("Shared/Closed")));
    EXPECT_EQ(10, level_of("stat_preprocess: EPERM\n", stat("Shared/Closed")));
    EXPECT_EQ(1, level_of("Calling vfs_enforce_perms for connectpath=(/tavrix), "
                          "nlpath=(/tavrix)\n",
                          [&] { statvfs(session, "/tavrix"); }));
    EXPECT_EQ(10, level_of("Enabled statvfs for /tavrix\n", [&] { statvfs(session, "/tavrix"); }));
  });
}

TEST_F(Stat, TellsWhenRootCannotBeHad) {
  as(kAnna, [] {
    Session session(kAnna);
    session->reserved_user = 1;
    const auto without_root = [&](const std::function<Answer()>& call, Answer expected) {
      return [&session, call, expected] {
        fail_call("setresuid", EAGAIN);
        EXPECT_EQ(expected, call());
        fail_call("setresuid", 0, 0, 0);
      };
    };
    EXPECT_EQ(0, level_of("Could not switch to root for stat operation for nlpath=x\n",
                          without_root([&] { return stats(session, "x"); }, kNotPermitted)));
    EXPECT_EQ(0, level_of("Could not switch to root for lstat operation, base_name=x\n",
                          without_root([&] { return lstats(session, "x"); }, kRefusedAccess)));
    EXPECT_EQ(0, level_of("Cannot elevate to root privileges to enforce statvfs permissions, "
                          "path=x\n",
                          without_root([&] { return statvfs(session, "x"); }, kRefusedAccess)));
  });
}

}  // namespace
}  // namespace tavrix::test
