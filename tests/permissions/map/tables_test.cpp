// SPDX-License-Identifier: LGPL-3.0-or-later
// The two tables and their semaphores, in one process.

#include "perm_map.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>

#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr int kTable0 = 0x70657269;
constexpr int kTable1 = 0x7065726a;
const std::string kTag = "PERM_MAP tavrix_messenger:";

class PermMap : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    write_file("/etc/tavrix/.permbe_map", "copy");
  }
  static key_t set_key() { return ftok("/dev/null", 7065); }
  static std::string hex(key_t key) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(key));
    return text;
  }
  static int set() { return semget(set_key(), 0, 0); }
  static std::pair<int, int> values() {
    return {semctl(set(), 0, GETVAL), semctl(set(), 1, GETVAL)};
  }
  static void force(int number, int value) {
    union {
      int val;
      void* pointer;
    } argument{value};
    ASSERT_EQ(0, semctl(set(), number, SETVAL, argument));
  }
  static int exists_table(int key) { return shmget(key, 0, 0); }
  static void make_table(int key, char mark) {
    int shmid = -1;
    void* table = create_perm_map_shm(key, 4096, &shmid);
    ASSERT_NE(nullptr, table);
    std::memset(table, mark, 4096);
    shmdt(table);
  }
};

using Values = std::pair<int, int>;

// --- the set -------------------------------------------------------------------------------------

TEST_F(PermMap, SetHasTwoZeroesForEverybody) {
  EXPECT_EQ(0, create_perm_map_semaphore());
  EXPECT_EQ((Values{0, 0}), values());
  struct semid_ds info {};
  semctl(set(), 0, IPC_STAT, &info);
  EXPECT_EQ(2U, info.sem_nsems);
  EXPECT_EQ(0666, info.sem_perm.mode & 0777);
}

TEST_F(PermMap, SetIsResetByItsCreator) {
  create_perm_map_semaphore();
  force(0, 1);
  force(1, 1);
  EXPECT_EQ(0, create_perm_map_semaphore());
  EXPECT_EQ((Values{0, 0}), values());
}

TEST_F(PermMap, SetIsKeptByAServer) {
  create_perm_map_semaphore();
  force(0, 1);
  force(1, 1);
  EXPECT_EQ(0, init_perm_map_semaphore());
  EXPECT_EQ((Values{1, 1}), values());
}

TEST_F(PermMap, SetThatIsMissingIsMadeByAServer) {
  set_debug_level(4);
  EXPECT_EQ(0, init_perm_map_semaphore());
  EXPECT_EQ((Values{0, 0}), values());
  const std::string key = hex(set_key());
  std::vector<std::string> told = messages();
  told.resize(4);
  EXPECT_EQ((std::vector<std::string>{
                " tavrix_messenger: PERM_MAP cannot get the permission map semaphore, code=2 (No "
                "such file or directory) key=" +
                    key + " will recreate\n",
                kTag + " recreate success key=" + key + "\n",
                kTag + " recreate success assigning to map  key=" + key + "\n",
                kTag + " recreate success got perm map semaphore key=" + key + "\n"}),
            told);
}

TEST_F(PermMap, SetIsRemoved) {
  create_perm_map_semaphore();
  destroy_perm_map();
  EXPECT_EQ(-1, set());
}

TEST_F(PermMap, SetNeedsAKey) {
  fail_call("ftok", ENOENT, 1, 100);
  EXPECT_EQ(0, level_of(kTag + "cannot generate semaphore key for /dev/null/7065, error_code=2 (No "
                               "such file or directory)\n",
                        [] { EXPECT_EQ(-1, create_perm_map_semaphore()); }));
  EXPECT_EQ(-1, init_perm_map_semaphore());
}

TEST_F(PermMap, SetCannotBeMade) {
  fail_call("semget", ENOSPC, 1, 100);
  EXPECT_EQ(0, level_of(kTag + "cannot create the permission map semaphore, code=28 (No space left "
                               "on device)\n",
                        [] { EXPECT_EQ(-1, create_perm_map_semaphore()); }));
  EXPECT_EQ(0, level_of(kTag + " recreate failed cannot create the permission map semaphore, "
                               "code=28 (No space left on device)\n",
                        [] { EXPECT_EQ(-1, init_perm_map_semaphore()); }));
}

