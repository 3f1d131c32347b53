// SPDX-License-Identifier: LGPL-3.0-or-later
// Every hook that decides: the operation it asks about, its verdicts, the errno of a refusal and
// the state of the process afterwards. The rows are the hooks' summary tables.

#include <functional>

#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

struct Row {
  std::string hook;
  e_fsop_type op;
  Answer refusal;
  Session::Root root;
  // Calls the hook with a name of the share.
  std::function<int(Session&, const std::string&)> call;
};

int open_as(Session& session, const std::string& name, e_open_mode mode) {
  std::string path = kShareRoot + "/" + name;
  char* full_path = path.data();
  e_fsop_type op = FSOP_INVAL;
  int is_new = 0;
  struct stat st {};
  return open_preprocess("/tavrix", name.c_str(), &mode, &op, &full_path, &is_new, 0, session.get(),
                         &st, "10.0.0.7", session.slot(), 0);
}

int create_as(Session& session, const std::string& name, uint32_t disposition, int write) {
  std::string path = kShareRoot + "/" + name;
  char* full_path = path.data();
  int exists = -1;
  return create_file_preprocess(write, &full_path, name.c_str(), name.c_str(), session.slot(),
                                &exists, 0, disposition, 0, "/tavrix", session.get());
}

int create_dir_as(Session& session, const std::string& name, int create) {
  std::string path = kShareRoot + "/" + name;
  char* full_path = path.data();
  return create_dir_preprocess(0, name.c_str(), &full_path, create, "/tavrix", session.get(),
                               session.slot());
}

std::string full_of(const std::string& name) { return kShareRoot + "/" + name; }

const std::vector<Row>& rows() {
  using S = Session;
  using N = const std::string;
  constexpr auto kKept = Session::Root::kKept;
  constexpr auto kNotKept = Session::Root::kNotKept;
  static const std::vector<Row> all = {
      {"open to read", FSOP_OPEN_READ, kRefusedAccess, kNotKept,
       [](S& s, N& n) { return open_as(s, n, OPENMODE_READ); }},
      {"open to write", FSOP_OPEN_WRITE, kRefusedAccess, kNotKept,
       [](S& s, N& n) { return open_as(s, n, OPENMODE_WRITE); }},
      {"open to create", FSOP_CREATE, kRefusedAccess, kNotKept,
       [](S& s, N& n) { return open_as(s, n, OPENMODE_CREATE); }},
      {"open to change attributes", FSOP_OPEN_CHATTR, kRefusedAccess, kNotKept,
       [](S& s, N& n) { return open_as(s, n, OPENMODE_CHATTR); }},
      {"create file to read", FSOP_OPEN_READ, kRefusedAccess, kKept,
       [](S& s, N& n) { return create_as(s, n, 1, 0); }},
      {"create file to write", FSOP_OPEN_WRITE, kRefusedAccess, kKept,
       [](S& s, N& n) { return create_as(s, n, 1, 1); }},
      {"create file anew", FSOP_CREATE, kRefusedAccess, kKept,
       [](S& s, N& n) { return create_as(s, n, 2, 0); }},
      {"unlink", FSOP_OPEN_WRITE, kRefusedAccess, kKept,
       [](S& s, N& n) {
         return unlink_preprocess("/tavrix", n.c_str(), full_of(n).c_str(), s.get(), s.slot());
       }},
      {"opendir", FSOP_OPENDIR, kRefusedAccess, kKept,
       [](S& s, N& n) {
         char* nlpath = nullptr;
         int is_nav = 0;
         const int result = opendir_preprocess(".", full_of(n).c_str(), "/tavrix", &nlpath,
                                               s.slot(), s.get(), &is_nav);
         EXPECT_EQ(result == 0, nlpath != nullptr);
         const int error = errno;
         std::free(nlpath);
         errno = error;
         return result;
       }},
      {"fdopendir", FSOP_OPENDIR, kRefusedAccess, kKept,
       [](S& s, N& n) {
         int is_nav = 0;
         return fdopendir_preprocess("/tavrix", n.c_str(), 0, s.get(), &is_nav, s.slot());
       }},
      {"mkdir", FSOP_MKDIR, kRefusedAccess, kKept,
       [](S& s, N& n) {
         return mkdir_preprocess("/tavrix", n.c_str(), full_of(n).c_str(), s.get(), s.slot());
       }},
      {"create folder", FSOP_MKDIR, kRefusedAccess, kKept,
       [](S& s, N& n) { return create_dir_as(s, n, 1); }},
      {"open folder", FSOP_OPENDIR, kRefusedAccess, kKept,
       [](S& s, N& n) { return create_dir_as(s, n, 0); }},
      {"rmdir", FSOP_RMDIR, kNotPermitted, kKept,
       [](S& s, N& n) {
         return rmdir_preprocess(full_of(n).c_str(), "/tavrix", n.c_str(), s.get(), s.slot());
       }},
      {"chdir", FSOP_CHDIR, kRefusedAccess, kKept,
       [](S& s, N& n) { return chdir_preprocess(n.c_str(), "/tavrix", s.get(), s.slot()); }},
      {"stat", FSOP_STAT, kNotPermitted, kKept,
       [](S& s, N& n) { return stat_preprocess(s.get(), n.c_str(), "/tavrix", s.slot()); }},
      {"lstat", FSOP_LSTAT, kRefusedAccess, kKept,
       [](S& s, N& n) { return lstat_preprocess("/tavrix", n.c_str(), s.slot(), s.get()); }},
  };
  return all;
}

