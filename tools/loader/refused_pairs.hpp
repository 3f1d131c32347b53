// SPDX-License-Identifier: LGPL-3.0-or-later
// Pairs that were set aside: the loader lays them down, and tavrixctl reads them.
//
//   DIR/refused/<time>/reason.txt      why, for people: the first line, then findings
//   DIR/refused/<time>/findings.json   what the checks found, as "map lint" prints it; missing when
//                                      the pair was refused for another reason
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/json/document.hpp"

namespace tavrix::loader {

// Why a pair is set aside.
struct Refusal {
  std::string reason;
  std::string findings;  // the text of findings.json; empty when no check found anything
};

struct RefusedPair {
  struct File {
    std::string name;
    uint64_t bytes = 0;
  };

  std::string folder;
  std::optional<int64_t> time;       // seconds since 1970
  std::string reason;                // its first line; empty when it could not be written
  std::vector<std::string> details;  // the lines behind it
  std::vector<File> files;           // those that are there
  std::optional<json::Json> findings;
};

struct RefusedPairs {
  std::vector<RefusedPair> newest;  // the newest first
  std::size_t count = 0;            // of all that are there
};

[[nodiscard]] std::string refused_folder(const std::string& inbox);
[[nodiscard]] std::string reason_path(const std::string& folder);
[[nodiscard]] std::string findings_path(const std::string& folder);

// The newest pairs, at most `limit`; none when nothing was ever refused. Returns nothing and sets
// errno when the folder is there and cannot be read.
[[nodiscard]] std::optional<RefusedPairs> refused_pairs(const std::string& inbox,
                                                        std::size_t limit);

}  // namespace tavrix::loader
