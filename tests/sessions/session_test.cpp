// SPDX-License-Identifier: LGPL-3.0-or-later
// Sessions: a thread keeps its attachments between calls, and gets the same answers.

#include "tavrix_session.h"

#include <sys/shm.h>
#include <unistd.h>
#include <cerrno>
#include <thread>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "perm_map.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kReport = "/tavrix/Shared/Team/report.txt";

// One decision, without the checks of ask(): a session leaves a table attached on purpose.
int verdict_on(const std::string& path, e_fsop_type op = FSOP_OPEN_WRITE, int type = 0) {
  process_trustees_s trustees = trustees_of(kAnna);
  int is_nav = 0;
  return vfs_enforce_perms("/tavrix", path.c_str(), op, &trustees, type, &is_nav);
}

std::size_t attached_tables_now() { return footprint_now().segments.size(); }

class Sessions : public Share {
 protected:
  void SetUp() override {
    Share::SetUp();
    show_second(1000);
  }
  static void open_session() { ASSERT_EQ(0, tavrix_session_begin()); }
  // A map in which nobody has rights in the team folder.
  static void publish_closed() {
    publish_map(
        {.name = "/",
         .children = {{.name = "Shared", .children = {{.name = "Team", .users = {{4242, 7}}}}}}});
  }
  static int attachments(const std::function<void()>& body) {
    reset_calls();
    body();
    return calls("shmat");
  }
};

TEST_F(Sessions, KeepTheTableAttached) {
  as(kAnna, [] {
    open_session();
    EXPECT_EQ(1, attachments([] { verdict_on(kReport); }));
    EXPECT_EQ(1, tavrix_session_is_holding());
    EXPECT_EQ(0, attachments([] {
                for (int i = 0; i < 10; ++i) EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
              }));
    EXPECT_EQ(1U, attached_tables_now());
    tavrix_session_end();
    EXPECT_EQ(0U, attached_tables_now());
  });
}

TEST_F(Sessions, AskTheKernelTwiceWhetherTheTableIsCurrent) {
  as(kAnna, [] {
    open_session();
    verdict_on(kReport);
    reset_calls();
    verdict_on(kReport, FSOP_STAT, FSTYPE_FILE);
    EXPECT_EQ(1, calls("semctl"));
    EXPECT_EQ(1, calls("shmget"));
    for (const char* call : {"ftok", "semget", "shmat", "shmdt", "shmctl", "stat", "seteuid",
                             "setegid", "getresuid", "getresgid"}) {
      EXPECT_EQ(0, calls(call)) << call;
    }
    tavrix_session_end();
  });
}

TEST_F(Sessions, AreNotThereUnlessOpened) {
  as(kAnna, [] {
    EXPECT_EQ(3, attachments([] {
                for (int i = 0; i < 3; ++i) verdict_on(kReport);
              }));
    EXPECT_EQ(0, tavrix_session_is_holding());
    EXPECT_EQ(0U, attached_tables_now());
    tavrix_session_idle();
    tavrix_session_end();  // closes nothing
    EXPECT_EQ(1, attachments([] { verdict_on(kReport); }));
  });
}

TEST_F(Sessions, Nest) {
  as(kAnna, [] {
    open_session();
    open_session();
    verdict_on(kReport);
    tavrix_session_end();
    EXPECT_EQ(0, attachments([] { verdict_on(kReport); }));
    tavrix_session_end();
    EXPECT_EQ(0U, attached_tables_now());
    EXPECT_EQ(1, attachments([] { verdict_on(kReport); }));
    EXPECT_EQ(0U, attached_tables_now());
  });
}

TEST_F(Sessions, SeeANewMapWithTheNextCall) {
  as_effective(kAnna, [] {
    open_session();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    publish_closed();
    ASSERT_EQ(0, seteuid(kAnna.uid));
    EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    publish_map(share_map());  // the index is what it was before
    ASSERT_EQ(0, seteuid(kAnna.uid));
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    EXPECT_EQ(1U, attached_tables_now());
    tavrix_session_end();
  });
}

// Two swaps bring the index back to where it was; the segment is another one.
TEST_F(Sessions, SeeTwoSwapsBetweenTwoCalls) {
  as_effective(kAnna, [] {
    open_session();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    publish_map(share_map());
    publish_closed();
    ASSERT_EQ(0, seteuid(kAnna.uid));
    EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));
    tavrix_session_end();
  });
}

TEST_F(Sessions, LetAnOldTableGoWithTheNextCall) {
  as_effective(kAnna, [] {
    open_session();
    verdict_on(kReport);
    ASSERT_EQ(0, seteuid(0));
    publish_closed();
    EXPECT_EQ(2, segments_in_use());  // this process pins the old one
    ASSERT_EQ(0, seteuid(kAnna.uid));
    verdict_on(kReport);
    EXPECT_EQ(1, segments_in_use());
    tavrix_session_end();
  });
}

