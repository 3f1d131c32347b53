// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders of the map as one user or group meets them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/explain/witness.hpp"
#include "tools/mapcheck/walk.hpp"

namespace tavrix::explain {

struct SeenFolder {
  std::string path;
  int level = 0;      // below the folder where the tree begins
  uint32_t mask = 0;  // the rights on it
  bool is_visible = false;
};

struct TreeWish {
  std::string path = "Shared";
  int depth = 3;
  bool only_writable = false;
};

// An image and the walk through it. What the library reads of it is checked before; a record that
// is not sound throws.
struct Map {
  const void* image;
  const mapcheck::Walk& walk;
};

// The folders that the person sees or may write, and those on the way to them, in the order of the
// map. None if the map does not have the path.
[[nodiscard]] std::vector<SeenFolder> tree_for(const Person& person, const Map& map,
                                               const TreeWish& wish);

// Folders of these names in a folder, also those that the person does not meet.
[[nodiscard]] std::vector<SeenFolder> children_for(const Person& person, const mapcheck::Walk& walk,
                                                   const mapcheck::Walk::Folder& folder,
                                                   const std::vector<std::string_view>& names);

// A member of one group, and of the power users, who has no entry of its own.
[[nodiscard]] Person member_of(uint32_t gid, uint32_t power_users);

// "rwdnv", with "-" for each right that is missing.
[[nodiscard]] std::string letters(uint32_t mask);

}  // namespace tavrix::explain
