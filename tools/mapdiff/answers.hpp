// SPDX-License-Identifier: LGPL-3.0-or-later
// The rights that entries give somebody, by the decision itself.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "tools/explain/witness.hpp"

namespace tavrix::mapdiff {

struct Rights {
  uint32_t own = 0;        // on a folder with the entries
  uint32_t inherited = 0;  // on what inherits them
};

// Remembers the answers. Entries matter to the decision by their order, their masks, and whether
// they are for the user or for a group of the user: few answers do for all folders and people.
class Answers {
 public:
  // `kinds` is Crowd::kinds_of(person). The entries concern the person, and no others of the folder
  // do. They are in the order in which a reader meets them.
  [[nodiscard]] Rights rights_of(const explain::Person& person, uint32_t kinds,
                                 const std::vector<explain::Entry>& entries);

 private:
  std::u32string key_;
  std::unordered_map<std::u32string, Rights> known_;
};

}  // namespace tavrix::mapdiff
