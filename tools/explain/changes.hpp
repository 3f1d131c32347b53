// SPDX-License-Identifier: LGPL-3.0-or-later
// The least change of the map that would turn a verdict. Each change that is considered is made in
// an image, and the decision is asked about it; no rule is known here.
#pragma once

#include <string>
#include <vector>

#include "tools/explain/witness.hpp"

namespace tavrix::explain {

// Rights for one trustee on one folder, as Chain::give() gives them.
struct Gift {
  std::string folder;
  Trustee trustee;
  uint32_t rights = 0;
  bool operator==(const Gift&) const = default;
};

// An entry to take out of a folder.
struct Removal {
  std::string folder;
  Entry entry;
};

// Who may get rights: the caller alone, or its groups with an entry on the way too.
enum class Receivers { kCaller, kCallerAndGroups };

// The fewest rights that would grant a refused question; empty when no right in the map would.
[[nodiscard]] std::vector<Gift> would_grant(const Question& question, const Answer& answer,
                                            Receivers receivers);

// The fewest entries whose removal would refuse a granted question; empty when that is in no
// removal's power.
[[nodiscard]] std::vector<Removal> would_refuse(const Question& question, const Answer& answer);

}  // namespace tavrix::explain
