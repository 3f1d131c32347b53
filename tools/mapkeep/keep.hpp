// SPDX-License-Identifier: LGPL-3.0-or-later
// Keeps the map in force, and lets the oldest go. Call these under the lock of the maps.
//
// A failure never undoes or delays a publication: it goes into the report. A death on the way
// leaves names without facts, which the next call removes before it keeps the map that is in force
// then.
#pragma once

#include "tools/mapkeep/kept.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::mapkeep {

// Keeps the published map, unless it is the newest that is kept, and at most `most` in all. Returns
// false when it could not be kept; another call tries again.
bool keep_current(unsigned most, const Origin& origin, mapload::Report& report);

// Gives the room of the oldest kept map back, because a new map needs it. Returns false when there
// is none, or only the one that shares its room with the local copy.
bool give_way(mapload::Report& report);

}  // namespace tavrix::mapkeep
