// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions in sessions and scopes: what a death, a thread's end and a wrong order of calls leave.

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <thread>

#include "perm_map.h"
#include "tavrix_session.h"
#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"
#include "tests/support/stops.hpp"

namespace tavrix::test {
namespace {

class SessionDecision : public Share {
 protected:
  static constexpr int kMostCalls = 400;

  static e_vfs_enforce_perms verdict_of_anna(const std::string& name) {
    process_trustees_s trustees = trustees_of(kAnna);
    int is_nav = 0;
    return vfs_enforce_perms("/tavrix", ("/tavrix/" + name).c_str(), FSOP_STAT, &trustees, 0,
                             &is_nav);
  }
  // Decisions in each state of a session, and in a scope.
  static void decide_some() {
    become_samba_user(kAnna.uid, kAnna.gid, kAnna.groups);
    tavrix_session_begin();
    verdict_of_anna("Shared/Team/report.txt");
    verdict_of_anna("Shared/Team/Docs");
    tavrix_session_idle();
    tavrix_scope_begin();
    verdict_of_anna("Shared/Closed");
    verdict_of_anna("Shared/Lobby");
    tavrix_scope_end();
    tavrix_session_end();
  }
};

// --- deaths --------------------------------------------------------------------------------------

TEST_F(SessionDecision, AServerMayDieInFrontOfAnyCall) {
  int nth = 1;
  for (; killed_at_call(nth, &decide_some); ++nth) {
    ASSERT_LT(nth, kMostCalls);
    ASSERT_EQ(0, attachments()) << "killed in front of call " << nth;
    ASSERT_EQ(1, segments_in_use()) << "killed in front of call " << nth;
    if (nth % 8 == 0) publish_map(share_map());
  }
  EXPECT_GT(nth, 20) << "the server made few calls";
  publish_map(share_map());
  EXPECT_EQ(1, segments_in_use());
  as(kAnna, [] { EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team")); });
}

// --- a map that is swapped in front of any call --------------------------------------------------

// The verdict of a call is the old map's or the new one's; that of the next call is the new one's.
TEST_F(SessionDecision, TheMapMayBeSwappedInFrontOfAnyChange) {
  struct Seen {
    std::atomic<int> first, next;
  };
  void* block =
      mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(MAP_FAILED, block);
  Seen* seen = new (block) Seen;
  const auto decide_twice = [seen] {
    become_samba_user(kPat.uid, kPat.gid, kPat.groups);
    process_trustees_s trustees = trustees_of(kPat);
    const auto verdict = [&] {
      int is_nav = 0;
      return vfs_enforce_perms("/tavrix", "/tavrix/Shared/Team", FSOP_STAT, &trustees, 0, &is_nav);
    };
    tavrix_session_begin();
    verdict();
    seen->first = verdict();
    seen->next = verdict();
    tavrix_session_end();
  };
  for (int nth = 1;; ++nth) {
    ASSERT_LT(nth, kMostCalls);
    publish_team({{kPat.uid, 0}}, {});
    seen->first = seen->next = 0;
    bool is_swapped = false;
    const auto swap = [&] {
      is_swapped = true;
      publish_team({{kPat.uid, 7}}, {});
    };
    if (!stopped_at_change(nth, decide_twice, swap)) break;
    EXPECT_TRUE(is_swapped);
    if (seen->first == TXPERMS_HAS_PERMS) {
      EXPECT_EQ(TXPERMS_HAS_PERMS, seen->next) << "change " << nth;
    }
    EXPECT_TRUE(seen->first == TXPERMS_HAS_PERMS || seen->first == TXPERMS_NO_PERM) << seen->first;
    EXPECT_EQ(0, attachments()) << "change " << nth;
    EXPECT_EQ(1, segments_in_use()) << "change " << nth;
  }
  munmap(block, sizeof(Seen));
}

// --- threads -------------------------------------------------------------------------------------

TEST_F(SessionDecision, TheEndOfAThreadDetaches) {
  as_effective(kAnna, [] {
    std::thread([] {
      ASSERT_EQ(0, tavrix_session_begin());
      EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
      EXPECT_EQ(1, tavrix_session_is_holding());
      EXPECT_EQ(1, attachments());
    }).join();
    EXPECT_EQ(0, attachments());
    EXPECT_EQ(0, tavrix_session_is_holding());
  });
}

// A server's own clean-up of a thread may run when the library's is over.
TEST_F(SessionDecision, ASessionMayBeClosedDuringTheEndOfItsThread) {
  as_effective(kAnna, [] {
    std::thread([] { verdict_of_anna("Shared/Team"); }).join();  // the library's keys come first
    pthread_key_t cleaned_up{};
    ASSERT_EQ(0, pthread_key_create(&cleaned_up, [](void*) {
                tavrix_session_idle();
                tavrix_session_end();
              }));
    std::thread([&] {
      ASSERT_EQ(0, tavrix_session_begin());
      EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
      ASSERT_EQ(0, pthread_setspecific(cleaned_up, &cleaned_up));
    }).join();
    EXPECT_EQ(0, attachments());
    pthread_key_delete(cleaned_up);
  });
}

// --- a wrong order of calls ----------------------------------------------------------------------

// An end without a beginning changes nothing: a later decision still gives root back.
TEST_F(SessionDecision, AScopesEndTooManyLeavesNobodyRoot) {
  as(kAnna, [] {
    tavrix_scope_end();
    EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team"));
    EXPECT_EQ(kAnna.uid, geteuid());
    tavrix_scope_begin();
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
    tavrix_scope_end();
    EXPECT_EQ(kAnna.uid, geteuid());
    EXPECT_EQ(0, tavrix_session_is_holding());
  });
}

TEST_F(SessionDecision, ASessionsEndTooManyClosesNothing) {
  as(kAnna, [] {
    tavrix_session_end();
    ASSERT_EQ(0, tavrix_session_begin());
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
    EXPECT_EQ(1, tavrix_session_is_holding());
    tavrix_session_end();
    tavrix_session_end();
    EXPECT_EQ(0, tavrix_session_is_holding());
    EXPECT_EQ(kGranted, ask_share(FSOP_STAT, "Shared/Team"));
  });
}

// --- a child -------------------------------------------------------------------------------------

TEST_F(SessionDecision, AChildGoesOnWithTheSessionOrClosesIt) {
  as_effective(kAnna, [] {
    ASSERT_EQ(0, tavrix_session_begin());
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
    const Outcome goes_on = in_child([] {
      EXPECT_EQ(1, tavrix_session_is_holding());
      EXPECT_EQ(2, attachments());
      EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
      tavrix_session_idle();
      EXPECT_EQ(1, attachments());
      EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
    });
    EXPECT_TRUE(goes_on.ok()) << goes_on.out << goes_on.err;
    const Outcome closes = in_child([] {
      tavrix_session_end();
      EXPECT_EQ(1, attachments());
      EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
      EXPECT_EQ(1, attachments());
    });
    EXPECT_TRUE(closes.ok()) << closes.out << closes.err;
    EXPECT_EQ(1, attachments());
    EXPECT_EQ(TXPERMS_HAS_PERMS, verdict_of_anna("Shared/Team"));
    tavrix_session_end();
    EXPECT_EQ(0, attachments());
  });
}

}  // namespace
}  // namespace tavrix::test
