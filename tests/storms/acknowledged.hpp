// SPDX-License-Identifier: LGPL-3.0-or-later
// Events that were acknowledged, and the demand that each is in one dump file, once.
#pragma once

#include <map>
#include <set>
#include <string>

#include "tests/tools/sweeper.hpp"

namespace tavrix::test {

class EventStorm : public SweeperWorld {
 protected:
  void SetUp() override {
    SweeperWorld::SetUp();
    ASSERT_EQ(0, once().exit_code);
  }

  // The dump files of each event.
  static std::map<std::string, Paths> files_of_events() {
    std::map<std::string, Paths> files;
    for (const std::string& name : list(kStaging)) {
      if (!name.starts_with("pending_")) continue;
      for (const std::string& path : paths_in(read_file(std::string(kStaging) + "/" + name))) {
        files[path].push_back(name);
      }
    }
    return files;
  }
  // False, and a failure that names the events and their files, when one is missing or twice there.
  static bool each_is_there_once(const std::set<std::string>& acknowledged,
                                 const std::string& where) {
    constexpr int kShown = 20;
    std::map<std::string, Paths> files = files_of_events();
    for (const std::string& path : acknowledged) files[path];
    int wrong = 0;
    for (const auto& [path, names] : files) {
      if (names.size() == 1 || ++wrong > kShown) continue;
      ADD_FAILURE() << where << ": " << path << " is in " << names.size()
                    << " dump files: " << testing::PrintToString(names);
    }
    EXPECT_EQ(0, wrong) << where << ": of " << files.size() << " events, " << acknowledged.size()
                        << " acknowledged; the folder holds "
                        << testing::PrintToString(list(kStaging));
    return wrong == 0;
  }
  static bool is_told() { return exists(kSyncOff) || exists(kRescan); }
  static void forget_what_was_told() {
    remove_all(kSyncOff);
    remove_all(kRescan);
  }
};

}  // namespace tavrix::test