TEST_F(Sessions, AnIdleOnePinsNothing) {
  as_effective(kAnna, [] {
    open_session();
    verdict_on(kReport);
    errno = EDOM;
    tavrix_session_idle();
    EXPECT_EQ(EDOM, errno);
    EXPECT_EQ(0, tavrix_session_is_holding());
    EXPECT_EQ(0U, attached_tables_now());
    ASSERT_EQ(0, seteuid(0));
    publish_closed();
    EXPECT_EQ(1, segments_in_use());
    ASSERT_EQ(0, seteuid(kAnna.uid));
    EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));  // open all the same
    EXPECT_EQ(1, tavrix_session_is_holding());
    tavrix_session_end();
  });
}

TEST_F(Sessions, LookEverythingUpAfreshInEachSecond) {
  as(kAnna, [] {
    open_session();
    verdict_on(kReport);
    show_second(1001);
    EXPECT_EQ(1, attachments([] { verdict_on(kReport); }));
    EXPECT_EQ(2, calls("ftok"));
    EXPECT_EQ(0, attachments([] { verdict_on(kReport); }));
    tavrix_session_end();
  });
}

TEST_F(Sessions, MissTheLocalCopyWithinASecond) {
  as_effective(kAnna, [] {
    open_session();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    remove_all("/etc/tavrix/.permbe_map");
    ASSERT_EQ(0, seteuid(kAnna.uid));
    show_second(1001);
    EXPECT_EQ(TXPERMS_SYSTEM_ERR, verdict_on(kReport));
    EXPECT_EQ(0U, attached_tables_now());
    tavrix_session_end();
  });
}

TEST_F(Sessions, FollowARecreatedSet) {
  publish_map(share_map());  // now in table 0, so that a new set finds the other key free
  as_effective(kAnna, [] {
    open_session();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    destroy_perm_map();
    publish_closed();  // makes a new set
    ASSERT_EQ(0, seteuid(kAnna.uid));
    EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));
    tavrix_session_end();
  });
}

TEST_F(Sessions, GiveNoVerdictWithoutASet) {
  as_effective(kAnna, [] {
    open_session();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    destroy_perm_map();
    ASSERT_EQ(0, seteuid(kAnna.uid));
    set_debug_level(0);
    EXPECT_EQ(TXPERMS_SYSTEM_ERR, verdict_on(kReport));
    EXPECT_TRUE(logged("ENFORCE_PERMS ERROR Cannot access the permission map"));
    tavrix_session_end();
  });
}

TEST_F(Sessions, GiveNoVerdictWithoutATable) {
  as_effective(kAnna, [] {
    open_session();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
    ASSERT_EQ(0, seteuid(0));
    const int index = get_current_perm_table_index();
    shmctl(shmget(index == 0 ? TAVRIX_PERM_TABLE0_KEY : TAVRIX_PERM_TABLE1_KEY, 0, 0), IPC_RMID,
           nullptr);
    ASSERT_EQ(0, seteuid(kAnna.uid));
    EXPECT_EQ(TXPERMS_SYSTEM_ERR, verdict_on(kReport));
    tavrix_session_end();
  });
}

// --- threads and forks ---------------------------------------------------------------------------

TEST_F(Sessions, BelongToTheirThread) {
  open_session();
  verdict_on(kReport);
  std::thread([] {
    EXPECT_EQ(0, tavrix_session_is_holding());
    EXPECT_EQ(1, attachments([] { verdict_on(kReport); }));
    EXPECT_EQ(0, tavrix_session_is_holding());
  }).join();
  tavrix_session_end();
}

TEST_F(Sessions, EndWithTheirThread) {
  std::thread([] {
    open_session();
    verdict_on(kReport);
    EXPECT_EQ(1U, attached_tables_now());
  }).join();
  EXPECT_EQ(0U, attached_tables_now());
}

TEST_F(Sessions, GoOnInAChild) {
  open_session();
  verdict_on(kReport);
  const Outcome child = in_child([] {
    EXPECT_EQ(1, tavrix_session_is_holding());
    EXPECT_EQ(0, attachments([] { EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport)); }));
    publish_closed();
    EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));
    tavrix_session_end();
    EXPECT_EQ(0U, attached_tables_now());
  });
  EXPECT_TRUE(child.ok()) << child.out << child.err;
  EXPECT_EQ(1, tavrix_session_is_holding());
  EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));
  tavrix_session_end();
}

// --- what cannot be kept -------------------------------------------------------------------------

TEST_F(Sessions, WithoutMemoryAreNotOpened) {
  for (int nth = 1; nth <= 3; ++nth) {
    const Outcome child = in_child([nth] {
      fail_call("mmap", ENOMEM, nth);
      errno = 0;
      EXPECT_EQ(-1, tavrix_session_begin());
      EXPECT_EQ(ENOMEM, errno);
      EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
      EXPECT_EQ(0U, attached_tables_now());
    });
    EXPECT_TRUE(child.ok()) << nth << child.out << child.err;
  }
}

TEST_F(Sessions, KeepNoTableWhoseSegmentIsNotKnown) {
  open_session();
  fail_call("shmctl", EACCES, 1, 2);
  EXPECT_EQ(2, attachments([] {
              EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
              EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
            }));
  EXPECT_EQ(0U, attached_tables_now());
  tavrix_session_end();
}

