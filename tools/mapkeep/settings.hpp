// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings of kept and held maps.
#pragma once

#include "tools/settings/service_settings.hpp"

namespace tavrix::mapkeep {

// The shares, in per cent, past which a map is held; a hundred holds nothing.
struct Limits {
  unsigned removed_folders = 100;
  unsigned changed_users = 100;
  [[nodiscard]] bool hold_something() const { return removed_folders < 100 || changed_users < 100; }
};

inline unsigned most_kept(const settings::ServiceSettings& settings) {
  return static_cast<unsigned>(settings.number("LOADER:kept maps"));
}

inline Limits limits_in(const settings::ServiceSettings& settings) {
  return {static_cast<unsigned>(settings.number("LOADER:hold removed folders pct")),
          static_cast<unsigned>(settings.number("LOADER:hold changed users pct"))};
}

}  // namespace tavrix::mapkeep
