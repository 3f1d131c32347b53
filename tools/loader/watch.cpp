// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/watch.hpp"

#include "tools/mapload/load.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::loader {
namespace {

// A recovery that could not help is repeated when something changes, or else after this time.
constexpr std::chrono::seconds kPatience{30};

}  // namespace

bool Watch::State::operator==(const State& other) const {
  return tables == other.tables && device == other.device && inode == other.inode &&
         size == other.size && changed.tv_sec == other.changed.tv_sec &&
         changed.tv_nsec == other.changed.tv_nsec;
}

Watch::State Watch::state_now() {
  State state;
  state.tables = mapload::look_at_tables();
  struct stat copy {};
  if (stat(mapload::kLocalCopy, &copy) != 0) return state;
  state.device = copy.st_dev;
  state.inode = copy.st_ino;
  state.size = copy.st_size;
  state.changed = copy.st_mtim;
  return state;
}

bool Watch::is_due(const State& now) const {
  if (well_ && *well_ == now) return false;
  if (!beyond_ || !(*beyond_ == now)) return true;
  return std::chrono::steady_clock::now() - tried_ > kPatience;
}

std::optional<mapload::Recovery> Watch::look() {
  const State now = state_now();
  const bool is_well = mapload::is_well();
  if (!is_well) well_.reset();
  if (!is_due(now)) return std::nullopt;
  const Fd lock = mapload::try_lock_maps();
  if (!lock) return std::nullopt;  // somebody imports a map; the next look tries again
  mapload::Recovery recovery = mapload::recover(mapload::Restore::kYes);
  const State then = state_now();
  if (recovery.good) {
    well_ = then;
    beyond_.reset();
  } else if (!recovery.try_again) {
    beyond_ = then;
  }
  tried_ = std::chrono::steady_clock::now();
  if (recovery.report.empty()) return std::nullopt;
  return recovery;
}

}  // namespace tavrix::loader
