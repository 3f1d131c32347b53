// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/records.hpp"

#include <fmt/format.h>
#include <cstring>
#include <utility>

#include "perm_utils.h"
#include "tools/text/counted.hpp"

namespace tavrix::mapcheck {
namespace {

std::string printable(std::string_view text) {
  std::string result(text.substr(0, 100));
  for (char& c : result) {
    if (static_cast<unsigned char>(c) < 0x20) c = '?';
  }
  return result;
}

}  // namespace

// A copy of a record, or nothing when it does not lie in the used part of its region.
template <typename Record>
std::optional<Record> Records::read(const Region& region, uint64_t offset) const {
  if (offset + sizeof(Record) > region.used) return std::nullopt;
  Record record;
  std::memcpy(&record, bytes(region, offset), sizeof record);
  return record;
}

bool Records::open() { return open_header() && open_regions(); }

bool Records::open_header() {
  if (image_.size() < sizeof header_) {
    return error(0, fmt::format("{} {} no header", text::counted(image_.size(), "byte"),
                                text::verb(image_.size(), "holds", "hold")));
  }
  std::memcpy(&header_, image_.data(), sizeof header_);
  if (header_.signature != TAVRIX_BE_HEADER_SIGNATURE) {
    return error(172,
                 fmt::format("the header's signature is 0x{:08x}", uint32_t{header_.signature}));
  }
  if (std::memchr(header_.mapname, 0, sizeof header_.mapname) == nullptr) {
    error(0, "the map's name has no NUL at its end");
  }
  return true;
}

bool Records::open_regions() {
  folders_ = {"folders", header_.fselem_offset, header_.fselem_size, header_.next_free_fselem};
  names_ = {"names", header_.nameelem_offset, header_.nameelem_size, header_.next_free_nameelem};
  acls_ = {"ACLs", header_.acl_offset, header_.acl_size, header_.next_free_acl};
  lists_ = {"child lists", header_.list_offset, header_.list_size, header_.next_free_list};
  uint64_t end = sizeof header_;
  bool good = true;
  for (const Region* region : {&folders_, &names_, &acls_, &lists_}) {
    if (region->start != end) {
      good = error(124,
                   fmt::format("the {} begin at {}, not at {}", region->name, region->start, end));
    }
    end = region->start + region->size;
    if (end > image_.size()) {
      good = error(124, fmt::format("the {} end at {}, beyond the image", region->name, end));
    }
    if (region->used > region->size) {
      good = error(124, fmt::format("the {} use {} of {}", region->name,
                                    text::counted(region->used, "byte"), region->size));
    }
  }
  if (folders_.used == 0 || folders_.used % kFolder != 0) {
    good = error(132, fmt::format("the folders use {}", text::counted(folders_.used, "byte")));
  }
  return good;
}

std::optional<fs_elem_s> Records::folder(uint64_t offset) const {
  const uint64_t at = place_of(offset);
  const auto folder = *read<fs_elem_s>(folders_, offset);
  if (folder.signature != FSELEMSIG) {
    error(at, fmt::format("a folder's signature is 0x{:08x}", uint32_t{folder.signature}));
    return std::nullopt;
  }
  check_parent(folder, offset);
  if (folder.flags > 3) warn(at, fmt::format("a folder's flags are {}", uint32_t{folder.flags}));
  return folder;
}

void Records::check_parent(const fs_elem_s& folder, uint64_t offset) const {
  const uint64_t at = place_of(offset);
  const bool is_marked = (folder.flags & FSELEM_FLAG_ROOT) != 0;
  if (offset == 0) {
    if (folder.parent_offset != FSELEM_ROOT_OFFSET2) error(at, "the root was never finished");
    if (!is_marked) error(at, "the first folder is not marked as the root");
    return;
  }
  if (is_marked) error(at, "a second folder is marked as the root");
  // The import makes a folder after its parent, so the parents of a sound image form no circle.
  if (folder.parent_offset >= offset || folder.parent_offset % kFolder != 0) {
    error(at, fmt::format("a folder's parent is at {}", uint32_t{folder.parent_offset}));
  }
}

std::optional<Records::Name> Records::name_record(const fs_elem_s& folder, uint64_t at) const {
  const auto name = read<name_elem_s>(names_, folder.name_elem_offset);
  if (!name || name->signature != NAMESIG) {
    error(at, fmt::format("no name at {}", uint32_t{folder.name_elem_offset}));
    return std::nullopt;
  }
  const uint64_t text_at = uint64_t{folder.name_elem_offset} + sizeof(name_elem_s);
  const uint16_t length = name->name_len;
  if (text_at + length + 1 > names_.used) {
    error(at, fmt::format("a name of {} ends beyond the names", text::counted(length, "byte")));
    return std::nullopt;
  }
  return Name{name->hashval, {reinterpret_cast<const char*>(bytes(names_, text_at)), length}};
}

std::optional<Records::Name> Records::name(const fs_elem_s& folder, uint64_t offset) const {
  const uint64_t at = place_of(offset);
  const auto name = name_record(folder, at);
  if (!name) return std::nullopt;
  const std::string_view text = name->text;
  if (text.data()[text.size()] != '\0') error(at, "a name has no NUL at its end");
  if (text.empty()) error(at, "an empty name");
  if (name->hash != process_namecomponent_4hash(text.data(), static_cast<uint32_t>(text.size()))) {
    error(at, fmt::format("the hash of the name \"{}\" is wrong", printable(text)));
  }
  if (offset == 0 ? text != "/" : text.find('/') != std::string_view::npos) {
    error(at, fmt::format("a folder is named \"{}\"", printable(text)));
  }
  if (text.find('\0') != std::string_view::npos) error(at, "a name holds a NUL");
  return name;
}

std::optional<Records::Entries> Records::entries(const fs_elem_s& folder, uint64_t at) const {
  const auto acl = read<beacl_s>(acls_, folder.acl_offset);
  if (!acl || acl->signature != ACLSIG) {
    error(at, fmt::format("no ACL at {}", uint32_t{folder.acl_offset}));
    return std::nullopt;
  }
  const uint64_t first = uint64_t{folder.acl_offset} + sizeof(beacl_s);
  if (first + uint64_t{acl->num_aces} * sizeof(beace_s) > acls_.used) {
    error(at, fmt::format("an ACL of {} ends beyond the ACLs",
                          text::counted(uint32_t{acl->num_aces}, "entry")));
    return std::nullopt;
  }
  const Entries entries{bytes(acls_, first), acl->num_aces};
  for (uint32_t index = 0; index < entries.size; ++index) {
    const beace_s ace = entries[index];
    if (ace.idtype != IDTYPE_UID && ace.idtype != IDTYPE_GID) {
      error(at, fmt::format("an entry of type {}", uint32_t{ace.idtype}));
    }
    if (ace.perm_mask > 31) warn(at, fmt::format("an entry's mask is {}", uint16_t{ace.perm_mask}));
  }
  return entries;
}

beace_s Records::Entries::operator[](uint32_t index) const {
  beace_s ace;
  std::memcpy(&ace, stored + std::size_t{index} * sizeof ace, sizeof ace);
  return ace;
}

std::optional<Records::Children> Records::children(const fs_elem_s& folder, uint64_t at) const {
  const auto list = read<child_list_s>(lists_, folder.clist_offset);
  // A leaf has the offset 0, which is the first list; readers check that list's signature too.
  if (!list || list->signature != LISTSIG) {
    error(at, fmt::format("no child list at {}", uint32_t{folder.clist_offset}));
    return std::nullopt;
  }
  if ((folder.flags & FSELEM_FLAG_NO_CHILD_LIST) != 0) return Children{};
  const uint64_t first = uint64_t{folder.clist_offset} + sizeof(child_list_s);
  if (first + uint64_t{list->num_children} * sizeof(uint32_t) > lists_.used) {
    error(at, fmt::format("a list of {} ends beyond the child lists",
                          text::counted(uint32_t{list->num_children}, "child")));
    return std::nullopt;
  }
  if (list->next_index != list->num_children) {
    error(at, fmt::format("a list has {} of {}", uint32_t{list->next_index},
                          text::counted(uint32_t{list->num_children}, "child")));
  }
  return Children{bytes(lists_, first), list->num_children};
}

uint32_t Records::Children::operator[](uint32_t slot) const {
  uint32_t offset = 0;
  std::memcpy(&offset, stored + std::size_t{slot} * sizeof offset, sizeof offset);
  return offset;
}

std::optional<fs_elem_s> Records::child(uint32_t offset, uint64_t parent, uint64_t at) const {
  const auto child = offset % kFolder == 0 ? read<fs_elem_s>(folders_, offset) : std::nullopt;
  if (!child || offset == 0) {
    error(at, fmt::format("no child at {}", offset));
    return std::nullopt;
  }
  if (child->parent_offset != parent) {
    error(at, fmt::format("the child at {} has another parent", offset));
  }
  return child;
}

bool Records::error(uint64_t at, std::string text) const {
  tell_(Severity::kError, at, std::move(text));
  return false;
}

void Records::warn(uint64_t at, std::string text) const {
  tell_(Severity::kWarning, at, std::move(text));
}

}  // namespace tavrix::mapcheck
