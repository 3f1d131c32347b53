// SPDX-License-Identifier: LGPL-3.0-or-later
// Power cuts at every moment of an import: the loader's next start makes the new map current, from
// every state that a file system may leave.

#include <sys/shm.h>

#include "perm_map.h"
#include "read_perms.h"
#include "tests/tools/disk_model.hpp"
#include "tests/tools/keeping.hpp"

namespace tavrix::test {
namespace {

class PowerCut : public Keeping {
 protected:
  // The states that an import of the waiting pair may leave behind.
  static std::set<State> states_of_an_import() {
    Disk disk;
    for (const std::string& folder : {std::string("/etc/tavrix"), kInbox}) disk.put_folder(folder);
    if (exists(kKept)) disk.put_folder(kKept);
    Environment environment = with_faults("");
    environment.emplace_back("TAVRIX_TRACE", "/scratch/trace");
    EXPECT_EQ(0, once(environment).exit_code);
    std::set<State> states;
    std::mt19937 random(7);
    for (const bool in_order : {true, false}) disk.add_states(in_order, random, states);
    for (const Operation& operation : read_trace("/scratch/trace")) {
      disk.apply(operation);
      for (const bool in_order : {true, false}) disk.add_states(in_order, random, states);
    }
    return states;
  }

  // The state after a boot: the files of the disk, and nothing in memory but the settings.
  static void boot(const State& state) {
    ctl({"map", "remove", "--yes"});
    for (const std::string& folder : {std::string("/etc/tavrix"), kInbox}) {
      remove_all(folder);
      make_dirs(folder);
    }
    for (const auto& [path, bytes] : state) {
      make_dirs(folder_of(path));
      write_file(path, bytes);
    }
  }

  static uint32_t folders_for_a_reader() {
    void* address = init_perm_map_semaphore() == 0 ? get_perm_map_addr() : nullptr;
    if (address == nullptr) return 0;
    const uint32_t folders = static_cast<const tavrix_be_header*>(address)->total_fselems;
    put_perm_map_addr(address);
    return folders;
  }

  // The map in force is the newest that is kept, with its own image.
  static void expect_it_is_kept(const State& state) {
    int newest = 0;
    for (const std::string& name : list(kKept)) {
      if (name.ends_with(".json")) newest = std::max(newest, std::stoi(name));
    }
    ASSERT_GT(newest, 0) << text_of(state);
    const std::string path = kKept + "/" + std::to_string(newest);
    const auto facts = nlohmann::json::parse(read_file(path + ".json"));
    ASSERT_EQ(read_file(kCopy + ".sha256").substr(0, 64), facts["image"]["sha256"])
        << text_of(state);
    ASSERT_TRUE(read_file(kCopy) == read_file(path + ".map")) << text_of(state);
  }

  static void expect_the_new_map_after_each(const std::set<State>& states, uint32_t folders) {
    EXPECT_GT(states.size(), 20U);
    for (const State& state : states) {
      boot(state);
      const Outcome outcome = once();
      ASSERT_EQ(folders, folders_for_a_reader()) << text_of(state) << outcome.err;
      ASSERT_FALSE(exists(kCopy + ".before")) << text_of(state);
      ASSERT_TRUE(refused().empty()) << text_of(state) << outcome.err;
      expect_it_is_kept(state);
    }
  }
};

TEST_F(PowerCut, AFirstImportIsThereAfterEveryCut) {
  hand_over(wide(7));
  expect_the_new_map_after_each(states_of_an_import(), 7);
}

TEST_F(PowerCut, ALaterImportIsThereAfterEveryCut) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  hand_over(wide(7));
  expect_the_new_map_after_each(states_of_an_import(), 7);
}

}  // namespace
}  // namespace tavrix::test
