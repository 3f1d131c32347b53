// SPDX-License-Identifier: LGPL-3.0-or-later
// The power goes at a random moment: memory is gone, and of the disk's last changes some arrived.

#include "tests/storms/acknowledged.hpp"
#include "tests/storms/sessions.hpp"
#include "tests/storms/storm.hpp"
#include "tests/tools/disk_model.hpp"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

void put_back(const State& state, const std::vector<std::string>& folders) {
  for (const std::string& folder : folders) {
    remove_all(folder);
    make_dirs(folder);
  }
  for (const auto& [path, bytes] : state) {
    make_dirs(folder_of(path));
    write_file(path, bytes);
  }
}

// One state of those that a cut may leave after some of the traced operations.
State any_state(Storm& storm, Disk disk, const std::vector<Operation>& operations) {
  const unsigned end = storm.below(operations.size() + 1);
  for (unsigned i = 0; i < end; ++i) disk.apply(operations[i]);
  std::set<State> states;
  disk.add_states(storm.below(2) == 0, storm.random, states);
  return *std::next(states.begin(), storm.below(states.size()));
}

class PowerStorm : public EventStorm {
 protected:
  static std::vector<std::string> folders() { return {kStaging, "/tavrix/.conf"}; }

  static void boot(const State& state) {
    shmctl(segment(), IPC_RMID, nullptr);
    semctl(semaphore(), 0, IPC_RMID);
    put_back(state, folders());
    if (exists(kRunning) && !read_file(kRunning).empty()) write_file(kRunning, "another boot\n");
  }
};

// An event that was acknowledged before the cut is in a dump file, or the agent is asked to look at
// the tree.
TEST_F(PowerStorm, OfEventsLosesNothingUntold) {
  Storm storm("power.events", 2);
  send("first");
  const StormFootprint footprint;
  while (storm.goes_on()) {
    StormSession session(storm);
    empty_staging_dir();
    forget_what_was_told();
    ASSERT_EQ(0, once().exit_code);
    {
      // The service makes its mark; it is killed, so that a traced flush takes its place.
      const auto sweeper = daemon();
      ASSERT_TRUE(comes([] { return exists(kRunning); }));
    }
    std::set<std::string> acknowledged;
    for (unsigned i = 0, count = 1 + storm.below(30); i < count; ++i) {
      if (append("e" + std::to_string(i)) == 0) acknowledged.insert("e" + std::to_string(i));
      session.rest_at_times();
    }
    Disk disk;
    for (const std::string& folder : folders()) disk.put_folder(folder);
    remove_all("/scratch/trace");
    ASSERT_EQ(0, run_program({TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--once"}, {},
                             {{"LD_PRELOAD", TAVRIX_BUILD_DIR "/tests/libtavrix_faults.so"},
                              {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"},
                              {"TAVRIX_TRACE", "/scratch/trace"}})
                     .exit_code);
    const auto operations = read_trace("/scratch/trace");
    ASSERT_FALSE(operations.empty());
    for (int cut = 0; cut < 8 && !HasFailure(); ++cut) {
      const State state = any_state(storm, disk, operations);
      boot(state);
      const Outcome after = once();
      const std::string where = storm.where() + "\n" + text_of(state) + after.err;
      EXPECT_EQ(0, after.exit_code) << where;
      EXPECT_EQ(Paths{}, others()) << where;
      int missing = 0;
      const auto files = files_of_events();
      for (const std::string& path : acknowledged) missing += files.count(path) == 0 ? 1 : 0;
      for (const auto& [path, names] : files) EXPECT_EQ(1U, names.size()) << path << " " << where;
      EXPECT_TRUE(missing == 0 || is_told()) << missing << " events are lost: " << where;
      storm.count(missing == 0
                      ? is_told() ? "every event there, a rescan is asked for" : "every event there"
                      : "events lost, a rescan is asked for");
    }
  }
  footprint.expect_same(storm.where());
}

class MapPowerStorm : public Loader {};

TEST_F(MapPowerStorm, OfImportsLosesNoMap) {
  const std::vector<std::string> folders{"/etc/tavrix", kInbox};
  Storm storm("power.maps", 2);
  uint32_t current = 20;
  hand_over(numbered_map(current));
  ASSERT_EQ(0, once().exit_code);
  ASSERT_EQ(static_cast<int>(current), number_by_verdicts());
  const StormFootprint footprint;
  StormSession session(storm);
  while (storm.goes_on()) {
    const uint32_t next = current + 1 + storm.below(20);
    hand_over(numbered_map(next));
    Disk disk;
    for (const std::string& folder : folders) disk.put_folder(folder);
    remove_all("/scratch/trace");
    Environment environment = with_faults("");
    environment.emplace_back("TAVRIX_TRACE", "/scratch/trace");
    ASSERT_EQ(0, once(environment).exit_code);
    const auto operations = read_trace("/scratch/trace");
    ASSERT_FALSE(operations.empty());
    for (int cut = 0; cut < 8 && !HasFailure(); ++cut) {
      const State state = any_state(storm, disk, operations);
      ctl({"map", "remove", "--yes"});
      put_back(state, folders);
      const Outcome after = once();
      const std::string where = storm.where() + "\n" + text_of(state) + after.err;
      EXPECT_EQ(next, static_cast<uint32_t>(folders_of_current())) << where;
      EXPECT_EQ(static_cast<int>(next), number_by_verdicts()) << where;
      session.rest_at_times();
      EXPECT_EQ(0, ctl({"map", "verify"}).exit_code) << where;
      EXPECT_TRUE(refused().empty()) << where;
      storm.count("the new map after the next start");
    }
    current = next;
  }
  footprint.expect_same(storm.where());
}

}  // namespace
}  // namespace tavrix::test
