// SPDX-License-Identifier: LGPL-3.0-or-later
// A folder of an image: its name, its path, the folders in it and its own entries.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "permissions/map/image.hpp"

namespace tavrix::mapdiff {

[[nodiscard]] inline std::string_view name_of(const ImageView& map, uint32_t folder) {
  return ImageView::text_of(map.name_of(map.fselem(folder)));
}

// Relative to the share, as in "Shared/Team"; "/" for the root.
[[nodiscard]] std::string path_of(const ImageView& map, uint32_t folder);

// The folders in a folder, in the order of the map.
class Children {
 public:
  Children(const ImageView& map, uint32_t folder) {
    const fs_elem_s& record = map.fselem(folder);
    if ((record.flags & FSELEM_FLAG_NO_CHILD_LIST) == 0) list_ = &map.children_of(record);
  }
  [[nodiscard]] uint32_t size() const { return list_ == nullptr ? 0 : list_->next_index; }
  [[nodiscard]] uint32_t operator[](uint32_t slot) const {
    return ImageView::child_at(*list_, slot);
  }

 private:
  const child_list_s* list_ = nullptr;
};

// An entry of an access list.
struct Entry {
  uint32_t type;  // IDTYPE_UID or IDTYPE_GID
  uint32_t id;
  uint32_t mask;
  bool operator==(const Entry&) const = default;
  [[nodiscard]] bool is_about_same(const Entry& other) const {
    return type == other.type && id == other.id;
  }
};

// The entries of the folder itself, users before groups, each by number. Of several entries for one
// user only one counts, by its place, so these keep their order.
void read_entries(const ImageView& map, uint32_t folder, std::vector<Entry>& entries);
[[nodiscard]] bool has_entries(const ImageView& map, uint32_t folder);

}  // namespace tavrix::mapdiff
