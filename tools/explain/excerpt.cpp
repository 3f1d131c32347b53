// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/excerpt.hpp"

#include <utility>

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

uint32_t append_list(Bytes& lists, const std::vector<uint32_t>& children) {
  const auto count = static_cast<uint32_t>(children.size());
  const uint32_t at = append(lists, child_list_s{LISTSIG, count, count});
  for (const uint32_t child : children) {
    append(lists, static_cast<uint32_t>(child * sizeof(fs_elem_s)));
  }
  return at;
}

}  // namespace

Excerpt::Excerpt(std::vector<Entry> root_entries) {
  folders_.push_back({0, "/", std::move(root_entries), {}});
}

uint32_t Excerpt::add(uint32_t parent, std::string name, std::vector<Entry> entries) {
  const auto number = static_cast<uint32_t>(folders_.size());
  folders_.at(parent).children.push_back(number);
  folders_.push_back({parent, std::move(name), std::move(entries), {}});
  return number;
}

Bytes Excerpt::image() const {
  Bytes folders, names, acls, lists;
  for (const Folder& folder : folders_) {
    const bool is_root = folders.empty();
    const auto parent = static_cast<uint32_t>(folder.parent * sizeof(fs_elem_s));
    append(folders, fs_elem_s{FSELEMSIG, is_root ? FSELEM_ROOT_OFFSET2 : parent,
                              append_name(names, folder.name), append_list(lists, folder.children),
                              append_acl(acls, folder.entries),
                              (is_root ? FSELEM_FLAG_ROOT : 0U) |
                                  (folder.children.empty() ? FSELEM_FLAG_NO_CHILD_LIST : 0U)});
  }
  tavrix_be_header header{};
  header.signature = TAVRIX_BE_HEADER_SIGNATURE;
  header.total_fselems = static_cast<uint32_t>(folders_.size());
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
