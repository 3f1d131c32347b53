// SPDX-License-Identifier: LGPL-3.0-or-later
// The loader's watch: lost parts of the published map come back within two seconds, and no other
// map does.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <csignal>
#include <string>

#include "perm_map.h"
#include "read_perms.h"
#include "tests/support/share.hpp"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

constexpr int kSetKeyId = 7065;

int set_id() { return semget(ftok("/dev/null", kSetKeyId), 0, 0); }
int table_id(int table) {
  return shmget(table == 0 ? TAVRIX_PERM_TABLE0_KEY : TAVRIX_PERM_TABLE1_KEY, 0, 0);
}
void lose_set() { semctl(set_id(), 0, IPC_RMID); }
void lose_table(int table) {
  if (table_id(table) != -1) shmctl(table_id(table), IPC_RMID, nullptr);
}
void lose_copy() { remove_all(kCopy); }
void reset_set() { create_perm_map_semaphore(); }
void lead_astray() {
  // Names the other table, which is missing or older.
  unsigned short values[2] = {static_cast<unsigned short>(1 - semctl(set_id(), 0, GETVAL)), 1};
  semctl(set_id(), 0, SETALL, values);
}

struct Damage {
  const char* name;
  void (*apply)();
};
const Damage kDamages[] = {
    {"set", lose_set},
    {"set reset", reset_set},
    {"index astray", lead_astray},
    {"table 0", [] { lose_table(0); }},
    {"table 1", [] { lose_table(1); }},
    {"both tables", [] { lose_table(0), lose_table(1); }},
    {"copy", lose_copy},
    {"set and table 0", [] { lose_set(), lose_table(0); }},
    {"set and table 1", [] { lose_set(), lose_table(1); }},
    {"set and both tables", [] { lose_set(), lose_table(0), lose_table(1); }},
    {"set and copy", [] { lose_set(), lose_copy(); }},
    {"table 0 and copy", [] { lose_table(0), lose_copy(); }},
    {"table 1 and copy", [] { lose_table(1), lose_copy(); }},
    {"set, made again by a server", [] { lose_set(), init_perm_map_semaphore(); }},
};

class MapHealing : public Loader {
 protected:
  // A map whose only folder below the root has its number.
  static Folder generation(int number) {
    return {
        .name = "/", .groups = {{2000, 1}}, .children = {{.name = "g" + std::to_string(number)}}};
  }
  static void hand_over_generation(int number) {
    write_json_pair(generation(number), {.generation = static_cast<uint32_t>(number)});
    ASSERT_EQ(0, rename("/scratch/size.json", (kInbox + "/size.json").c_str()));
    ASSERT_EQ(0, rename("/scratch/data.json", (kInbox + "/data.json").c_str()));
  }
  // The generation that a server process finds, 0 without a map.
  static int generation_for_a_reader() {
    void* address = get_perm_map_addr();
    if (address == nullptr) return 0;
    const auto& header = *static_cast<const tavrix_be_header*>(address);
    const auto number = static_cast<int>(header.generationnum);
    put_perm_map_addr(address);
    return number;
  }
  // The first part that is not as it should be; empty when the map is whole.
  static std::string lack_of(int number) {
    const int generation = generation_for_a_reader();
    if (generation != number) return "generation " + std::to_string(generation);
    if (set_id() == -1) return "no set";
    if (!exists(kCopy)) return "no copy";
    if (!exists(kCopy + ".sha256")) return "no checksum";
    if (exists(kCopy + ".before")) return "a copy of before";
    if ((table_id(0) == -1) == (table_id(1) == -1)) return "not one table";
    return "";
  }
  // The same, after some patience.
  static std::string lack_at_last(int number) {
    std::string lack = lack_of(number);
    for (int i = 0; i < 2000 && !lack.empty(); ++i, lack = lack_of(number)) usleep(10000);
    return lack;
  }
  // A client remembers the generations that it saw, in their order.
  static bool saw_a_step_back(const std::string& seen) {
    char last = 0;
    for (const char number : seen) {
      if (number < last) return true;
      last = number;
    }
    return false;
  }
  static Child client() {
    return Child([] {
      bool stop = false;
      std::string seen;
      for (char last = 0; !stop; usleep(500)) {
        const char now = static_cast<char>('0' + generation_for_a_reader());
        if (now != '0' && now != last) seen += last = now;
        stop = exists("/scratch/stop");
      }
      std::fputs(seen.c_str(), stdout);
    });
  }
};

