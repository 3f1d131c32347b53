// SPDX-License-Identifier: LGPL-3.0-or-later
// The two map tables and the semaphore set that says which of them is current.

#include "perm_map.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <array>
#include <cerrno>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/map/attached_table.hpp"
#include "permissions/map/tables.hpp"
#include "read_perms.h"

namespace tavrix {
namespace {

// The tag of all messages about tables, whichever process writes them: log filters match it.
constexpr const char* kTag = "tavrix_messenger";

// The semaphores of the set.
constexpr int kCurrentTable = 0;
constexpr int kInitialized = 1;
constexpr int kSemaphores = 2;
constexpr int kEveryone = 0666;

constexpr int kTableIsMissing = -2;
constexpr unsigned kLookupRetries = 2;

// The keys are fixed numbers, so that a table is found without a file to derive its key from.
constexpr std::array<key_t, 2> perm_map_shm_keys{TAVRIX_PERM_TABLE0_KEY, TAVRIX_PERM_TABLE1_KEY};

// The C library leaves the fourth argument of semctl() to its callers.
union semun {
  int val;
  struct semid_ds* buf;
  unsigned short* array;
  struct seminfo* __buf;
};

perm_map_sem_s perm_map_sem{.sem = -1, .sarray = {0, 0}};

key_t semaphore_key() { return ftok(TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID); }

int value_of(int semaphore) { return semctl(perm_map_sem.sem, semaphore, GETVAL); }

// Changes a value without SEM_UNDO: it is the state of the appliance and outlives the loader.
int add_to(unsigned short semaphore, short delta) {
  sembuf step{.sem_num = semaphore, .sem_op = delta, .sem_flg = 0};
  return semop(perm_map_sem.sem, &step, 1);
}

int set_to_zero(int set) {
  perm_map_sem.sarray[kCurrentTable] = 0;
  perm_map_sem.sarray[kInitialized] = 0;
  semun values{};
  values.array = perm_map_sem.sarray;
  return semctl(set, 0, SETALL, values);
}

void require_table(int current) {
  TAVRIX_REQUIRE(current == 0 || current == 1, "current == 0 || current == 1");
}

// Makes the set, or takes the one that exists, and sets both values to zero.
int create_zeroed_set(key_t key) {
  const int set = semget(key, kSemaphores, IPC_CREAT | kEveryone);
  if (set == -1 && errno != EEXIST) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot create the permission map semaphore, code=%d (%s)\n", kTag,
               errno, strerror(errno));
    return -1;
  }
  if (set_to_zero(set) == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot set the permission map semaphore, code=%d (%s)\n", kTag,
               errno, strerror(errno));
    return -1;
  }
  return set;
}

// Finds the set, or makes it with zeros: a server may start before the first loader.
int find_or_recreate_set(key_t key) {
  int set = semget(key, 0, kEveryone);
  if (set != -1) return set;
  TAVRIX_LOG(0,
             " %s: PERM_MAP cannot get the permission map semaphore, code=%d (%s) key=0x%x will "
             "recreate\n",
             kTag, errno, strerror(errno), static_cast<unsigned>(key));
  if (_recreate_perm_map_semaphore(&set, &key) == -1) return -1;
  if (set_to_zero(set) == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s: recreate cannot set the permission map semaphore, code=%d (%s)\n",
               kTag, errno, strerror(errno));
    return -1;
  }
  TAVRIX_LOG(4, "PERM_MAP %s: recreate success assigning to map  key=0x%x\n", kTag,
             static_cast<unsigned>(key));
  set = semget(key, 0, kEveryone);
  if (set == -1) {
    TAVRIX_LOG(0,
               "PERM_MAP %s:cannot get the permission map semaphore, even after trying to recreate "
               "code=%d (%s) key=0x%x\n",
               kTag, errno, strerror(errno), static_cast<unsigned>(key));
    return -1;
  }
  TAVRIX_LOG(4, "PERM_MAP %s: recreate success got perm map semaphore key=0x%x\n", kTag,
             static_cast<unsigned>(key));
  return set;
}

