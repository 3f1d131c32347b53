// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders in a folder by name, as a lookup of the library finds them. A lookup goes through all
// of them, which is slow for many names in a folder with many folders.
#pragma once

#include <string_view>
#include <vector>

#include "tools/mapdiff/folders.hpp"

namespace tavrix::mapdiff {

class ChildIndex {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  void clear() { slots_.clear(); }
  void fill(const ImageView& map, uint32_t folder);
  // The first folder of the name; kNone if there is none. `hash` is that of the name.
  [[nodiscard]] uint32_t find(std::string_view name, uint32_t hash) const;

 private:
  struct Slot {
    uint32_t hash;
    uint32_t slot;
    uint32_t folder;
  };
  const ImageView* map_ = nullptr;
  std::vector<Slot> slots_;  // by hash, then in the order of the map
};

}  // namespace tavrix::mapdiff