// Damage before a swap and after one: the published map comes back unless both its table and its
// copy are lost, and no client sees an older map again.
TEST_F(MapHealing, BringsBackWhatIsLost) {
  for (const Damage& damage : kDamages) {
    for (const int swaps : {1, 2}) {
      SCOPED_TRACE(std::string(damage.name) + " after " + std::to_string(swaps));
      ctl({"map", "remove", "--yes"});
      remove_all(kCopy + ".mark");
      remove_all(kCopy);
      remove_all(kCopy + ".sha256");
      remove_all("/scratch/stop");
      Child user = client();
      auto loader = service(in_haste(kHaste));
      for (int number = 1; number <= swaps; ++number) {
        hand_over_generation(number);
        ASSERT_EQ("", lack_at_last(number));
      }
      const bool had_table0 = table_id(0) != -1;
      damage.apply();
      const bool is_lost = !exists(kCopy) && (had_table0 ? table_id(0) : table_id(1)) == -1;
      if (is_lost) {
        usleep(300'000);  // six looks
        EXPECT_EQ(0, generation_for_a_reader()) << "nothing is better than an older map";
      } else {
        EXPECT_EQ("", lack_at_last(swaps));
      }
      hand_over_generation(swaps + 1);
      EXPECT_EQ("", lack_at_last(swaps + 1)) << "and the next one comes after it";
      write_file("/scratch/stop", "");
      const Outcome seen = user.wait();
      EXPECT_FALSE(saw_a_step_back(seen.out)) << seen.out;
      kill(loader->pid(), SIGTERM);
      EXPECT_EQ(0, loader->wait().exit_code);
    }
  }
}

// Damage during a swap, while the loader is stopped before its import, before it moves the index,
// or after that.
TEST_F(MapHealing, BringsBackWhatIsLostWhileAMapIsLoaded) {
  for (const Damage& damage : kDamages) {
    for (const char* moment : {"symlink:stop:1", "fsync@.permbe_map:stop:1", "setall:stop:1",
                               "shmrm:stop:1", "open@permission_refresh:stop:1"}) {
      SCOPED_TRACE(std::string(damage.name) + " at " + moment);
      ctl({"map", "remove", "--yes"});
      for (const char* end : {"", ".mark", ".sha256"}) remove_all(kCopy + end);
      remove_all("/scratch/stop");
      hand_over_generation(1);
      ASSERT_EQ(0, once().exit_code);
      Child user = client();
      auto loader = service(in_haste(kHaste, moment));
      hand_over_generation(2);
      bool is_stopped = false;
      for (int i = 0; i < 2000 && !is_stopped; ++i, usleep(10000)) {
        const std::string stat = read_file("/proc/" + std::to_string(loader->pid()) + "/stat");
        is_stopped = contains(stat, ") T ");
      }
      ASSERT_TRUE(is_stopped);
      damage.apply();
      kill(loader->pid(), SIGCONT);
      EXPECT_EQ("", lack_at_last(2));
      write_file("/scratch/stop", "");
      const Outcome seen = user.wait();
      // The index is set to the old table just before its removal: no watch is fast enough for
      // that.
      const bool is_too_fast = contains(moment, "shmrm") && contains(damage.name, "astray");
      EXPECT_TRUE(is_too_fast || !saw_a_step_back(seen.out)) << seen.out;
      kill(loader->pid(), SIGTERM);
      EXPECT_EQ(0, loader->wait().exit_code);
      EXPECT_TRUE(refused().empty());
    }
  }
}

TEST_F(MapHealing, TellsWhatItDid) {
  auto loader = service();
  hand_over_generation(1);
  ASSERT_EQ("", lack_at_last(1));
  lose_set();
  EXPECT_EQ("", lack_at_last(1));
  lose_copy();
  EXPECT_EQ("", lack_at_last(1));
  usleep(100000);
  kill(loader->pid(), SIGTERM);
  const std::string said = loader->wait().err;
  EXPECT_TRUE(contains(said, "the semaphores were gone: table 1 is current again")) << said;
  EXPECT_TRUE(contains(said, "the local copy was gone: wrote it again from table 1")) << said;
}

// A server has made the semaphores anew with index 0, and table 0 is an older one. The mark names
// the published table, and a restart removes the other.
TEST_F(MapHealing, ARestartRemovesTheOlderTableAndNotTheNewer) {
  hand_over_generation(1);
  ASSERT_EQ(0, once().exit_code);
  const std::string old_image = read_file(kCopy);
  hand_over_generation(2);
  ASSERT_EQ(0, once().exit_code);
  hand_over_generation(3);
  ASSERT_EQ(0, once().exit_code);
  ASSERT_EQ(-1, table_id(0));
  int id = -1;
  void* stale =
      create_perm_map_shm(TAVRIX_PERM_TABLE0_KEY, static_cast<unsigned>(old_image.size()), &id);
  std::memcpy(stale, old_image.data(), old_image.size());
  shmdt(stale);
  reset_set();
  ASSERT_EQ(1, generation_for_a_reader()) << "until somebody looks";
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ("", lack_of(3));
}

TEST_F(MapHealing, AnOlderCopyIsNotMadeCurrentByItself) {
  hand_over_generation(1);
  ASSERT_EQ(0, once().exit_code);
  const std::string old_copy = read_file(kCopy);
  hand_over_generation(2);
  ASSERT_EQ(0, once().exit_code);
  ctl({"map", "remove", "--yes"});
  write_file(kCopy, old_copy);
  remove_all(kCopy + ".sha256");
  const Outcome outcome = once();
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "2 was published already")) << outcome.err;
  EXPECT_EQ(0, ctl({"map", "restore"}).exit_code) << "by hand it is";
  EXPECT_EQ("", lack_of(1));
}

}  // namespace
}  // namespace tavrix::test
