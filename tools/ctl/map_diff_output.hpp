// SPDX-License-Identifier: LGPL-3.0-or-later
// The difference of two maps for people and for programs.
#pragma once

#include "tools/ctl/map_rights_output.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/mapdiff/difference.hpp"

namespace tavrix::ctl {

// The two maps that were compared.
struct Compared {
  const Image& old_image;
  const Image& new_image;
  ImageView old_map, new_map;
};

void print_difference(const Compared& maps, const mapdiff::Difference& difference);
// `rights` is null when nobody asked for the changes of rights. Printed piece by piece: a document
// of a million folders would need many times the memory of the images. Returns true if somebody
// gains or loses.
bool print_difference_json(const Compared& maps, const mapdiff::Difference& difference,
                           const RightsSource* rights);

}  // namespace tavrix::ctl
