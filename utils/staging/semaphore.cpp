// SPDX-License-Identifier: LGPL-3.0-or-later
// The semaphore of the staging buffer: one process at a time uses the buffer. Every call looks it
// up afresh, so that a sweeper may replace it.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/staging/staging.hpp"

namespace tavrix {
namespace {

constexpr int kEveryone = 0666;
constexpr int kSemaphores = 1;

// The C library leaves the fourth argument of semctl() to its callers.
union semun {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
  struct seminfo* __buf;
};

key_t semaphore_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID); }

// SEM_UNDO: the death of a holder gives the semaphore back.
int change(int semid, short delta) {
  sembuf step{.sem_num = 0, .sem_op = delta, .sem_flg = SEM_UNDO};
  return semop(semid, &step, 1);
}

}  // namespace

bool take_staging_set(int set) noexcept { return change(set, -1) == 0; }

bool post_staging_set(int set) noexcept { return change(set, 1) == 0; }

}  // namespace tavrix

// Reports a failed System V call with the semaphore's key, as ipcs(1) shows it.
#define TAVRIX_LOG_CALL_FAILED(call, key)                                                         \
  TAVRIX_LOG(0, call " failed for semakey:0x%x errno = %d:%s", static_cast<unsigned>(key), errno, \
             strerror(errno))

int create_eventstore_staging_semaphore(void) {
  const key_t key = tavrix::semaphore_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot access the staging buffer semaphore. errno = %d(%s)", errno,
               strerror(errno));
    return -1;
  }
  const int semid = semget(key, tavrix::kSemaphores, IPC_CREAT | IPC_EXCL | tavrix::kEveryone);
  if (semid == -1) {
    TAVRIX_LOG_CALL_FAILED("semget", key);
    return -1;
  }
  unsigned short free_to_take[tavrix::kSemaphores] = {1};
  tavrix::semun values{};
  values.array = free_to_take;
  if (semctl(semid, 0, SETALL, values) == -1) {
    TAVRIX_LOG_CALL_FAILED("semctl", key);
    semctl(semid, 0, IPC_RMID);
    return -1;
  }
  return 1;
}

int destroy_eventstore_staging_buffer_semaphore(void) {
  const key_t key = tavrix::semaphore_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create the staging buffer semaphore. errno = %d(%s)", errno,
               strerror(errno));
    return -1;
  }
  const int semid = semget(key, tavrix::kSemaphores, 0);
  if (semid == -1) {
    TAVRIX_LOG_CALL_FAILED("semget", key);
    return -1;
  }
  if (semctl(semid, 0, IPC_RMID) == -1) {
    TAVRIX_LOG_CALL_FAILED("semctl", key);
    return -1;
  }
  return 1;
}

int tavrix::wait_on_staging_set(int* err, int* set) noexcept {
  const key_t key = semaphore_key();
  if (key == -1) {
    *err = errno;
    TAVRIX_LOG(0, "cannot create the staging buffer semaphore.  errno = %d(%s)", *err,
               strerror(*err));
    return -1;
  }
  const int semid = semget(key, kSemaphores, 0);
  if (semid == -1) {
    *err = errno;
    if (*err == ENOENT) {
      TAVRIX_LOG(0, "semget with semakey does not exist :0x%x errno = %d:%s",
                 static_cast<unsigned>(key), *err, strerror(*err));
    } else {
      TAVRIX_LOG_CALL_FAILED("semget", key);
    }
    return -1;
  }
  const int result = change(semid, -1);
  if (result == -1) {
    *err = errno;
    if (*err == EINTR) {
      TAVRIX_LOG(0, "Process received EINTR when waiting for semop on semakey %d, semid: %d", key,
                 semid);
    } else {
      TAVRIX_LOG_CALL_FAILED("semop", key);
    }
    return result;
  }
  *set = semid;
  return result;
}

int wait_eventstore_semaphore(int* err) {
  int set = -1;
  return tavrix::wait_on_staging_set(err, &set);
}

int post_eventstore_semaphore(void) {
  const key_t key = tavrix::semaphore_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create the staging buffer semaphore. errno = %d(%s)", errno,
               strerror(errno));
    return -1;
  }
  const int semid = semget(key, tavrix::kSemaphores, 0);
  if (semid == -1) {
    TAVRIX_LOG_CALL_FAILED("semget", key);
    return -1;
  }
  if (tavrix::change(semid, 1) == -1) {
    if (errno == EINTR) {
      TAVRIX_LOG(0, "semop interrupted.");
    } else {
      TAVRIX_LOG_CALL_FAILED("semop", key);
    }
    return -1;
  }
  return 0;
}
