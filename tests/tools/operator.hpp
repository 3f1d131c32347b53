// SPDX-License-Identifier: LGPL-3.0-or-later
// An operator at a terminal: runs tavrixctl in a private world.
#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <string>
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
  static Outcome ctl(std::vector<std::string> words) {
    words.insert(words.begin(), TAVRIX_BUILD_DIR "/tools/tavrixctl");
    return run_program(words);
  }
  static nlohmann::json json(std::vector<std::string> words) {
    words.insert(words.begin(), "--json");
    return nlohmann::json::parse(ctl(words).out);
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