// Names of every kind: folders, files, missing ones, in every area of the share.
const std::vector<std::string>& names() {
  static const std::vector<std::string> all = {
      "Shared",
      "Private",
      "Other",
      "top.txt",
      "Elsewhere",
      ".DS_Store",
      "Shared/stray.txt",
      "Shared/Team",
      "Shared/New",
      "Shared/Team/report.txt",
      "Shared/Team/new.txt",
      "Shared/Team/Docs",
      "Shared/Team/Docs/plan.txt",
      "Shared/Team/Secret",
      "Shared/Team/Secret/x",
      "Shared/Team/Drop",
      "Shared/Team/Drop/in.txt",
      "Shared/Team/Gallery",
      "Shared/Team/Gallery/picture.jpg",
      "Shared/Lobby",
      "Shared/Lobby/Inner",
      "Shared/Closed",
      "Shared/Closed/x",
      "Private/pat",
      "Private/pat/notes",
      "Private/pat/diary.txt",
      "Private/olga/diary.txt",
      "Private/nobody/x",
  };
  return all;
}

class HookDecisions : public Hooks {
 protected:
  // Asks every hook about every name, for the caller of this process.
  static void compare(const Caller& caller) {
    Session session(caller);
    for (const Row& row : rows()) {
      for (const std::string& name : names()) {
        SCOPED_TRACE(caller.name + ": " + row.hook + " " + name);
        const bool granted = ask_share(row.op, name).verdict == TXPERMS_HAS_PERMS;
        // The stat hook's answers come from a cache that is empty here.
        destroy_tlb(&session->vfs_table_cache);
        const long blocks = live_allocations();
        const Answer answer = session.call([&] { return row.call(session, name); }, row.root);
        EXPECT_EQ(granted ? kProceed : row.refusal, answer);
        destroy_tlb(&session->vfs_table_cache);
        EXPECT_EQ(blocks, live_allocations()) << "blocks left on the heap";
      }
    }
  }
};

TEST_F(HookDecisions, AreTheDecisionsAboutTheirOperations) {
  for (const Caller& caller : all_callers()) as(caller, [&] { compare(caller); });
  EXPECT_EQ(std::vector<std::string>{}, event_lines()) << "a decision is not a change";
}

TEST_F(HookDecisions, AreTheSameWithRealUidZero) {
  for (const Caller& caller : all_callers()) as_effective(caller, [&] { compare(caller); });
}

TEST_F(HookDecisions, AreTheSameForAModuleThatIsRootAlready) {
  as(kAnna, [] {
    ASSERT_EQ(0, setresuid(0, 0, 0));
    compare(kAnna);
  });
}

TEST_F(HookDecisions, AskAboutOneOperationOnTheFullPath) {
  as(kAnna, [] {
    for (const Row& row : rows()) {
      SCOPED_TRACE(row.hook);
      Session session(kAnna);
      const auto asked = asked_by(
          [&] { session.call([&] { return row.call(session, "Shared/Team/Docs"); }, row.root); });
      EXPECT_EQ((std::vector<Question>{{row.op, "/tavrix/Shared/Team/Docs"}}), asked);
    }
  });
}

TEST_F(HookDecisions, AreNotMadeForTheReservedUser) {
  as(kStandardUser, [] {
    Session session(kStandardUser);
    session->reserved_user = 1;
    for (const Row& row : rows()) {
      SCOPED_TRACE(row.hook);
      const auto asked = asked_by([&] {
        const auto call = [&] { return row.call(session, "Shared/Closed/x"); };
        EXPECT_EQ(kProceed, session.call(call, row.root));
      });
      EXPECT_EQ(std::vector<Question>{}, asked);
    }
  });
}

// Computers are refused by the connection's check; hooks without that check ask the map.
TEST_F(HookDecisions, OfComputersAreTheMapsButForStat) {
  as(kAnna, [] {
    Session session(kAnna);
    session->groupmap.is_computer_acct = 1;
    for (const Row& row : rows()) {
      SCOPED_TRACE(row.hook);
      const auto call = [&] { return row.call(session, "Shared/Team/Docs"); };
      EXPECT_EQ(row.op == FSOP_STAT ? kNotPermitted : kProceed, session.call(call, row.root));
    }
  });
}

