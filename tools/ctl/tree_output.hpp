// SPDX-License-Identifier: LGPL-3.0-or-later
// A tree of folders as one JSON object, printed while it is walked: a map of a million folders is
// 190 MB of text, and as a document in memory more than a gigabyte.
#pragma once

#include <cstddef>
#include <vector>

#include "tools/json/document.hpp"

namespace tavrix::ctl {

// The text is laid out as that of any other document. Folders below the depth have no "children".
class TreeOutput {
 public:
  explicit TreeOutput(int depth) : depth_(depth) {}

  // The members of the next folder, the first child first. The top has the level 0, and the members
  // of the document before those of the folder.
  void add(json::Json members, int level);
  // The members of the document behind the tree; there is at least one.
  void end(const json::Json& members);

 private:
  void close_list();
  void close_down_to(std::size_t levels);

  int depth_;
  std::vector<bool> has_children_;  // of the folders that are open, by their level
};

}  // namespace tavrix::ctl
