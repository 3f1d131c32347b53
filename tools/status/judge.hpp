// SPDX-License-Identifier: LGPL-3.0-or-later
// Judges the facts: is it well, and if not, what is to be done.
#pragma once

#include <string>
#include <vector>

#include "tools/status/facts.hpp"

namespace tavrix::status {

// The values are the exit codes, as monitoring programs know them.
enum class Level { kWell = 0, kWarning = 1, kCritical = 2 };
const char* name_of(Level level);  // "well", "warning", "critical"

// Something that is not well.
struct Finding {
  Level level;
  std::string id;  // stable, such as "map-refused"
  std::string sentence;
  std::string advice;
};

// The worst first.
std::vector<Finding> judge(const Facts& facts);
Level worst(const std::vector<Finding>& findings);

}  // namespace tavrix::status
