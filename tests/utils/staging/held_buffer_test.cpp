// SPDX-License-Identifier: LGPL-3.0-or-later
// The staging buffer in a session: appends cost three calls, and follow the sweeper as ever.

#include "utils/staging/held_buffer.hpp"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <csignal>

#include "tavrix_session.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

using Payloads = std::vector<std::string>;

class AHeldBuffer : public Staging {
 protected:
  void SetUp() override {
    Staging::SetUp();
    show_second(1000);
    ASSERT_EQ(0, tavrix_session_begin());
  }
  void TearDown() override { tavrix_session_end(); }

  static void replace_buffer() {
    ASSERT_EQ(0, remove_staging_buffers());
    ASSERT_EQ(0, create_staging_buffer());
  }
  static void replace_semaphore() {
    ASSERT_EQ(1, destroy_eventstore_staging_buffer_semaphore());
    ASSERT_EQ(1, create_eventstore_staging_semaphore());
  }
  static int semaphore_value() {
    return semctl(semget(ftok("/dev/null", TAVRIX_STAGING_SEMAPHORE_KEY_ID), 1, 0), 0, GETVAL);
  }
};

TEST_F(AHeldBuffer, CostsThreeCallsAnEvent) {
  append("first");
  const auto record = record_of("x");
  reset_calls();
  const long before = allocations();
  write_to_staging_buffer(record.get());
  EXPECT_EQ(2, calls("semop"));
  EXPECT_EQ(1, calls("shmget"));
  for (const char* call : {"ftok", "semget", "shmat", "shmdt", "shmctl", "semctl", "stat"}) {
    EXPECT_EQ(0, calls(call)) << call;
  }
  EXPECT_EQ(before, allocations());
  EXPECT_EQ((Payloads{"first", "x"}), payloads_of(content()));
  EXPECT_TRUE(semaphore_is_free());
}

TEST_F(AHeldBuffer, IsLookedUpAfreshInEachSecond) {
  append("one");
  show_second(1001);
  reset_calls();
  append("two");
  EXPECT_EQ(2, calls("ftok"));
  EXPECT_EQ(1, calls("shmat"));
  EXPECT_EQ((Payloads{"one", "two"}), payloads_of(content()));
}

// --- a sweeper that begins again
// -------------------------------------------------------------------

TEST_F(AHeldBuffer, FollowsAReplacedBuffer) {
  append("old");
  replace_buffer();
  EXPECT_EQ(0, append("new"));
  EXPECT_EQ((Payloads{"new"}), payloads_of(content()));
  tavrix_session_idle();
  EXPECT_EQ(1, segments_in_use());
}

// The buffer changes while the writer waits for the semaphore: the ids are compared under it.
TEST_F(AHeldBuffer, FollowsABufferThatIsReplacedDuringTheWait) {
  append("old");
  run_before("shmget", [] { replace_buffer(); });
  EXPECT_EQ(0, append("new"));
  EXPECT_EQ((Payloads{"new"}), payloads_of(content()));
}

TEST_F(AHeldBuffer, FollowsAReplacedSemaphore) {
  append("one");
  replace_semaphore();
  EXPECT_EQ(0, append("two"));
  EXPECT_EQ(1, semaphore_value());
  EXPECT_EQ((Payloads{"one", "two"}), payloads_of(content()));
  reset_calls();
  append("three");
  EXPECT_EQ(0, calls("semget"));  // the new one is known
}

// A set that took the place of the held one was not taken, so it is not given back either.
TEST_F(AHeldBuffer, PostsOnTheSetThatItWaitedOn) {
  append("one");
  run_before("shmget", [] { replace_semaphore(); });
  EXPECT_EQ(0, append("two"));
  EXPECT_EQ(1, semaphore_value());
  EXPECT_EQ(0, append("three"));
  EXPECT_EQ(1, semaphore_value());
  EXPECT_EQ(3U, header().num_records);
}

TEST_F(AHeldBuffer, WithoutASemaphoreGivesUpAsEver) {
  append("one");
  const Outcome outcome = in_child([] {
    destroy_eventstore_staging_buffer_semaphore();
    set_debug_level(0);
    append("two");
  });
  EXPECT_TRUE(outcome.aborted_with("0")) << outcome.err;
  EXPECT_TRUE(exists(kSyncOff));
}

