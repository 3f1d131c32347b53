// SPDX-License-Identifier: LGPL-3.0-or-later
// Folders that went elsewhere.
#pragma once

#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// Finds folders of the removed subtrees among the added ones, and leaves of both lists what did not
// move, with the counts. A folder moved when another one has the same entries and the same folders
// below it, with theirs. Small folders are alike by chance, so less content needs more of a sign:
// the same name, or a place at the top of a subtree. An empty folder without entries moved only
// with both.
void find_moves(const ImageView& old_map, const ImageView& new_map, Difference& found);

}  // namespace tavrix::mapdiff
