// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/marks.hpp"

namespace tavrix::mapdiff {

Marks::Marks(const ImageView& map)
    : map_(map), is_marked_(map.header().total_fselems), is_on_way_(map.header().total_fselems) {}

void Marks::add(uint32_t folder) {
  is_marked_[index_of(folder)] = true;
  while (!is_on_way_[index_of(folder)]) {
    is_on_way_[index_of(folder)] = true;
    const fs_elem_s& record = map_.fselem(folder);
    if ((record.flags & FSELEM_FLAG_ROOT) != 0) return;
    folder = record.parent_offset;
  }
}

void Marks::add_those_with_entries(uint32_t top) {
  std::vector<uint32_t> to_come{top};
  while (!to_come.empty()) {
    const uint32_t folder = to_come.back();
    to_come.pop_back();
    if (has_entries(map_, folder)) add(folder);
    const Children children(map_, folder);
    for (uint32_t slot = 0; slot < children.size(); ++slot) to_come.push_back(children[slot]);
  }
}

}  // namespace tavrix::mapdiff
