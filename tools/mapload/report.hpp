// SPDX-License-Identifier: LGPL-3.0-or-later
// Messages about the loading of maps. The calling program prints them, to the journal or a
// terminal.
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
