// SPDX-License-Identifier: LGPL-3.0-or-later
// The places of two maps from which on the entries that govern paths may differ.
#pragma once

#include <functional>
#include <string>

#include "tools/mapdiff/difference.hpp"

namespace tavrix::mapdiff {

// The folder of a map whose entries govern a path.
struct Governor {
  uint32_t holder = 0;
  bool is_own = false;  // the path is that folder; else it inherits
};

struct Place {
  std::string path;  // relative to the share
  Governor old_map, new_map;
};

// Visits Shared, if it is one, and what is below it, sorted, each path once. Rights differ at most
// at one of the places, and at what inherits from it. A lookup in either map says who governs; a
// folder that the map does not have has another one that stands in for it. The images must be
// sound.
void visit_places(const ImageView& old_map, const ImageView& new_map, const Difference& difference,
                  const std::function<void(const Place&)>& visit);

}  // namespace tavrix::mapdiff
