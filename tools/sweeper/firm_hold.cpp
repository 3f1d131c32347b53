// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/firm_hold.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/sweeper/paths.hpp"

namespace tavrix::sweeper {
namespace {

constexpr int kEveryone = 0666;
constexpr int kPatience = 50;  // looks at a new set before its maker counts as dead
constexpr useconds_t kBetweenLooks = 20'000;

// The C library leaves the fourth argument of semctl() to its callers.
union semun {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
};

key_t semaphore_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID); }

// Our own number is that of an earlier process: this one does not hold the semaphore while it asks.
bool is_dead(pid_t pid) { return pid == getpid() || (kill(pid, 0) != 0 && errno == ESRCH); }

// True if the set was made and never got its value.
bool was_never_used(int set) {
  struct semid_ds info {};
  semun argument{};
  argument.buf = &info;
  return semctl(set, 0, IPC_STAT, argument) == 0 && info.sem_otime == 0 &&
         semctl(set, 0, GETVAL) == 0;
}

// True if a dead process holds the semaphore and its death did not give it back. Whoever takes the
// semaphore leaves its process id there, so the same id before and after the look at the value
// means that nobody took it in between.
bool is_held_by_the_dead(int set) {
  const int holder = semctl(set, 0, GETPID);
  return holder > 0 && is_dead(holder) && semctl(set, 0, GETVAL) == 0 &&
         semctl(set, 0, GETPID) == holder;
}

bool is_abandoned(int set) {
  if (is_held_by_the_dead(set)) return true;
  for (int look = 0; look < kPatience; ++look) {
    if (!was_never_used(set)) return false;
    usleep(kBetweenLooks);
  }
  return true;
}

}  // namespace

bool FirmHold::take() {
  const int set = semget(semaphore_key(), 1, 0);
  if (set == -1) {
    if (errno != ENOENT) return false;
    // A new semaphore has the value 0, so its maker holds it.
    set_ = semget(semaphore_key(), 1, IPC_CREAT | IPC_EXCL | kEveryone);
    return set_ != -1;
  }
  if (!is_abandoned(set)) {
    for (int cause = 0; wait_eventstore_semaphore(&cause) != 0;) {
      if (cause == EINTR) continue;
      errno = cause;
      return false;
    }
    // SETVAL clears the kernel's undo value, so our death will not give the semaphore back.
    semun held{};
    held.val = 0;
    if (semctl(set, 0, SETVAL, held) != 0) {
      const ErrnoKeeper keep;
      post_eventstore_semaphore();
      return false;
    }
  }
  set_ = set;
  return true;
}

void FirmHold::release() noexcept {
  if (set_ == -1) return;
  const ErrnoKeeper keep;
  // An operation and not SETVAL, because only an operation sets sem_otime, and that is how a
  // finished set is recognised. No SEM_UNDO: the release is final.
  sembuf give{.sem_num = 0, .sem_op = 1, .sem_flg = 0};
  while (semop(set_, &give, 1) != 0 && errno == EINTR) {
  }
  set_ = -1;
}

bool has_sound_semaphore() {
  const int set = semget(semaphore_key(), 1, 0);
  return set != -1 && !is_held_by_the_dead(set) && !was_never_used(set);
}

OwnersTurn::OwnersTurn() : folder_(open(kConfFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  // Without the folder nothing is served, so there is nobody to take turns with.
  if (folder_ != -1) flock(folder_, LOCK_EX);
}

OwnersTurn::~OwnersTurn() {
  if (folder_ != -1) close(folder_);
}

}  // namespace tavrix::sweeper
