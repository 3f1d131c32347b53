// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs tavrixctl in a private world, as an operator does.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class Operator : public Isolated {
 protected:
  static constexpr const char* kReached = "/scratch/reached";
  using Environment = std::vector<std::pair<std::string, std::string>>;
  // For a program whose calls fail: "CALL[@PART OF A PATH]:ERRNO:NTH[:TIMES],..."
  static Environment with_faults(const std::string& faults) {
    return {{"LD_PRELOAD", TAVRIX_BUILD_DIR "/tests/libtavrix_faults.so"},
            {"ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0"},
            {"TAVRIX_FAULTS", faults},
            {"TAVRIX_FAULTS_REACHED", kReached}};
  }
  // The calls that rules have reached since the last look, a line each. A rule that no call reaches
  // tests nothing.
  static std::string reached() {
    std::string calls = exists(kReached) ? read_file(kReached) : "";
    unlink(kReached);
    return calls;
  }
  // For a program whose time runs that many times faster: its periods, pauses and deadlines. With 0
  // its steady clock stands still.
  static Environment in_haste(int times, const std::string& faults = "") {
    Environment environment = with_faults(faults);
    environment.emplace_back("TAVRIX_HASTE", std::to_string(times));
    return environment;
  }
  static Outcome ctl(std::vector<std::string> words) {
    words.insert(words.begin(), TAVRIX_BUILD_DIR "/tools/tavrixctl");
    return run_program(words);
  }
  // Waits for something that another process does; false when it does not come.
  template <typename Condition>
  static bool comes(Condition condition) {
    for (int i = 0; i < 2000; ++i) {
      if (condition()) return true;
      usleep(10'000);
    }
    return false;
  }
  static nlohmann::json json(std::vector<std::string> words) {
    words.insert(words.begin(), "--json");
    return nlohmann::json::parse(ctl(words).out);
  }
  // The names under the headings of commands in a help text.
  static std::set<std::string> subcommands(std::vector<std::string> words) {
    words.emplace_back("--help");
    std::istringstream in(ctl(words).out);
    std::set<std::string> names;
    bool is_list = false;
    for (std::string line; std::getline(in, line);) {
      if (!line.starts_with(' ')) {
        static const std::set<std::string> kOthers = {
            "Arguments:", "Options:", "Options of all commands:", "Examples:"};
        is_list = line.ends_with(':') && !kOthers.contains(line);
      } else if (is_list) {
        std::smatch part;
        if (std::regex_search(line, part, std::regex("^  ([a-z]+)"))) names.insert(part[1]);
      }
    }
    return names;
  }
  static Outcome import(const Folder& root) {
    write_json_pair(root);
    return ctl({"map", "import", "/scratch/size.json", "/scratch/data.json"});
  }
  static Folder team() {
    const Folder docs{.name = "Docs"};
    const Folder secret{.name = "Secret", .users = {{1001, 0}}};
    const Folder team{.name = "Team",
                      .users = {{1001, 7}, {1002, 16}},
                      .groups = {{2001, 1}},
                      .children = {docs, secret}};
    return {
        .name = "/", .groups = {{2000, 1}}, .children = {{.name = "Shared", .children = {team}}}};
  }
};

}  // namespace tavrix::test
