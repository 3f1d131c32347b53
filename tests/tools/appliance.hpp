// SPDX-License-Identifier: LGPL-3.0-or-later
// A whole appliance in a private world, without a server: sweeper, loader, map, groups.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "tests/tools/sweeper.hpp"

namespace tavrix::test {

class Appliance : public SweeperWorld {
 protected:
  static constexpr const char* kInbox = "/scratch/maps";
  static constexpr const char* kGroups = "/etc/tavrix/groupmap_refresh";

  // Everything but the two services.
  void SetUp() override {
    SweeperWorld::SetUp();
    make_dirs(std::string(kInbox) + "/refused");
    write_file("/etc/tavrix/exception_patterns",
               read_file(TAVRIX_SOURCE_DIR "/packaging/exception_patterns"));
    once();
    ASSERT_EQ(0, import(team()).exit_code);
    write_file("/scratch/groups.json", R"({"reserved": {}, "users": {"anna": [1], "ben": [2]}})");
    ASSERT_EQ(0, ctl({"groupmap", "build", "/scratch/groups.json", "-o", kGroups}).exit_code);
  }
  void start_services() {
    sweeper_ = daemon();
    loader_ = std::make_unique<Child>([] {
      execl(TAVRIX_BUILD_DIR "/tools/tavrix-loader", "tavrix-loader", "--dir", kInbox, nullptr);
      _exit(127);
    });
    ASSERT_TRUE(comes([] { return json(status_words())["services"][1]["running"] == true; }));
  }
  static std::vector<std::string> status_words() {
    return {"status", "--settings", kConf, "--dir", kInbox};
  }
  static std::vector<std::string> with(std::vector<std::string> words, const std::string& more) {
    words.push_back(more);
    return words;
  }
  static Outcome status(const std::string& option = {}) {
    return ctl(option.empty() ? status_words() : with(status_words(), option));
  }
  static nlohmann::json status_json() { return json(status_words()); }
  // The ids of the findings.
  static std::set<std::string> problems() {
    std::set<std::string> ids;
    const auto document = status_json();
    for (const auto& finding : document["findings"]) ids.insert(finding["id"]);
    return ids;
  }
  static bool is_a_problem(const std::string& id) { return problems().contains(id); }

  std::unique_ptr<Child> sweeper_, loader_;
};

}  // namespace tavrix::test
