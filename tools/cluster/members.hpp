// SPDX-License-Identifier: LGPL-3.0-or-later
// The nodes of the cluster, by what each of them leaves in the shared tree.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/json/document.hpp"

namespace tavrix::cluster {

// The word of a node about itself, of every second.
struct Word {
  std::string boot;
  int64_t time = 0;     // by the node's clock
  int64_t written = 0;  // by the shared tree
  uint32_t number = 0, generation = 0, prepared = 0;
  std::string settings_hash, smb_conf_hash, group_map_hash;
  std::vector<std::string> problems;
};

// The word of a node's sweeper, of each period: the events that are in its memory alone.
struct Staged {
  uint64_t records = 0, bytes = 0;
  int64_t written = 0;  // by the shared tree
};

struct Member {
  std::string node;
  // There may be events in its memory.
  bool has_mark = false;
  std::string address;  // in its mark: as the nodes know each other; may be empty
  std::optional<Word> word;
  std::optional<Staged> staged;
};
// In order of their names.
[[nodiscard]] std::vector<Member> members();
[[nodiscard]] Member member(const std::string& node);

// Nothing when it has said nothing that can be read.
[[nodiscard]] std::optional<Word> word_of(const std::string& node);

// Returns false and sets errno when it fails. Readers find the old or the new word.
bool say_staged(const std::string& node, const Staged& staged);

// A file of one JSON object; nothing when there is none.
[[nodiscard]] std::optional<json::Json> object_in(const std::string& path);

// The second of a file's last write; nothing without a file.
[[nodiscard]] std::optional<int64_t> written_at(const std::string& path);

}  // namespace tavrix::cluster
