// SPDX-License-Identifier: LGPL-3.0-or-later
// Folders that went elsewhere.
#pragma once

#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// Finds folders of the removed subtrees among the added ones, and leaves of both lists what did not
// move, with the counts. A folder moved when another one has the same entries and the same folders
// below it, with theirs. Folders without entries are alike too easily, so one is only taken for
// moved at the top of a subtree, and if it is empty, only under the same name.
void find_moves(const ImageView& old_map, const ImageView& new_map, Difference& found);

}  // namespace tavrix::mapdiff
