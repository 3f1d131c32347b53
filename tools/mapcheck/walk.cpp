// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/walk.hpp"

#include <fmt/format.h>
#include <optional>
#include <utility>

#include "permissions/map/name_equality.hpp"
#include "permissions/map/path_elements.hpp"

namespace tavrix::mapcheck {
namespace {

// Ends the walk at the first error. Warnings are for verify().
void refuse(Severity severity, uint64_t at, const std::string& text) {
  if (severity == Severity::kError) throw Broken(fmt::format("byte {}: {}", at, text));
}

// The checks throw before they answer with nothing.
template <typename Value>
Value sound(std::optional<Value> value) {
  if (!value) throw Broken("a record cannot be read");
  return *std::move(value);
}

PathComponent component_of(std::string_view name) {
  return {name.data(), static_cast<uint32_t>(name.size()), hash_name(name)};
}

}  // namespace

Walk::Walk(std::span<const std::byte> image) : records_(image, refuse) {
  if (!records_.open()) throw Broken("the header cannot be read");
}

Walk::Folder Walk::numbered(uint64_t number) const {
  const uint64_t offset = number * Records::kFolder;
  return {static_cast<uint32_t>(offset), sound(records_.folder(offset))};
}

Walk::Folder Walk::parent_of(const Folder& folder) const {
  // The check of a folder says that its parent is a folder before it.
  return numbered(folder.record.parent_offset / Records::kFolder);
}

std::string_view Walk::name_of(const Folder& folder) const {
  return sound(records_.name(folder.record, folder.offset)).text;
}

std::string_view Walk::name_to_scan(const Folder& folder) const {
  return sound(records_.name_record(folder.record, place_of(folder))).text;
}

std::string Walk::path_of(Folder folder) const {
  std::vector<std::string_view> names;
  for (; folder.offset != 0; folder = parent_of(folder)) names.push_back(name_of(folder));
  if (names.empty()) return "/";
  std::string path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    path += '/';
    path += *name;
  }
  return path;
}

Records::Entries Walk::entries_of(const Folder& folder) const {
  return sound(records_.entries(folder.record, place_of(folder)));
}

Walk::Children Walk::children_of(const Folder& folder) const {
  return sound(records_.children(folder.record, place_of(folder)));
}

Walk::Folder Walk::child(const Folder& folder, const Children& children, uint32_t slot) const {
  const uint32_t offset = children[slot];
  static_cast<void>(sound(records_.child(offset, folder.offset, place_of(folder))));
  return {offset, sound(records_.folder(offset))};
}

Walk::Found Walk::find(std::string_view path) const {
  Found found{root(), true};
  static_cast<void>(name_of(found.folder));
  PathCursor cursor(path);
  std::string_view name;
  while (found.exact && cursor.next(name)) {
    const PathComponent wanted = component_of(name);
    const Children children = children_of(found.folder);
    found.exact = false;
    for (uint32_t slot = 0; slot < children.size && !found.exact; ++slot) {
      const Folder next = child(found.folder, children, slot);
      const auto known = sound(records_.name_record(next.record, place_of(next)));
      if (known.hash != wanted.hash || known.text.size() != wanted.len) continue;
      // The text is checked before the library compares it.
      if (!names_equal(name_of(next).data(), wanted, 0)) continue;
      found = {next, true};
    }
  }
  return found;
}

Walk::Folder Walk::source_of(Folder folder) const {
  while (folder.offset != 0 && entries_of(folder).size == 0) folder = parent_of(folder);
  static_cast<void>(entries_of(folder));
  return folder;
}

void Walk::vouch_for(Folder folder) const {
  for (; folder.offset != 0; folder = parent_of(folder)) vouch_for_next(folder);
  vouch_for_next(folder);
}

void Walk::vouch_for_next(const Folder& folder) const {
  static_cast<void>(entries_of(folder));
  static_cast<void>(name_of(folder));
  const Children children = children_of(folder);
  for (uint32_t slot = 0; slot < children.size; ++slot) {
    static_cast<void>(name_of(child(folder, children, slot)));
  }
}

}  // namespace tavrix::mapcheck
