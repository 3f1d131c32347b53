// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/chain.hpp"

#include <algorithm>
#include <cstring>

#include "mkperms_shm.h"
#include "perm_utils.h"
#include "permissions/map/image.hpp"

namespace tavrix::explain {
namespace {

using Bytes = std::vector<std::byte>;

template <typename Record>
uint32_t append(Bytes& region, const Record& record) {
  const auto at = static_cast<uint32_t>(region.size());
  const auto* bytes = reinterpret_cast<const std::byte*>(&record);
  region.insert(region.end(), bytes, bytes + sizeof record);
  return at;
}

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

uint32_t append_name(Bytes& names, const std::string& name) {
  const auto length = static_cast<uint16_t>(name.size());
  const uint32_t at = append(
      names, name_elem_s{length, 0, NAMESIG, process_namecomponent_4hash(name.data(), length)});
  const auto* text = reinterpret_cast<const std::byte*>(name.c_str());
  names.insert(names.end(), text, text + name.size() + 1);
  return at;
}

uint32_t append_acl(Bytes& acls, const std::vector<Entry>& entries) {
  const uint32_t at = append(acls, beacl_s{ACLSIG, static_cast<uint32_t>(entries.size())});
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    append(acls, beace_s{static_cast<uint32_t>(entry->trustee.is_user ? IDTYPE_UID : IDTYPE_GID),
                         entry->trustee.id, static_cast<uint16_t>(entry->mask), 0});
  }
  return at;
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

Bytes Chain::image() const {
  Bytes folders, names, acls, lists;
  const auto count = static_cast<uint32_t>(folders_.size());
  for (uint32_t level = 0; level < count; ++level) {
    const Folder& folder = folders_[level];
    const bool is_leaf = level + 1 == count;
    const uint32_t children = is_leaf ? 0 : 1;
    const uint32_t list = append(lists, child_list_s{LISTSIG, children, children});
    const auto next = static_cast<uint32_t>((level + 1) * sizeof(fs_elem_s));
    if (!is_leaf) append(lists, next);
    const auto own = static_cast<uint32_t>(level * sizeof(fs_elem_s));
    append(folders,
           fs_elem_s{
               FSELEMSIG,
               level == 0 ? FSELEM_ROOT_OFFSET2 : static_cast<uint32_t>(own - sizeof(fs_elem_s)),
               append_name(names, folder.name), list, append_acl(acls, folder.entries),
               (level == 0 ? FSELEM_FLAG_ROOT : 0U) | (is_leaf ? FSELEM_FLAG_NO_CHILD_LIST : 0U)});
  }
  tavrix_be_header header{};
  header.signature = TAVRIX_BE_HEADER_SIGNATURE;
  header.total_fselems = count;
  header.fselem_offset = sizeof header;
  header.nameelem_offset = static_cast<uint32_t>(sizeof header + folders.size());
  header.acl_offset = static_cast<uint32_t>(header.nameelem_offset + names.size());
  header.list_offset = static_cast<uint32_t>(header.acl_offset + acls.size());
  Bytes image;
  append(image, header);
  for (const Bytes* region : {&folders, &names, &acls, &lists}) {
    image.insert(image.end(), region->begin(), region->end());
  }
  return image;
}

}  // namespace tavrix::explain
