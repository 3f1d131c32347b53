// SPDX-License-Identifier: LGPL-3.0-or-later
// Who gains and who loses between two maps, for people and for programs. Printed while it is found
// out: all of it may need many times the memory of the maps.
#pragma once

#include "tools/mapdiff/rights.hpp"

namespace tavrix::ctl {

using mapdiff::RightsSource;

// Both return true if somebody gains or loses.
bool print_rights(const RightsSource& source);
// The items of the list of a document, each on a line of its own.
bool print_rights_items(const RightsSource& source);

}  // namespace tavrix::ctl
