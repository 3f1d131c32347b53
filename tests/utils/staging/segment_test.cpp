// SPDX-License-Identifier: LGPL-3.0-or-later
// The segment of the staging buffer.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <csignal>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix::test {
namespace {

class StagingSegment : public Staging {};

TEST_F(StagingSegment, BeginsEmpty) {
  EXPECT_EQ(0U, header().num_records);
  EXPECT_EQ(16U, header().next_offset);
  EXPECT_EQ(0, header().last_flush_time);
  struct shmid_ds info {};
  shmctl(shmget(ftok("/dev/null", 1234), 0, 0), IPC_STAT, &info);
  EXPECT_EQ(20800U, info.shm_segsz);
  EXPECT_EQ(0666, info.shm_perm.mode & 0777);
  EXPECT_EQ(0U, info.shm_nattch);
}

TEST_F(StagingSegment, IsMadeOnce) {
  EXPECT_EQ(0, level_of("\ncannot create shared memory for staging buffer, errno = 17",
                        [] { EXPECT_EQ(-1, create_staging_buffer()); }));
}

TEST_F(StagingSegment, IsInitialisedAnew) {
  append("x");
  EXPECT_EQ(0, initialize_staging_buffer());
  EXPECT_EQ(16U, header().next_offset);
  EXPECT_EQ("", content());
}

TEST_F(StagingSegment, IsRemovedByItsFirstSize) {
  EXPECT_EQ(0, remove_staging_buffers());
  EXPECT_EQ(0, segments_in_use());
  EXPECT_EQ(0, level_of("Cannot create shared memory for global param",
                        [] { EXPECT_EQ(-1, remove_staging_buffers()); }));
  configure(20799, 50, kDir);
  create_staging_buffer();
  EXPECT_EQ(-1, remove_staging_buffers());  // a smaller one is not found
  EXPECT_EQ(1, segments_in_use());
}

TEST_F(StagingSegment, LargerOnesAreRemovedToo) {
  remove_staging_buffers();
  configure(1 << 20, 50, kDir);
  create_staging_buffer();
  EXPECT_EQ(0, remove_staging_buffers());
}

TEST_F(StagingSegment, Failures) {
  const auto told = [](const char* message, const char* call, int error, auto action) {
    EXPECT_EQ(0, level_of(message,
                          [&] {
                            fail_call(call, error);
                            action();
                          }))
        << message;
  };
  const auto initialise = [] { EXPECT_EQ(-1, initialize_staging_buffer()); };
  const auto attach = [] { EXPECT_EQ(nullptr, get_eventstore_staging_buffer()); };
  told("cannot create shm key, errno = 13", "ftok", EACCES,
       [] { EXPECT_EQ(-1, create_staging_buffer()); });
  told("cannot create shm key, errno = 13", "ftok", EACCES, initialise);
  told("cannot access shared memory for staging buffer, errno = 2", "shmget", ENOENT, initialise);
  told("cannot attach to shm, errno = 12", "shmat", ENOMEM, initialise);
  told("cannot create staging buffer key. errno = 13(Permission denied)", "ftok", EACCES, attach);
  told("\ncannot get the shared memory for staging buffer. errno = 2(No such file or directory)",
       "shmget", ENOENT, attach);
  told("cannot attach to shm. errno = 12(Cannot allocate memory)", "shmat", ENOMEM, attach);
  told("Cannot create sema key for shm", "ftok", EACCES,
       [] { EXPECT_EQ(-1, remove_staging_buffers()); });
  put_eventstore_staging_buffer(nullptr);
}

}  // namespace
}  // namespace tavrix::test