int get_current_perm_table_shmid(int current) {
  const int shmid = shmget(perm_map_shm_keys[static_cast<std::size_t>(current)], 0, 0);
  if (shmid != -1) return shmid;
  if (errno == ENOENT) {
    TAVRIX_LOG(0,
               "PERM_MAP %s:shared memory get failed with ENOENT, assume the first shared memory "
               "segment has not been initialized\n",
               kTag);
    return kTableIsMissing;
  }
  TAVRIX_LOG(0, "PERM_MAP %s:shared memory get failed, code=%d (%s)\n", kTag, errno,
             strerror(errno));
  return -1;
}

// Every import leaves a local copy of its map. Without a copy there is no table to look for.
bool has_local_copy() {
  struct stat status {};
  return stat(TAVRIX_PERMBE_MAP_PATH, &status) == 0;
}

// True for the errors of shmat() that mean: the table was removed after it was looked up.
bool table_vanished(int error) { return error == EIDRM || error == EINVAL; }

// The result of one attempt to look up, attach and validate. `kAgain`: a swap came in between.
enum class Attempt { kAttached, kAgain, kFailed };

class Attacher {
 public:
  Attempt attempt() {
    const int index = get_current_perm_table_index();
    if (index == -1) {
      TAVRIX_LOG(0, "PERM_MAP get_perm_map_addr: get_current_perm_table_index failed\n");
      return Attempt::kFailed;
    }
    const key_t key = perm_map_shm_keys[static_cast<std::size_t>(index)];
    segment_ = shmget(key, 0, 0);
    if (segment_ == -1) return lookup_failed(key, index);
    table_.reset(shmat(segment_, nullptr, 0));
    if (!table_) return attach_failed(index);
    return validate(index);
  }

  void* release() {
    remember_table();
    return table_.release();
  }

 private:
  Attempt lookup_failed(key_t key, int index) {
    if (lookup_failures_ >= kLookupRetries) {
      TAVRIX_LOG(0, "PERM_MAP %s:shared memory get retry failed, code=%d (%s)\n", kTag, errno,
                 strerror(errno));
      return Attempt::kFailed;
    }
    TAVRIX_LOG(0,
               "PERM_MAP %s:shared memory get failed - retrying, code=%d (%s) key 0x%x index %d\n",
               kTag, errno, strerror(errno), static_cast<unsigned>(key), index);
    ++lookup_failures_;
    return Attempt::kAgain;
  }

  // A swap may remove the table between the lookup and the attach. The index has moved then, and
  // the new table is there. A table that vanishes while the index stays is looked up again only
  // kLookupRetries times.
  Attempt attach_failed(int index) {
    const int error = errno;
    if (table_vanished(error)) {
      if (get_current_perm_table_index() == 1 - index) return Attempt::kAgain;
      if (vanished_++ < kLookupRetries) return Attempt::kAgain;
    }
    TAVRIX_LOG(0, "PERM_MAP %s:shared memory attach failed, code=%d (%s)\n", kTag, error,
               strerror(error));
    return Attempt::kFailed;
  }

  // Remembers the table's size and identity for lookups. When these are not known, lookups use no
  // cache and trust the offsets.
  void remember_table() const {
    const ErrnoKeeper keep;
    AttachedTables* tables = attached_tables.get();
    if (tables == nullptr) return;
    AttachedTable* attached = &tables->passing;
    *attached = {};
    shmid_ds status{};
    if (shmctl(segment_, IPC_STAT, &status) != 0) return;
    *attached = {.address = table_.get(),
                 .size = status.shm_segsz,
                 .identity = {segment_, status.shm_cpid, status.shm_ctime}};
  }

  // Reads the index again, because a loader may swap between the first look and the attach.
  Attempt validate(int index) {
    const int now = get_current_perm_table_index();
    if (now == -1) {
      table_.reset();
      TAVRIX_LOG(0, "PERM_MAP get_current_perm_table_index failed\n");
      return Attempt::kFailed;
    }
    if (now != index) {
      TAVRIX_LOG(4, "PERM_MAP %p shared memory segment was swapped out, retry\n", table_.get());
      table_.reset();
      lookup_failures_ = 0;
      return Attempt::kAgain;
    }
    if (table_.get() == nullptr) {
      TAVRIX_LOG(0, "PERM_MAP Null adddress\n");
    }
    return Attempt::kAttached;
  }