TEST_F(HookDecisions, RefuseEverythingWithoutAMap) {
  remove_all("/etc/tavrix/.permbe_map");
  as(kAnna, [] {
    Session session(kAnna);
    for (const Row& row : rows()) {
      SCOPED_TRACE(row.hook);
      const std::string name = "Shared/Team/report.txt";
      const auto call = [&] { return row.call(session, name); };
      EXPECT_EQ(row.refusal, session.call(call, row.root));
    }
  });
}

// --- every error path ----------------------------------------------------------------------------

constexpr int kNeverCameToThat = 42;

// Calls the hook while the nth call of that name fails: it must give one of its own answers and
// leave nothing behind.
void call_with_a_failure(const Row& row, const std::string& failing, int nth) {
  Session session(kAnna);
  const long blocks = live_allocations();
  reset_calls();
  int made = 0;
  const auto call = [&] {
    fail_call(failing, failing == "stat" ? EIO : ENOMEM, nth);
    const int result = row.call(session, "Shared/Team/Docs");
    const int error = errno;
    made = calls(failing);
    fail_call(failing, 0, 0, 0);
    errno = error;
    return result;
  };
  const Answer answer = session.call(call, row.root);
  EXPECT_TRUE(answer == kProceed || answer == row.refusal || answer == kNoName) << answer;
  destroy_tlb(&session->vfs_table_cache);
  EXPECT_EQ(blocks, live_allocations()) << "blocks left on the heap";
  if (made < nth && !testing::Test::HasFailure()) _exit(kNeverCameToThat);
}

// A lookup without memory for an ACL ends the process.
bool ended_in_a_lookup(const Outcome& outcome) {
  return outcome.aborted_with("acl != NULL") || outcome.aborted_with("ace != NULL") ||
         outcome.aborted_with("path_arr != NULL") || outcome.aborted_with("0");
}

class FailingCalls : public HookDecisions, public testing::WithParamInterface<const char*> {};

TEST_P(FailingCalls, LeaveTheProcessAsItWas) {
  const std::string failing = GetParam();
  for (const Row& row : rows()) {
    for (int nth = 1; nth <= 60; ++nth) {
      SCOPED_TRACE(row.hook + ", " + failing + " " + std::to_string(nth));
      const Outcome outcome = outcome_as(kAnna, [&] { call_with_a_failure(row, failing, nth); });
      if (outcome.exit_code == kNeverCameToThat) break;
      EXPECT_TRUE(outcome.ok() || ended_in_a_lookup(outcome)) << outcome.out << outcome.err;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Of, FailingCalls,
                         testing::Values("calloc", "malloc", "strdup", "strndup", "stat", "ftok",
                                         "semget", "semctl", "shmget", "shmat", "getresuid",
                                         "getresgid"));

// Hooks that record: without memory an event may be lost, which is logged, and nothing else may be
// left behind.
TEST_P(FailingCalls, LeaveNothingBehindOfARecord) {
  const std::string failing = GetParam();
  std::string path = "/tavrix/Shared/Team/report.txt";
  char* full_path = path.data();
  const std::vector<std::function<void(Session&)>> hooks = {
      [&](Session& s) { open_postprocess(nullptr, s.slot(), &full_path, 1, s.get()); },
      [&](Session& s) { create_file_postprocess(s.get(), full_path); },
      [&](Session& s) { unlink_postprocess(full_path, s.get()); },
      [&](Session& s) { ntimes_file_postprocess(full_path, s.get()); },
      [&](Session& s) { mkdir_postprocess(s.get(), &full_path); },
      [&](Session& s) { create_dir_postprocess(full_path, s.get()); },
      [&](Session& s) { rmdir_postprocess(full_path, s.get()); },
      [&](Session& s) { rename_postprocess(full_path, full_path, 0, s.get()); },
  };
  as(kAnna, [&] {
    Session session(kAnna);
    for (const auto& hook : hooks) {
      for (int nth = 1; nth <= 4; ++nth) {
        const auto call = [&] {
          fail_call(failing, ENOMEM, nth);
          hook(session);
          fail_call(failing, 0, 0, 0);
          return 0;
        };
        session.call(call, Session::Root::kNotKept);
        EXPECT_EQ(0, session.blocks_left());
      }
    }
  });
}

// Only the first switch fails, the one to root. The second is the way back, which the operating
// system does not bar.
TEST_F(HookDecisions, RefuseWhenRootCannotBeHad) {
  as(kAnna, [] {
    for (const Row& row : rows()) {
      SCOPED_TRACE(row.hook);
      Session session(kAnna);
      session->reserved_user = 1;  // no switch but the hook's own
      const auto call = [&] {
        fail_call("setresuid", EAGAIN);
        const int result = row.call(session, "Shared/Team/Docs");
        const int error = errno;
        fail_call("setresuid", 0, 0, 0);
        errno = error;
        return result;
      };
      const bool tells_memory = row.hook == "create folder" || row.hook == "open folder";
      EXPECT_EQ(tells_memory ? kNoName : row.refusal, session.call(call, row.root));
    }
  });
}

}  // namespace
}  // namespace tavrix::test