TEST_F(Sessions, AttachAfreshWhenALookFails) {
  open_session();
  verdict_on(kReport);
  for (const char* call : {"semctl", "shmget"}) {
    fail_call(call, EINTR);
    EXPECT_EQ(1, attachments([] { EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport)); })) << call;
  }
  EXPECT_EQ(1U, attached_tables_now());
  tavrix_session_end();
}

// A table that somebody else attaches meanwhile is that caller's own.
TEST_F(Sessions, StayOutOfOtherAttachments) {
  open_session();
  verdict_on(kReport);
  void* other = get_perm_map_addr();
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(2U, attached_tables_now());
  put_perm_map_addr(other);
  EXPECT_EQ(0, attachments([] { EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport)); }));
  tavrix_session_end();
}

// --- scopes --------------------------------------------------------------------------------------

TEST_F(Sessions, ScopesLookOnce) {
  for (const bool in_session : {false, true}) {
    as(kAnna, [in_session] {
      if (in_session) open_session();
      tavrix_scope_begin();
      reset_calls();
      for (int i = 0; i < 10; ++i) EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
      EXPECT_EQ(1, calls("shmat"));
      EXPECT_EQ(1, calls("seteuid"));
      EXPECT_EQ(0U, geteuid());
      tavrix_scope_end();
      EXPECT_EQ(kAnna.uid, geteuid());
      EXPECT_EQ(kAnna.gid, getegid());
      EXPECT_EQ(in_session ? 1U : 0U, attached_tables_now());
      tavrix_session_end();
    });
  }
}

TEST_F(Sessions, ScopesAnswerFromOneTable) {
  tavrix_scope_begin();
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
  publish_closed();
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
  tavrix_scope_end();
  EXPECT_EQ(TXPERMS_NO_PERM, verdict_on(kReport));
}

TEST_F(Sessions, ScopesNest) {
  as(kAnna, [] {
    tavrix_scope_begin();
    verdict_on(kReport);
    tavrix_scope_begin();
    verdict_on(kReport);
    tavrix_scope_end();
    EXPECT_EQ(0U, geteuid());
    EXPECT_EQ(0, attachments([] { verdict_on(kReport); }));
    tavrix_scope_end();
    EXPECT_EQ(kAnna.uid, geteuid());
    EXPECT_EQ(0U, attached_tables_now());
  });
}

TEST_F(Sessions, ScopesWithoutAQuestionChangeNothing) {
  as(kAnna, [] {
    reset_calls();
    tavrix_scope_begin();
    tavrix_scope_end();
    for (const char* call : {"seteuid", "getresuid", "shmat", "semctl", "shmget"}) {
      EXPECT_EQ(0, calls(call)) << call;
    }
  });
}

// The table goes; the scope that is open attaches the next one.
TEST_F(Sessions, MayEndWithinAScope) {
  open_session();
  tavrix_scope_begin();
  verdict_on(kReport);
  tavrix_session_end();
  EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
  tavrix_scope_end();
  EXPECT_EQ(0U, attached_tables_now());
}

TEST_F(Sessions, ScopesWithoutMemoryDecideOneByOne) {
  const Outcome child = in_child([] {
    fail_call("mmap", ENOMEM, 1, 100);
    tavrix_scope_begin();
    EXPECT_EQ(2, attachments([] {
                EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
                EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
              }));
    tavrix_scope_end();
    EXPECT_EQ(0U, attached_tables_now());
  });
  EXPECT_TRUE(child.ok()) << child.out << child.err;
}

// A scope holds its table even when the segment is not known; a session does not keep it longer.
TEST_F(Sessions, ScopesHoldATableWhoseSegmentIsNotKnown) {
  open_session();
  tavrix_scope_begin();
  fail_call("shmctl", EACCES);
  EXPECT_EQ(1, attachments([] {
              for (int i = 0; i < 3; ++i) EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_on(kReport));
            }));
  tavrix_scope_end();
  EXPECT_EQ(0U, attached_tables_now());
  tavrix_session_end();
}

// --- events --------------------------------------------------------------------------------------

class EventSessions : public Staging {};

TEST_F(EventSessions, KeepTheBufferAttached) {
  show_second(1000);
  ASSERT_EQ(0, tavrix_session_begin());
  reset_calls();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, append("event"));
  EXPECT_EQ(1, calls("shmat"));
  EXPECT_EQ(1, tavrix_session_is_holding());
  tavrix_session_idle();
  EXPECT_EQ(0U, footprint_now().segments.size());
  EXPECT_EQ(0, append("event"));
  tavrix_session_end();
  EXPECT_EQ(0U, footprint_now().segments.size());
  EXPECT_EQ(4U, header().num_records);
}

TEST_F(EventSessions, EndWithTheirThread) {
  std::thread([] {
    ASSERT_EQ(0, tavrix_session_begin());
    EXPECT_EQ(0, append("event"));
    EXPECT_EQ(1U, footprint_now().segments.size());
  }).join();
  EXPECT_EQ(0U, footprint_now().segments.size());
}

}  // namespace
}  // namespace tavrix::test
