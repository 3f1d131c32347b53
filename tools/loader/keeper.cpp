// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/keeper.hpp"

#include <fmt/format.h>

#include "tools/loader/words.hpp"
#include "tools/mapkeep/held.hpp"
#include "tools/mapkeep/keep.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::loader {
namespace {

constexpr std::chrono::seconds kPatience{30};

bool is_same(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

void Keeper::read() {
  const auto settings = settings::ServiceSettings::read(file_);
  for (const std::string& line : settings.warnings("LOADER")) service::say(Tone::kWarning, line);
  most_ = mapkeep::most_kept(settings);
  limits_ = mapkeep::limits_in(settings);
}

void Keeper::keep(const char* how) {
  if (newest_) tell_others_map();
  mapload::Report report;
  is_behind_ = !mapkeep::keep_current(most_, {how, "", {}}, report);
  tried_ = Clock::now();
  tell(report);
  const auto maps = mapkeep::kept_maps();
  newest_ = maps.empty() ? 0 : maps.back().number;
}

void Keeper::drop_held() {
  if (mapkeep::drop_held()) {
    tell(Tone::kWarning, "the held map is removed: a later one is in force");
  }
}

void Keeper::look() {
  if (is_behind_ && Clock::now() - tried_ > kPatience) {
    if (const Fd lock = mapload::try_lock_maps()) keep(mapkeep::kFound);
  }
  struct stat folder {};
  const bool is_there = stat(mapload::kKeptFolder, &folder) == 0;
  const timespec changed = is_there ? folder.st_mtim : timespec{};
  if (changed_ && is_same(*changed_, changed)) return;
  changed_ = changed;
  tell_others_map();
  show_held();
}

void Keeper::tell_others_map() {
  const auto maps = mapkeep::kept_maps();
  if (maps.empty()) return;
  const mapkeep::KeptMap& newest = maps.back();
  if (newest_ && newest.number > *newest_ && newest.origin.how != mapkeep::kByLoader) {
    service::say(Tone::kInfo, fmt::format("map {} is in force: {}", newest.number,
                                          mapkeep::text_of(newest.origin)));
  }
  newest_ = newest.number;
}

void Keeper::show_held() {
  const auto held = mapkeep::held_map();
  set_standing_warning("held", held ? "; a map is held, see \"tavrixctl map history\"" : "");
}

}  // namespace tavrix::loader
