// SPDX-License-Identifier: LGPL-3.0-or-later
// A node's word about itself, in kNodesFolder/NODE.json, and those of all nodes.
#pragma once

#include <sys/stat.h>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/json/document.hpp"

namespace tavrix::clusterd {

struct State {
  std::string node;
  std::string boot;         // the run of its machine
  int64_t time = 0;         // of this word, in seconds since 1970 by the node's clock
  uint64_t beat = 0;        // grows with each word
  uint32_t number = 0;      // of the cluster's map that is in force there; 0: none
  uint32_t generation = 0;  // of the map in force there
  uint32_t prepared = 0;    // the highest number of which it has a finished image
  std::string settings_hash, smb_conf_hash, group_map_hash;
  std::vector<std::string> problems;  // sentences; none: the node is well
};
[[nodiscard]] json::Json json_of(const State& state);
// Throws json::Json::exception when a key is missing.
[[nodiscard]] State state_in(const json::Json& json);
// False with errno.
[[nodiscard]] bool write_state(const State& state);

// The digest of a file that seldom changes; it is read when its look changes. Empty without a file.
class FileHash {
 public:
  explicit FileHash(std::string path) : path_(std::move(path)) {}
  [[nodiscard]] const std::string& look();

 private:
  std::string path_, hash_;
  struct stat seen_ {};
};

// The other nodes. A node lives while its word changes: that needs no clock but the reader's own.
class Others {
 public:
  explicit Others(std::string own) : own_(std::move(own)) {}
  void look();
  // Those whose word has changed within the last seconds. A word that is seen for the first time
  // counts as changed.
  [[nodiscard]] std::vector<State> living() const;
  // True for a node whose word has not changed for twice as long.
  [[nodiscard]] bool is_silent(const std::string& node) const;

 private:
  struct Seen {
    State state;
    std::chrono::steady_clock::time_point changed;
  };
  std::string own_;
  std::map<std::string, Seen> seen_;
};

}  // namespace tavrix::clusterd
