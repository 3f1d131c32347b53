// SPDX-License-Identifier: LGPL-3.0-or-later
// The folders from which on the entries that govern paths may differ.
#pragma once

#include <string>
#include <vector>

#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// Paths relative to the share, sorted, each once. Rights differ at most at one of them, and at what
// inherits from it. A folder without entries that came or went changes nothing by itself.
[[nodiscard]] std::vector<std::string> places_of(const ImageView& old_map, const ImageView& new_map,
                                                 const Difference& difference);

}  // namespace tavrix::mapdiff
