// SPDX-License-Identifier: LGPL-3.0-or-later
// The difference between two maps. Folders are offsets in the image of their side, so that a
// million of them need little memory; paths and entries are read when they are told.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "tools/mapcheck/progress.hpp"
#include "tools/mapdiff/folders.hpp"

namespace tavrix::mapdiff {

// A folder that only one of the maps has, and the folders below it.
struct Subtree {
  uint32_t folder = 0;
  uint32_t folders = 0;  // with itself, without those that moved
};

// A folder that went elsewhere with all that is below it.
struct Move {
  uint32_t old_folder = 0;
  uint32_t new_folder = 0;
  uint32_t folders = 0;  // with itself
};

// A folder of both maps whose own entries differ.
struct FolderPair {
  uint32_t old_folder = 0;
  uint32_t new_folder = 0;
};

struct Difference {
  std::vector<Subtree> removed, added;
  std::vector<Move> moved;
  std::vector<FolderPair> changed;
  [[nodiscard]] bool is_empty() const {
    return removed.empty() && added.empty() && moved.empty() && changed.empty();
  }
};

// Folders are the same when their paths are the same, byte for byte; of several with one name in a
// folder, the first is the first one's counterpart. The order of folders and of entries makes no
// difference, except among entries for one user or group. The images must be sound.
[[nodiscard]] Difference compare(const ImageView& old_map, const ImageView& new_map,
                                 const mapcheck::Progress& progress = {});

// The change of the entry of one user or group.
struct EntryChange {
  uint32_t type;  // IDTYPE_UID or IDTYPE_GID
  uint32_t id;
  std::optional<uint32_t> old_mask, new_mask;  // nothing: that side has no entry
};
[[nodiscard]] std::vector<EntryChange> changed_entries(const std::vector<Entry>& old_entries,
                                                       const std::vector<Entry>& new_entries);

}  // namespace tavrix::mapdiff