  ShmAttachment table_;
  int segment_ = -1;
  unsigned lookup_failures_ = 0;
  unsigned vanished_ = 0;
};

}  // namespace

int set_of_tables() noexcept { return perm_map_sem.sem; }

int index_in_set(int set) noexcept {
  const int index = semctl(set, kCurrentTable, GETVAL);
  return index == 0 || index == 1 ? index : -1;
}

int segment_of_table(int index) noexcept {
  return shmget(perm_map_shm_keys[static_cast<std::size_t>(index)], 0, 0);
}

}  // namespace tavrix

using tavrix::kTag;
using tavrix::perm_map_sem;

int create_perm_map_semaphore(void) { return _init_perm_map_semaphore(1); }

int init_perm_map_semaphore(void) { return _init_perm_map_semaphore(0); }

int _init_perm_map_semaphore(int create) {
  const key_t key = tavrix::semaphore_key();
  if (key == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot generate semaphore key for %s/%d, error_code=%d (%s)\n", kTag,
               TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID, errno, strerror(errno));
    return -1;
  }
  const int set = create != 0 ? tavrix::create_zeroed_set(key) : tavrix::find_or_recreate_set(key);
  if (set == -1) return -1;
  perm_map_sem.sem = set;
  TAVRIX_LOG(4, "PERM_MAP %s: permission map semaphore %d\n", kTag, set);
  return 0;
}

int _recreate_perm_map_semaphore(int* semid, int* key) {
  *semid = semget(*key, tavrix::kSemaphores, IPC_CREAT | tavrix::kEveryone);
  if (*semid == -1 && errno != EEXIST) {
    TAVRIX_LOG(
        0,
        "PERM_MAP %s: recreate failed cannot create the permission map semaphore, code=%d (%s)\n",
        kTag, errno, strerror(errno));
    return -1;
  }
  TAVRIX_LOG(4, "PERM_MAP %s: recreate success key=0x%x\n", kTag, static_cast<unsigned>(*key));
  return 0;
}

void destroy_perm_map(void) { semctl(perm_map_sem.sem, 0, IPC_RMID); }

void* create_perm_map_shm(int key, unsigned int size, int* shmid) {
  if (shmid == nullptr) {
    TAVRIX_LOG(0, "PERM_MAP %s:input address to create_perm_map_shm() for shmid is NULL\n", kTag);
    return nullptr;
  }
  *shmid = shmget(key, size, IPC_CREAT | IPC_EXCL);  // permission bits 0: only the superuser's
  if (*shmid == -1) {
    if (errno == EEXIST) {
      TAVRIX_LOG(0,
                 "PERM_MAP %s:shared memory segment already exists for key 0x%x, must not have "
                 "been cleaned up or is already be getting created, code=%d (%s)\n",
                 kTag, static_cast<unsigned>(key), errno, strerror(errno));
    } else {
      TAVRIX_LOG(0,
                 "PERM_MAP %s:shared memory creation failed for key 0x%x size %u, code=%d (%s)\n",
                 kTag, static_cast<unsigned>(key), size, errno, strerror(errno));
    }
    return nullptr;
  }
  tavrix::ShmAttachment table(shmat(*shmid, nullptr, 0));
  if (!table) {
    tavrix::ErrnoKeeper keep;
    TAVRIX_LOG(0, "PERM_MAP %s:cannot attach shared memory, code=%d (%s)\n", kTag, errno,
               strerror(errno));
    shmctl(*shmid, IPC_RMID, nullptr);
    return nullptr;
  }
  // Larger pages mean fewer page faults when a reader first touches the table.
  tavrix::ErrnoKeeper keep;
  madvise(table.get(), size, MADV_HUGEPAGE);
  return table.release();
}

