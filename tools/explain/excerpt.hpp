// SPDX-License-Identifier: LGPL-3.0-or-later
// A few folders of a map as an image: the real lookup and the real decision answer about them as
// about the whole map, without a look at the others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/explain/facts.hpp"

namespace tavrix::explain {

class Excerpt {
 public:
  // The entries of each folder are in the order in which a reader meets them.
  explicit Excerpt(std::vector<Entry> root_entries);
  // Adds a folder behind those that are in its parent already. Returns its number; the root is 0.
  uint32_t add(uint32_t parent, std::string name, std::vector<Entry> entries);

  [[nodiscard]] std::vector<std::byte> image() const;

 private:
  struct Folder {
    uint32_t parent;
    std::string name;
    std::vector<Entry> entries;
    std::vector<uint32_t> children;
  };
  std::vector<Folder> folders_;
};

}  // namespace tavrix::explain