TEST_F(AHeldBuffer, WithoutABufferLosesTheOneEventAsEver) {
  append("one");
  ASSERT_EQ(0, remove_staging_buffers());
  set_debug_level(0);
  EXPECT_EQ(-1, append("two"));
  EXPECT_TRUE(logged("cannot access the staging buffer. errno = 2(No such file or directory)"));
  EXPECT_TRUE(semaphore_is_free());
  set_debug_level(-1);
  ASSERT_EQ(0, create_staging_buffer());
  EXPECT_EQ(0, append("three"));
}

// The settings ask for more than the segment has: that is an error, not the held segment.
TEST_F(AHeldBuffer, OfAnotherSizeIsLookedUpAfresh) {
  append("one");
  configure(40960, 50, kDir);
  EXPECT_EQ(-1, append("two"));
  configure(20800, 50, kDir);
  EXPECT_EQ(0, append("three"));
  EXPECT_EQ((Payloads{"one", "three"}), payloads_of(content()));
}

// --- failures
// ---------------------------------------------------------------------------------------

TEST_F(AHeldBuffer, LooksUpAfreshWhenAWaitFails) {
  append("one");
  for (const int error : {EINTR, EINVAL, EIDRM, EACCES, ENOSPC}) {
    fail_call("semop", error);
    reset_calls();
    EXPECT_EQ(0, append("more")) << error;
    EXPECT_EQ(1, calls("semget")) << error;
    EXPECT_TRUE(semaphore_is_free());
  }
  EXPECT_EQ(6U, header().num_records);
}

TEST_F(AHeldBuffer, IsAttachedAfreshWhenItsLookUpFails) {
  append("one");
  fail_call("shmget", EACCES);
  reset_calls();
  EXPECT_EQ(0, append("two"));
  EXPECT_EQ(1, calls("shmat"));
  EXPECT_EQ(2U, header().num_records);
  EXPECT_EQ(1U, static_cast<unsigned>(segments_in_use()));
}

TEST_F(AHeldBuffer, RepeatsAFailedPost) {
  append("one");
  set_debug_level(0);
  fail_call("semop", EINTR, 2, 3);
  EXPECT_EQ(0, append("two"));
  EXPECT_TRUE(logged("post_eventstore_semaphore failed, retrying ..."));
  EXPECT_TRUE(semaphore_is_free());
}

// The semaphore is free while the writer waits, and the flush empties the buffer that is held.
TEST_F(AHeldBuffer, IsFlushedWhileItsWriterWaits) {
  const std::string large(10000, 'a');
  append(large);
  skip_sleeps();
  run_before("sleep", [] {
    EXPECT_TRUE(semaphore_is_free());
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  });
  EXPECT_EQ(0, append(std::string(1000, 'b')));
  EXPECT_EQ(Payloads{large}, dumped());
  EXPECT_EQ(Payloads{std::string(1000, 'b')}, payloads_of(content()));
}

TEST_F(AHeldBuffer, OfADeadWriterIsFree) {
  append("one");
  const Outcome outcome = in_child([] {
    append("two");
    run_before("shmget", [] { kill(getpid(), SIGKILL); });
    append("lost with its writer");
  });
  EXPECT_EQ(SIGKILL, outcome.signal);
  EXPECT_TRUE(semaphore_is_free());
  EXPECT_EQ(0, append("three"));
  EXPECT_EQ((Payloads{"one", "two", "three"}), payloads_of(content()));
}

TEST_F(AHeldBuffer, IsTheChildsToo) {
  append("one");
  const Outcome child = in_child([] {
    reset_calls();
    EXPECT_EQ(0, append("two"));
    EXPECT_EQ(0, calls("shmat"));
  });
  EXPECT_TRUE(child.ok()) << child.out << child.err;
  EXPECT_EQ(0, append("three"));
  EXPECT_EQ((Payloads{"one", "two", "three"}), payloads_of(content()));
}

TEST_F(AHeldBuffer, KeepsErrnoWhenItIsDropped) {
  append("one");
  fail_call("shmdt", EINVAL);
  errno = EDOM;
  tavrix_session_idle();
  EXPECT_EQ(EDOM, errno);
}

}  // namespace
}  // namespace tavrix::test
