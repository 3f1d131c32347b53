// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/folders.hpp"

#include <algorithm>
#include <tuple>

namespace tavrix::mapdiff {

std::string path_of(const ImageView& map, uint32_t folder) {
  std::vector<std::string_view> names;
  std::size_t length = 0;
  while ((map.fselem(folder).flags & FSELEM_FLAG_ROOT) == 0) {
    names.push_back(name_of(map, folder));
    length += names.back().size() + 1;
    folder = map.fselem(folder).parent_offset;
  }
  if (names.empty()) return "/";
  std::string path;
  path.reserve(length);
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    if (!path.empty()) path += '/';
    path += *name;
  }
  return path;
}

void read_entries(const ImageView& map, uint32_t folder, std::vector<Entry>& entries) {
  entries.clear();
  const beacl_s& acl = map.acl_of(map.fselem(folder));
  const auto* stored = reinterpret_cast<const beace_s*>(&acl + 1);
  for (uint32_t i = 0; i < acl.num_aces; ++i) {
    entries.push_back({stored[i].idtype, stored[i].id, stored[i].perm_mask});
  }
  const auto key = [](const Entry& entry) { return std::tuple(entry.type, entry.id); };
  const auto by_trustee = [&key](const Entry& a, const Entry& b) { return key(a) < key(b); };
  if (!std::is_sorted(entries.begin(), entries.end(), by_trustee)) {
    std::stable_sort(entries.begin(), entries.end(), by_trustee);
  }
}

bool has_entries(const ImageView& map, uint32_t folder) {
  return map.acl_of(map.fselem(folder)).num_aces != 0;
}

}  // namespace tavrix::mapdiff
