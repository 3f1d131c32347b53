// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/chain.hpp"

#include <algorithm>

#include "mkperms_shm.h"
#include "perm_utils.h"
#include "permissions/map/image.hpp"
#include "tools/explain/excerpt.hpp"

namespace tavrix::explain {
namespace {

std::vector<std::string> components_of(const std::string& path) {
  std::vector<std::string> names;
  std::size_t at = 0;
  while ((at = path.find_first_not_of('/', at)) != std::string::npos) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    names.push_back(path.substr(at, end - at));
    at = end;
  }
  return names;
}

// Readers meet the entries in the reverse of their stored order.
std::vector<Entry> entries_of(const ImageView& view, const fs_elem_s& folder) {
  const beacl_s& acl = view.acl_of(folder);
  const auto* stored = reinterpret_cast<const beace_s*>(&acl + 1);
  std::vector<Entry> entries;
  for (uint32_t i = acl.num_aces; i > 0; --i) {
    const beace_s& ace = stored[i - 1];
    entries.push_back({{ace.idtype == IDTYPE_UID, ace.id}, ace.perm_mask});
  }
  return entries;
}

}  // namespace

Chain Chain::to(const void* map, uint32_t offset, const std::string& path) {
  Chain chain;
  chain.names_ = components_of(path);
  const ImageView view(map);
  while (true) {
    const fs_elem_s& folder = view.fselem(offset);
    chain.folders_.push_back(
        {std::string(ImageView::text_of(view.name_of(folder))), entries_of(view, folder)});
    if ((folder.flags & FSELEM_FLAG_ROOT) != 0) break;
    offset = folder.parent_offset;
  }
  std::reverse(chain.folders_.begin(), chain.folders_.end());
  return chain;
}

Chain Chain::to_team(std::vector<Entry> entries, bool is_inherited) {
  Chain chain;
  chain.names_ = {"Shared", "Team"};
  chain.folders_ = {{"/", {}}, {"Shared", {}}};
  if (!is_inherited) chain.folders_.push_back({"Team", {}});
  chain.folders_.back().entries = std::move(entries);
  return chain;
}

std::string Chain::path_of(std::size_t level) const {
  std::string path;
  for (std::size_t i = 1; i <= level; ++i) {
    path += (path.empty() ? "" : "/") + (i < folders_.size() ? folders_[i].name : names_.at(i - 1));
  }
  return path.empty() ? "/" : path;
}

std::size_t Chain::holder_of(std::size_t level) const {
  level = std::min(level, folders_.size() - 1);
  while (level > 0 && folders_[level].entries.empty()) --level;
  return level;
}

std::vector<Entry> Chain::entries_at(std::size_t level) const {
  return level < folders_.size() ? folders_[level].entries : std::vector<Entry>{};
}

void Chain::give(std::size_t level, const Trustee& trustee, uint32_t rights) {
  const std::vector<Entry> governing = folders_[holder_of(level)].entries;
  while (folders_.size() <= level) folders_.push_back({names_.at(folders_.size() - 1), {}});
  std::vector<Entry>& entries = folders_[level].entries;
  if (entries.empty()) entries = governing;
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&](const Entry& entry) { return entry.trustee == trustee; });
  if (found != entries.end()) {
    found->mask |= rights;
  } else {
    entries.push_back({trustee, rights});
  }
}

void Chain::remove(std::size_t level, std::size_t index) {
  auto& entries = folders_.at(level).entries;
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(index));
}

std::vector<std::byte> Chain::image() const {
  Excerpt excerpt(folders_.front().entries);
  for (uint32_t level = 1; level < folders_.size(); ++level) {
    excerpt.add(level - 1, folders_[level].name, folders_[level].entries);
  }
  return excerpt.image();
}

}  // namespace tavrix::explain
