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
constexpr int kPatience = 50;  // looks at a set that its maker may be about to finish
constexpr useconds_t kBetweenLooks = 20'000;

// The C library leaves the fourth argument of semctl() to its callers.
union semun {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
};

key_t semaphore_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID); }

bool is_dead(pid_t pid) { return pid == getpid() || (kill(pid, 0) != 0 && errno == ESRCH); }

// Made, and never given its value.
bool was_never_used(int set) {
  struct semid_ds info {};
  semun argument{};
  argument.buf = &info;
  return semctl(set, 0, IPC_STAT, argument) == 0 && info.sem_otime == 0 &&
         semctl(set, 0, GETVAL) == 0;
}

// Taken by a process that is dead and whose death did not give it back. Whoever takes it leaves its
// number there, so an equal number before and after the look at the value means that nobody did.
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
    // A new semaphore is 0: taken, by its maker.
    set_ = semget(semaphore_key(), 1, IPC_CREAT | IPC_EXCL | kEveryone);
    return set_ != -1;
  }
  if (!is_abandoned(set)) {
    for (int cause = 0; wait_eventstore_semaphore(&cause) != 0;) {
      if (cause == EINTR) continue;
      errno = cause;
      return false;
    }
    // Setting the value forgets what the kernel would undo.
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
  // An operation, not a value: it leaves its time, by which a finished set is known. Not to be
  // undone.
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
  // Without the folder nothing is served either, and nobody else is there to take turns with.
  if (folder_ != -1) flock(folder_, LOCK_EX);
}

OwnersTurn::~OwnersTurn() {
  if (folder_ != -1) close(folder_);
}

}  // namespace tavrix::sweeper
