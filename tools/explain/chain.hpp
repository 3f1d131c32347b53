// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders of a map on the way to one path, changed and made an image again: the real lookup and
// the real decision answer what would be if the map were another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/explain/facts.hpp"

namespace tavrix::explain {

class Chain {
 public:
  // From the root to the folder at `offset`, which stands for `path`.
  static Chain to(const void* map, uint32_t offset, const std::string& path);

  // To the folder "Shared/Team", whose entries these are; or to "Shared", whose entries
  // "Shared/Team" inherits. The entries are in the order in which a reader meets them.
  static Chain to_team(std::vector<Entry> entries, bool is_inherited);

  // Levels count from the root, which is 0. The path has folders_of_path() levels below it, of
  // which the map has the first folders() - 1.
  [[nodiscard]] std::size_t folders() const { return folders_.size(); }
  [[nodiscard]] std::size_t levels_of_path() const { return names_.size(); }
  // "Shared/Team" for level 2, "/" for the root.
  [[nodiscard]] std::string path_of(std::size_t level) const;
  // The folder whose entries govern the folder at a level.
  [[nodiscard]] std::size_t holder_of(std::size_t level) const;
  // The entries that stand at a folder, in the order in which a reader meets them.
  [[nodiscard]] std::vector<Entry> entries_at(std::size_t level) const;

  // Gives rights on a folder. A folder that the map lacks is added. A folder without entries of its
  // own first takes those that govern it, so that nobody loses a right. Then the first entry of the
  // trustee gets the rights, or a new one.
  void give(std::size_t level, const Trustee& trustee, uint32_t rights);
  // Removes the entry that a reader meets as number `index`. A folder without entries inherits.
  void remove(std::size_t level, std::size_t index);

  [[nodiscard]] std::vector<std::byte> image() const;

 private:
  struct Folder {
    std::string name;
    std::vector<Entry> entries;
  };
  std::vector<Folder> folders_;
  std::vector<std::string> names_;  // the components of the path
};

}  // namespace tavrix::explain
