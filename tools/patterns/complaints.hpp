// SPDX-License-Identifier: LGPL-3.0-or-later
// Complaints about the pattern file that the settings name.
#pragma once

#include <string>
#include <vector>

#include "eventstore.h"

namespace tavrix::patterns {

// Returns one line for each finding, and a last line if the server uses none of the patterns. Empty
// when the settings name no pattern file or do not use it.
std::vector<std::string> complaints(const global_param_s* settings);

}  // namespace tavrix::patterns
