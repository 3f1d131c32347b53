// SPDX-License-Identifier: LGPL-3.0-or-later
// Keeps the maps that become current, holds back those past the limits, and watches what operators
// do with both.
#pragma once

#include <sys/stat.h>
#include <chrono>
#include <optional>
#include <string>

#include "tools/mapkeep/kept.hpp"
#include "tools/mapkeep/settings.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::loader {

class Keeper {
 public:
  explicit Keeper(std::string settings_file) : file_(std::move(settings_file)) { read(); }

  // Reads the settings, and says what is wrong with them. A mistake never ends the service.
  void read();
  [[nodiscard]] const mapkeep::Limits& limits() const { return limits_; }

  // The following two are called under the lock of the maps.

  // Keeps the current map if nobody has done so yet.
  void keep(const char* how);
  // A later map is current: one that is held is of no use any more.
  void drop_held();

  // Looks at the folder of kept maps when it has changed: says which map an operator has made
  // current, and puts a held map into the status. Tries again to keep a map.
  void look();

 private:
  using Clock = std::chrono::steady_clock;
  void tell_others_map();
  static void show_held();

  std::string file_;
  unsigned most_ = 0;
  mapkeep::Limits limits_;
  bool is_behind_ = false;  // the current map could not be kept
  Clock::time_point tried_{};
  std::optional<timespec> changed_;  // the folder, at the last look
  std::optional<uint32_t> newest_;   // the number that was seen last
};

}  // namespace tavrix::loader