TEST_F(PermMap, SetCannotBeWritten) {
  fail_call("semctl", EACCES, 1, 1);
  EXPECT_EQ(-1, create_perm_map_semaphore());
  EXPECT_TRUE(
      logged(kTag + "cannot set the permission map semaphore, code=13 (Permission denied)\n"));
  semctl(set(), 0, IPC_RMID);
  fail_call("semctl", EACCES, 1, 1);
  EXPECT_EQ(-1, init_perm_map_semaphore());
  EXPECT_TRUE(logged(kTag +
                     " recreate cannot set the permission map semaphore, code=13 (Permission "
                     "denied)\n"));
}

TEST_F(PermMap, SetIsGoneAgainAfterItWasRemade) {
  fail_call("semget", ENOENT, 3);
  EXPECT_EQ(-1, init_perm_map_semaphore());
  EXPECT_TRUE(logged(kTag +
                     "cannot get the permission map semaphore, even after trying to recreate "
                     "code=2 (No such file or directory) key=" +
                     hex(set_key()) + "\n"));
}

// --- tables --------------------------------------------------------------------------------------

TEST_F(PermMap, TableIsForTheSuperuserAlone) {
  int shmid = -1;
  void* table = create_perm_map_shm(kTable0, 5000, &shmid);
  ASSERT_NE(nullptr, table);
  struct shmid_ds info {};
  shmctl(shmid, IPC_STAT, &info);
  EXPECT_EQ(0, info.shm_perm.mode & 0777);
  EXPECT_EQ(5000U, info.shm_segsz);
  const Outcome outcome = in_child([shmid] {
    become_samba_user(1000, 1000);
    EXPECT_EQ(reinterpret_cast<void*>(-1), shmat(shmid, nullptr, 0));
    EXPECT_EQ(EACCES, errno);
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

TEST_F(PermMap, TableThatIsThereIsNotUsedAgain) {
  make_table(kTable1, 'a');
  int shmid = -1;
  EXPECT_EQ(0, level_of(kTag + "shared memory segment already exists for key 0x7065726a, must not "
                               "have been cleaned up or is already be getting created, code=17 "
                               "(File exists)\n",
                        [&] { EXPECT_EQ(nullptr, create_perm_map_shm(kTable1, 4096, &shmid)); }));
  EXPECT_EQ(0, attach_count(kTable1));
}

TEST_F(PermMap, TableCannotBeMade) {
  int shmid = -1;
  EXPECT_EQ(0, level_of(kTag + "shared memory creation failed for key 0x70657269 size 0, code=22 "
                               "(Invalid argument)\n",
                        [&] { EXPECT_EQ(nullptr, create_perm_map_shm(kTable0, 0, &shmid)); }));
  EXPECT_EQ(0, level_of(kTag + "input address to create_perm_map_shm() for shmid is NULL\n",
                        [] { EXPECT_EQ(nullptr, create_perm_map_shm(kTable0, 1, nullptr)); }));
}

TEST_F(PermMap, TableThatCannotBeAttachedIsRemoved) {
  int shmid = -1;
  fail_call("shmat", ENOMEM);
  EXPECT_EQ(nullptr, create_perm_map_shm(kTable0, 4096, &shmid));
  EXPECT_TRUE(logged(kTag + "cannot attach shared memory, code=12 (Cannot allocate memory)\n"));
  EXPECT_EQ(-1, exists_table(kTable0));
}

TEST_F(PermMap, TablesTakeTurns) {
  EXPECT_EQ(kTable1, get_next_perm_table_key(0));
  EXPECT_EQ(kTable0, get_next_perm_table_key(1));
  for (const int odd : {-1, 2}) {
    EXPECT_TRUE(in_child([odd] {
                  get_next_perm_table_key(odd);
                }).aborted_with("current == 0 || current == 1"));
  }
}

// --- the initialized flag ------------------------------------------------------------------------

TEST_F(PermMap, FlagIsSetOnce) {
  create_perm_map_semaphore();
  EXPECT_EQ(0, map_initialized(0));
  EXPECT_EQ(0, map_initialized(1));
  EXPECT_EQ(1, map_initialized(0));
  EXPECT_EQ(0, map_initialized(1));
  EXPECT_EQ((Values{0, 1}), values());
}

TEST_F(PermMap, FlagOutlivesItsWriter) {
  create_perm_map_semaphore();
  in_child([] {
    init_perm_map_semaphore();
    map_initialized(1);
  });
  EXPECT_EQ(1, map_initialized(0));
}

TEST_F(PermMap, FlagIsZeroOrOne) {
  create_perm_map_semaphore();
  force(1, 2);
  EXPECT_TRUE(in_child([] { map_initialized(0); }).aborted_with("initialized < 2"));
}

TEST_F(PermMap, FlagFailures) {
  create_perm_map_semaphore();
  const auto read = [] {
    fail_call("semctl", EIDRM);
    EXPECT_EQ(-1, map_initialized(1));
  };
  EXPECT_EQ(0, level_of(kTag + "Failed semctl, code=43 (Identifier removed)\n", read));
  const auto write = [] {
    fail_call("semop", EACCES);
    EXPECT_EQ(-1, map_initialized(1));
  };
  EXPECT_EQ(0, level_of(kTag + "cannot update initialized semaphore value, code=13 (Permission "
                               "denied)\n",
                        write));
}

// --- the swap ------------------------------------------------------------------------------------

TEST_F(PermMap, SwapTurnsTheIndex) {
  create_perm_map_semaphore();
  EXPECT_EQ(0, swap_maps(0));
  EXPECT_EQ((Values{1, 0}), values());
  EXPECT_EQ(0, swap_maps(1));
  EXPECT_EQ((Values{0, 0}), values());
}

TEST_F(PermMap, SwapRemovesNothingBeforeTheFirstMap) {
  create_perm_map_semaphore();
  make_table(kTable0, 'a');
  EXPECT_EQ(0, swap_maps(0));
  EXPECT_NE(-1, exists_table(kTable0));
}

TEST_F(PermMap, SwapRemovesTheOldTableWhenItsReadersAreGone) {
  create_perm_map_semaphore();
  make_table(kTable0, 'a');
  map_initialized(1);
  auto* reader = static_cast<char*>(get_perm_map_addr());
  ASSERT_NE(nullptr, reader);
  make_table(kTable1, 'b');
  EXPECT_EQ(0, swap_maps(0));
  EXPECT_EQ(-1, exists_table(kTable0));
  EXPECT_EQ('a', reader[4095]);
  EXPECT_EQ(2, segments_in_use());
  put_perm_map_addr(reader);
  EXPECT_EQ(1, segments_in_use());
}

TEST_F(PermMap, SwapGoesOnWithoutAnOldTable) {
  create_perm_map_semaphore();
  map_initialized(1);
  EXPECT_EQ(0, level_of(kTag + "shared memory get failed with ENOENT, assume the first shared "
                               "memory segment has not been initialized\n",
                        [] {
                          EXPECT_EQ(0, swap_maps(0));
                          EXPECT_EQ(0, swap_maps(1));
                        }));
}

TEST_F(PermMap, SwapFailures) {
  create_perm_map_semaphore();
  make_table(kTable0, 'a');
  map_initialized(1);
  fail_call("shmget", EACCES);
  EXPECT_EQ(-1, swap_maps(0));
  EXPECT_TRUE(logged(kTag + "shared memory get failed, code=13 (Permission denied)\n"));
  EXPECT_TRUE(logged(kTag + "get_current_perm_table_shmid failed\n"));
  fail_call("semop", EINVAL);
  EXPECT_EQ(-1, swap_maps(0));
  EXPECT_TRUE(logged(kTag + "cannot update semaphore value, code=22 (Invalid argument)\n"));
  EXPECT_EQ((Values{0, 1}), values());
  fail_call("shmctl", EPERM);
  EXPECT_EQ(-1, swap_maps(0));
  EXPECT_TRUE(logged(kTag + "cannot remove old shared memory segment, code=1 (Operation not "
                            "permitted)\n"));
  EXPECT_EQ((Values{1, 1}), values());
}

TEST_F(PermMap, SwapNeedsATableOfTwo) {
  create_perm_map_semaphore();
  for (const unsigned odd : {2U, 0xFFFFFFFFU}) {
    EXPECT_TRUE(in_child([odd] { swap_maps(odd); }).aborted_with("current == 0 || current == 1"));
  }
}

// --- the index -----------------------------------------------------------------------------------

TEST_F(PermMap, IndexFollowsARecreatedSet) {
  create_perm_map_semaphore();
  swap_maps(0);
  EXPECT_EQ(1, get_current_perm_table_index());
  destroy_perm_map();
  in_child([] { create_perm_map_semaphore(); });
  EXPECT_EQ(0, get_current_perm_table_index());
}

TEST_F(PermMap, IndexForTheLoaderStaysWithItsSet) {
  create_perm_map_semaphore();
  EXPECT_EQ(0, get_current_perm_table_index_for_fill());
  destroy_perm_map();
  in_child([] { create_perm_map_semaphore(); });
  EXPECT_EQ(-1, get_current_perm_table_index_for_fill());
  EXPECT_TRUE(logged(kTag + "Failed semctl, code=22 (Invalid argument)\n"));
}

TEST_F(PermMap, IndexIsZeroOrOne) {
  create_perm_map_semaphore();
  force(0, 2);
  EXPECT_TRUE(in_child([] {
                get_current_perm_table_index();
              }).aborted_with("current == 0 || current == 1"));
  EXPECT_TRUE(in_child([] {
                get_current_perm_table_index_for_fill();
              }).aborted_with("current == 0 || current == 1"));
}

TEST_F(PermMap, IndexFailures) {
  EXPECT_EQ(0, level_of(kTag + "PRIOR to map_initialize cannot get the permission map semaphore, "
                               "code=2 (No such file or directory)\n",
                        [] { EXPECT_EQ(-1, get_current_perm_table_index()); }));
  create_perm_map_semaphore();
  fail_call("ftok", EACCES, 1, 2);
  EXPECT_EQ(-1, get_current_perm_table_index());
  EXPECT_EQ(-1, get_current_perm_table_index_for_fill());
  EXPECT_TRUE(logged(kTag + " cannot generate semaphore key for /dev/null/7065, error_code=13 "
                            "(Permission denied)\n"));
  EXPECT_TRUE(logged(kTag + "cannot generate semaphore key for /dev/null/7065, code=13 (Permission "
                            "denied)\n"));
  fail_call("semctl", EIDRM, 2);
  EXPECT_EQ(-1, get_current_perm_table_index());
  EXPECT_TRUE(logged(kTag + " get_current_perm_table_index Failed semctl, code=43 (Identifier "
                            "removed)\n"));
}

// --- attaching -----------------------------------------------------------------------------------

class Attach : public PermMap {
 protected:
  void SetUp() override {
    PermMap::SetUp();
    create_perm_map_semaphore();
    make_table(kTable0, 'a');
    map_initialized(1);
  }
  static char mark_of_current() {
    auto* table = static_cast<char*>(get_perm_map_addr());
    if (table == nullptr) return '-';
    const char mark = table[0];
    put_perm_map_addr(table);
    return mark;
  }
};

TEST_F(Attach, GivesTheCurrentTable) {
  auto* table = static_cast<char*>(get_perm_map_addr());
  ASSERT_NE(nullptr, table);
  EXPECT_EQ('a', table[0]);
  EXPECT_EQ(1, attach_count(kTable0));
  put_perm_map_addr(table);
  EXPECT_EQ(0, attach_count(kTable0));
  make_table(kTable1, 'b');
  swap_maps(0);
  EXPECT_EQ('b', mark_of_current());
}

TEST_F(Attach, WithoutALocalCopyTouchesNoSharedObject) {
  remove_all("/etc/tavrix/.permbe_map");
  reset_calls();
  EXPECT_EQ(0, level_of("PERM_MAP get_perm_map_addr: No permission map file\n",
                        [] { EXPECT_EQ(nullptr, get_perm_map_addr()); }));
  EXPECT_EQ(0, calls("semget") + calls("shmget") + calls("shmat") + calls("semctl"));
}

TEST_F(Attach, LooksThreeTimesForAMissingTable) {
  shmctl(exists_table(kTable0), IPC_RMID, nullptr);
  reset_calls();
  EXPECT_EQ(nullptr, get_perm_map_addr());
  EXPECT_EQ(3, calls("shmget"));
  EXPECT_EQ(2, times_logged(kTag + "shared memory get failed - retrying, code=2 (No such file or "
                                   "directory) key 0x70657269 index 0\n"));
  EXPECT_EQ(1, times_logged(kTag + "shared memory get retry failed, code=2 (No such file or "
                                   "directory)\n"));
}

TEST_F(Attach, FollowsASwapThatComesBeforeItsLookup) {
  run_before("shmget", [] {
    in_child([] {
      init_perm_map_semaphore();
      make_table(kTable1, 'b');
      swap_maps(0);
    });
  });
  EXPECT_EQ('b', mark_of_current());
}

TEST_F(Attach, FollowsASwapThatComesBeforeItsAttach) {
  run_before("shmat", [] {
    in_child([] {
      init_perm_map_semaphore();
      make_table(kTable1, 'b');
      swap_maps(0);
    });
  });
  EXPECT_EQ('b', mark_of_current());
}

TEST_F(Attach, FollowsASwapThatComesAfterItsAttach) {
  // Two looks come before the attach, at the flag and the index; the third is the first one after
  // it.
  set_debug_level(4);
  run_before(
      "semctl",
      [] {
        in_child([] {
          init_perm_map_semaphore();
          make_table(kTable1, 'b');
          swap_maps(0);
        });
      },
      3);
  EXPECT_EQ('b', mark_of_current());
  bool told = false;
  for (const auto& text : messages()) {
    told |= text.ends_with(" shared memory segment was swapped out, retry\n");
  }
  EXPECT_TRUE(told);
  EXPECT_EQ(1, segments_in_use());
}

TEST_F(Attach, Failures) {
  fail_call("shmat", ENOMEM);
  EXPECT_EQ(nullptr, get_perm_map_addr());
  EXPECT_TRUE(logged(kTag + "shared memory attach failed, code=12 (Cannot allocate memory)\n"));
  fail_call("semget", ENOENT, 2);
  EXPECT_EQ(nullptr, get_perm_map_addr());
  EXPECT_TRUE(logged("PERM_MAP get_current_perm_table_index failed\n"));
  EXPECT_EQ(0, attach_count(kTable0));
  semctl(set(), 0, IPC_RMID);
  EXPECT_EQ(nullptr, get_perm_map_addr());
  EXPECT_TRUE(logged("PERM_MAP get_perm_map_addr: get_current_perm_table_index failed\n"));
}

// Two lookups fail before a swap and two after it: the count starts anew, so no third one is met.
TEST_F(Attach, CountsFailedLookupsAnewAfterASwap) {
  fail_call("shmget", EAGAIN, 1, 2);
  run_before(
      "semctl",
      [] {
        in_child([] {
          init_perm_map_semaphore();
          make_table(kTable1, 'b');
          swap_maps(0);
        });
        fail_call("shmget", EAGAIN, 1, 2);
      },
      7);  // two looks at the index for each lookup, and the first one behind the attach
  EXPECT_EQ('b', mark_of_current());
  EXPECT_EQ(1, segments_in_use());
}

// A table that vanishes while the index stays is looked up again twice.
TEST_F(Attach, LooksThreeTimesForATableThatVanishes) {
  for (const int error : {EIDRM, EINVAL}) {
    fail_call("shmat", error, 1, 2);
    EXPECT_EQ('a', mark_of_current());
    reset_calls();
    fail_call("shmat", error, 1, 3);
    EXPECT_EQ('-', mark_of_current());
    EXPECT_EQ(3, calls("shmat"));
    EXPECT_EQ(0, attach_count(kTable0));
  }
}

TEST_F(Attach, IsRefusedToAUser) {
  const Outcome outcome = in_child([] {
    become_samba_user(1000, 1000);
    EXPECT_EQ('-', mark_of_current());
  });
  EXPECT_TRUE(outcome.ok()) << outcome.out;
}

}  // namespace
}  // namespace tavrix::test
