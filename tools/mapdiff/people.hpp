// SPDX-License-Identifier: LGPL-3.0-or-later
// The users of the group list map as a crowd, and how many of them a change concerns.
#pragma once

#include <cstddef>

#include "tools/mapdiff/crowd.hpp"
#include "tools/mapdiff/rights.hpp"

namespace tavrix::mapdiff {

struct People {
  Crowd crowd;
  std::size_t users = 0;            // in the crowd
  std::size_t without_account = 0;  // of the group list map: left out
};
// Every user of the group list map who has an account. Tells the decision which groups are the
// administrators' and the power users'.
[[nodiscard]] People everybody(const explain::Groups& groups);
// A crowd of one, likewise.
[[nodiscard]] Crowd only(const explain::Person& person, const explain::Groups& groups);

// The number of people of the crowd who gain or lose a right anywhere.
[[nodiscard]] std::size_t count_touched(const RightsSource& changes, const Crowd& crowd);

}  // namespace tavrix::mapdiff
