// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/child_index.hpp"

#include <algorithm>
#include <tuple>

#include "permissions/map/name_equality.hpp"

namespace tavrix::mapdiff {

void ChildIndex::fill(const ImageView& map, uint32_t folder) {
  map_ = &map;
  slots_.clear();
  const Children children(map, folder);
  for (uint32_t slot = 0; slot < children.size(); ++slot) {
    const uint32_t child = children[slot];
    slots_.push_back({map.name_of(map.fselem(child)).hashval, slot, child});
  }
  std::ranges::sort(slots_, [](const Slot& a, const Slot& b) {
    return std::tie(a.hash, a.slot) < std::tie(b.hash, b.slot);
  });
}

uint32_t ChildIndex::find(std::string_view name, uint32_t hash) const {
  const PathComponent wanted{name.data(), static_cast<uint32_t>(name.size()), hash};
  for (auto slot = std::ranges::lower_bound(slots_, hash, {}, &Slot::hash);
       slot != slots_.end() && slot->hash == hash; ++slot) {
    const std::string_view other = name_of(*map_, slot->folder);
    // The same bytes are the same name; others of this hash differ in case, or beyond ASCII.
    if (other == name) return slot->folder;
    if (other.size() == name.size() && names_equal(other.data(), wanted, 0)) return slot->folder;
  }
  return kNone;
}

}  // namespace tavrix::mapdiff
