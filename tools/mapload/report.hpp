// SPDX-License-Identifier: LGPL-3.0-or-later
// Words of the loading of maps, for the journal or a terminal: the program says them.
#pragma once

#include <string>
#include <vector>

namespace tavrix::mapload {

enum class Weight { kInfo, kWarning, kError };

struct Said {
  Weight weight;
  std::string text;
};
using Report = std::vector<Said>;

}  // namespace tavrix::mapload
