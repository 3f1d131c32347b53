// SPDX-License-Identifier: LGPL-3.0-or-later
// Complaints about the pattern file that the settings name.
#pragma once

#include <string>
#include <vector>

#include "eventstore.h"

namespace tavrix::patterns {

// A line each, and at the end that the server uses none of them, where that is so. Empty when the
// settings use no patterns.
std::vector<std::string> complaints(const global_param_s* settings);

}  // namespace tavrix::patterns
