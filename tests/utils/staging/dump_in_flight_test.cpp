// SPDX-License-Identifier: LGPL-3.0-or-later
// The temporary file of a flush: its lock, and its loss before it holds anything. Its fate
// after its flusher is killed is tested with the sweeper, in tests/tools/stranded_test.cpp.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <cerrno>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

using Payloads = std::vector<std::string>;

class DumpInFlight : public Staging {};

TEST_F(DumpInFlight, HoldsItsTemporaryFileUntilItHasItsName) {
  append("x");
  const auto expect_locked = [] {
    const std::string name = std::string(kDir) + "/" + list(kDir).at(0);
    const Fd file(open(name.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(-1, flock(file.get(), LOCK_EX | LOCK_NB));
    EXPECT_EQ(EWOULDBLOCK, errno);
  };
  run_before("write", expect_locked);
  run_before("rename", expect_locked);
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
}

TEST_F(DumpInFlight, MakesAnotherFileWhenTheSweeperTookItsEmptyOne) {
  append("x");
  run_before("fstat", [] { remove_all(std::string(kDir) + "/" + list(kDir).at(0)); });
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(Payloads{"x"}, dumped());
}

// --- a flusher that was killed before ------------------------------------------------------------

class KilledFlush : public Staging {
 protected:
  static constexpr const char* kLeft = "/scratch/staging/txtempAbCdEf";

  static void leave(const std::string& bytes) {
    write_file(kLeft, bytes);
    ASSERT_EQ(0, lsetxattr(kDir, "trusted.tavrix.flush", "txtempAbCdEf", 12, 0));
  }
  // The state while its flusher dies: the semaphore is free already, the lock is not.
  static Fd locked() {
    Fd file(open(kLeft, O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(0, flock(file.get(), LOCK_EX));
    return file;
  }
};

TEST_F(KilledFlush, WhoseRecordsAreInTheBufferLeavesThemOnceWhileItStillDies) {
  append("one");
  leave(content());
  append("two");
  {
    const Fd dying = locked();
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  }
  EXPECT_EQ((Payloads{"one", "two"}), dumped());
  EXPECT_FALSE(exists(kLeft));
}

TEST_F(KilledFlush, WhoseRecordsItAloneHasKeepsItsFileWhileItStillDies) {
  append("one");
  leave(content());
  EXPECT_EQ(0, initialize_staging_buffer());
  append("two");
  {
    const Fd dying = locked();
    EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  }
  EXPECT_EQ(Payloads{"two"}, dumped());
  EXPECT_EQ(Payloads{"one"}, payloads_of(read_file(kLeft)));
}

// Both files get this process's number: the second one is named after the first was settled.
TEST_F(KilledFlush, IsPublishedUnderAnotherNameThanTheFlushThatFindsIt) {
  append("one");
  leave(content());
  EXPECT_EQ(0, initialize_staging_buffer());
  append("two");
  timeval now{};
  run_before("semop", [&now] {
    usleep(1000);
    gettimeofday(&now, nullptr);
  });
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  char then[64];
  std::snprintf(then, sizeof then, "pending_%d_%ld.%06ld", getpid(), now.tv_sec, now.tv_usec);
  ASSERT_EQ(2U, dumps().size());
  EXPECT_GT(dumps()[1], then);
  EXPECT_EQ((Payloads{"one", "two"}), dumped());
}

TEST_F(KilledFlush, IsTriedAgainWhenItsFileCannotBeLookedAt) {
  append("one");
  leave(content());
  fail_call("fstat", EIO, 2);  // the first is of the new file
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  EXPECT_EQ(Payloads{"one"}, dumped());
  EXPECT_FALSE(exists(kLeft));
}

}  // namespace
}  // namespace tavrix::test
