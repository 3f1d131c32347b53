// SPDX-License-Identifier: LGPL-3.0-or-later
// The semaphore of the staging buffer.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <cerrno>
#include <csignal>

#include "tests/support/fail_call.hpp"
#include "tests/support/staging.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix::test {
namespace {

key_t semaphore_key() { return ftok("/dev/null", 2345); }
std::string hex(key_t key) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(key));
  return text;
}

class StagingSemaphore : public Isolated {
 protected:
  static int value() { return semctl(semget(semaphore_key(), 1, 0), 0, GETVAL); }
  static std::string failure(const std::string& call, int error) {
    return call + " failed for semakey:" + hex(semaphore_key()) +
           " errno = " + std::to_string(error) + ":" + strerror(error);
  }
};

TEST_F(StagingSemaphore, IsOneForEverybody) {
  EXPECT_EQ(1, create_eventstore_staging_semaphore());
  EXPECT_EQ(1, value());
  struct semid_ds info {};
  semctl(semget(semaphore_key(), 1, 0), 0, IPC_STAT, &info);
  EXPECT_EQ(1U, info.sem_nsems);
  EXPECT_EQ(0666, info.sem_perm.mode & 0777);
}

TEST_F(StagingSemaphore, IsTakenAndGivenBack) {
  create_eventstore_staging_semaphore();
  int cause = 0;
  EXPECT_EQ(0, wait_eventstore_semaphore(&cause));
  EXPECT_EQ(0, value());
  EXPECT_EQ(0, post_eventstore_semaphore());
  EXPECT_EQ(1, value());
}

TEST_F(StagingSemaphore, IsMadeOnce) {
  create_eventstore_staging_semaphore();
  EXPECT_EQ(0, level_of(failure("semget", EEXIST),
                        [] { EXPECT_EQ(-1, create_eventstore_staging_semaphore()); }));
}

TEST_F(StagingSemaphore, IsReleasedWhenTheHolderDies) {
  create_eventstore_staging_semaphore();
  for (const int how : {SIGKILL, SIGABRT, 0}) {
    in_child([how] {
      int cause = 0;
      wait_eventstore_semaphore(&cause);
      if (how != 0) raise(how);
    });
    EXPECT_EQ(1, value()) << how;
  }
}

TEST_F(StagingSemaphore, IsRemoved) {
  create_eventstore_staging_semaphore();
  EXPECT_EQ(1, destroy_eventstore_staging_buffer_semaphore());
  EXPECT_EQ(-1, semget(semaphore_key(), 1, 0));
  EXPECT_EQ(0, level_of(failure("semget", ENOENT),
                        [] { EXPECT_EQ(-1, destroy_eventstore_staging_buffer_semaphore()); }));
}

TEST_F(StagingSemaphore, ThatIsMissingIsTold) {
  int cause = 0;
  EXPECT_EQ(0, level_of("semget with semakey does not exist :" + hex(semaphore_key()) +
                            " errno = 2:No such file or directory",
                        [&] { EXPECT_EQ(-1, wait_eventstore_semaphore(&cause)); }));
  EXPECT_EQ(ENOENT, cause);
  EXPECT_EQ(
      0, level_of(failure("semget", ENOENT), [] { EXPECT_EQ(-1, post_eventstore_semaphore()); }));
}

TEST_F(StagingSemaphore, WaitFailures) {
  create_eventstore_staging_semaphore();
  int cause = 0;
  const auto wait_with = [&](const char* call, int error) {
    return [&cause, call, error] {
      fail_call(call, error);
      EXPECT_EQ(-1, wait_eventstore_semaphore(&cause));
      EXPECT_EQ(error, cause);
    };
  };
  EXPECT_EQ(0,
            level_of("cannot create the staging buffer semaphore.  errno = 13(Permission denied)",
                     wait_with("ftok", EACCES)));
  EXPECT_EQ(0, level_of(failure("semget", EACCES), wait_with("semget", EACCES)));
  EXPECT_EQ(0, level_of(failure("semop", EIDRM), wait_with("semop", EIDRM)));
  const int set = semget(semaphore_key(), 1, 0);
  EXPECT_EQ(0, level_of("Process received EINTR when waiting for semop on semakey " +
                            std::to_string(semaphore_key()) + ", semid: " + std::to_string(set),
                        wait_with("semop", EINTR)));
}

TEST_F(StagingSemaphore, PostFailures) {
  create_eventstore_staging_semaphore();
  const auto post_with = [](const char* call, int error) {
    return [call, error] {
      fail_call(call, error);
      EXPECT_EQ(-1, post_eventstore_semaphore());
    };
  };
  EXPECT_EQ(0, level_of("cannot create the staging buffer semaphore. errno = 13(Permission denied)",
                        post_with("ftok", EACCES)));
  EXPECT_EQ(0, level_of("semop interrupted.", post_with("semop", EINTR)));
  EXPECT_EQ(0, level_of(failure("semop", ERANGE), post_with("semop", ERANGE)));
}

TEST_F(StagingSemaphore, MakingFailures) {
  const auto make_with = [](const char* call, int error) {
    return [call, error] {
      fail_call(call, error);
      EXPECT_EQ(-1, create_eventstore_staging_semaphore());
    };
  };
  EXPECT_EQ(0, level_of("cannot access the staging buffer semaphore. errno = 13(Permission denied)",
                        make_with("ftok", EACCES)));
  EXPECT_EQ(0, level_of(failure("semctl", ENOSPC), make_with("semctl", ENOSPC)));
  EXPECT_EQ(-1, semget(semaphore_key(), 1, 0));
  create_eventstore_staging_semaphore();
  const auto destroy = [] {
    fail_call("semctl", EPERM);
    EXPECT_EQ(-1, destroy_eventstore_staging_buffer_semaphore());
  };
  EXPECT_EQ(0, level_of(failure("semctl", EPERM), destroy));
}

TEST_F(StagingSemaphore, IsPostedUntilItIs) {
  create_eventstore_staging_semaphore();
  int cause = 0;
  wait_eventstore_semaphore(&cause);
  set_debug_level(0);
  clear_log();
  fail_call("semop", EINTR, 1, 3);
  post_staging_semaphore_until_done();
  EXPECT_EQ(3, times_logged("post_eventstore_semaphore failed, retrying ..."));
  EXPECT_EQ(1, value());
}

}  // namespace
}  // namespace tavrix::test
