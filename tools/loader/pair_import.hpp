// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks a pair and makes it current, or says why not.
#pragma once

#include <functional>
#include <string>

#include "tools/loader/inbox.hpp"
#include "tools/mapload/load.hpp"

namespace tavrix::loader {

struct Outcome {
  mapload::Result result = mapload::Result::kRefused;
  std::string text;  // what was done, or why not
  mapload::Report report;
};

// Under the lock. A pair that does not pass harms nothing, and stays.
Outcome load_pair(const Pair& pair, const std::function<bool()>& should_stop);

}  // namespace tavrix::loader