int get_next_perm_table_key(int current) {
  tavrix::require_table(current);
  return tavrix::perm_map_shm_keys[static_cast<std::size_t>(1 - current)];
}

int map_initialized(int set) {
  const int initialized = tavrix::value_of(tavrix::kInitialized);
  TAVRIX_REQUIRE(initialized < 2, "initialized < 2");
  if (initialized == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:Failed semctl, code=%d (%s)\n", kTag, errno, strerror(errno));
    return -1;
  }
  if (set == 0) return initialized;
  if (initialized != 0) return 0;
  if (tavrix::add_to(tavrix::kInitialized, 1) == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot update initialized semaphore value, code=%d (%s)\n", kTag,
               errno, strerror(errno));
    return -1;
  }
  return 0;
}

// The order matters: the new table is complete before the index moves, and the old table is removed
// after that.
int swap_maps(unsigned int current) {
  tavrix::require_table(static_cast<int>(current));
  int old_table = tavrix::kTableIsMissing;
  if (map_initialized(0) != 0) {
    old_table = tavrix::get_current_perm_table_shmid(static_cast<int>(current));
    if (old_table == -1) {
      TAVRIX_LOG(0, "PERM_MAP %s:get_current_perm_table_shmid failed\n", kTag);
      return -1;
    }
  }
  const short step = current == 1 ? -1 : 1;
  if (tavrix::add_to(tavrix::kCurrentTable, step) == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot update semaphore value, code=%d (%s)\n", kTag, errno,
               strerror(errno));
    return -1;
  }
  if (old_table != tavrix::kTableIsMissing && shmctl(old_table, IPC_RMID, nullptr) == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot remove old shared memory segment, code=%d (%s)\n", kTag,
               errno, strerror(errno));
    return -1;
  }
  return 0;
}

int get_current_perm_table_index(void) {
  const key_t key = tavrix::semaphore_key();
  if (key == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s: cannot generate semaphore key for %s/%d, error_code=%d (%s)\n",
               kTag, TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID, errno,
               strerror(errno));
    return -1;
  }
  const int set = semget(key, 0, tavrix::kEveryone);
  if (set == -1) {
    TAVRIX_LOG(0,
               "PERM_MAP %s:PRIOR to map_initialize cannot get the permission map semaphore, "
               "code=%d (%s)\n",
               kTag, errno, strerror(errno));
    return -1;
  }
  perm_map_sem.sem = set;
  const int initialized = map_initialized(0);
  TAVRIX_LOG(4, "PERM_MAP %s: initialized %d\n", kTag, initialized);
  const int current = tavrix::value_of(tavrix::kCurrentTable);
  if (current == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s: %s Failed semctl, code=%d (%s)\n", kTag, __func__, errno,
               strerror(errno));
    return -1;
  }
  tavrix::require_table(current);
  return current;
}

int get_current_perm_table_index_for_fill(void) {
  if (tavrix::semaphore_key() == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:cannot generate semaphore key for %s/%d, code=%d (%s)\n", kTag,
               TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID, errno, strerror(errno));
    return -1;
  }
  const int current = tavrix::value_of(tavrix::kCurrentTable);
  if (current == -1) {
    TAVRIX_LOG(0, "PERM_MAP %s:Failed semctl, code=%d (%s)\n", kTag, errno, strerror(errno));
    return -1;
  }
  tavrix::require_table(current);
  return current;
}

void* get_perm_map_addr(void) {
  if (!tavrix::has_local_copy()) {
    TAVRIX_LOG(0, "PERM_MAP get_perm_map_addr: No permission map file\n");
    return nullptr;
  }
  tavrix::Attacher attacher;
  tavrix::Attempt attempt;
  do {
    attempt = attacher.attempt();
  } while (attempt == tavrix::Attempt::kAgain);
  return attempt == tavrix::Attempt::kAttached ? attacher.release() : nullptr;
}

void put_perm_map_addr(void* addr) {
  tavrix::AttachedTables* tables = tavrix::attached_tables.find();
  if (tables != nullptr && tables->passing.address == addr) tables->passing = {};
  shmdt(addr);
}
