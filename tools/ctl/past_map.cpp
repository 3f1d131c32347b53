// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/past_map.hpp"

#include <cstring>

#include "tools/ctl/map_operand.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::ctl {
namespace {

constexpr int64_t kMicroseconds = 1'000'000;

// The end of the second: times are shown in whole seconds, and a map is in force at the time that
// is shown for its beginning.
std::optional<int64_t> time_in(const std::string& text) {
  const int64_t now = text::now_in_microseconds();
  const auto moment = text::moment_of(text, now);
  if (!moment) {
    complain("\"{}\" is no time; write one {}", text, text::kMomentForms);
    return std::nullopt;
  }
  if (moment->first > now) {
    complain("{} is still to come", text::local_time(moment->first));
    return std::nullopt;
  }
  return moment->first - moment->first % kMicroseconds + kMicroseconds - 1;
}

// The map in force now may be none that is kept: then nobody knows since when it is.
void warn_of_gap(const std::vector<mapkeep::KeptMap>& maps) {
  const auto mark = mapload::read_mark();
  if (mark && mark->digest == maps.back().image.digest) return;
  warn("the map in force now is not kept, and may have been in force then already");
}

}  // namespace

std::string PastMap::text() const {
  return fmt::format("by map {}, in force from {}{}, with {}", map.number,
                     text::local_time(map.since),
                     until ? " until " + text::local_time(*until) : " on",
                     map.has_groups ? "the groups of then"
                                    : "the groups of now, because those of then are not kept");
}

void PastMap::add_to(Json& document) const {
  Json at;
  at["map"] = map.number;
  json::set_time(at, "since", map.since / kMicroseconds);
  if (until) json::set_time(at, "until", *until / kMicroseconds);
  at["groups_of_then"] = map.has_groups;
  document["at"] = std::move(at);
}

CLI::Option* add_at_option(CLI::App& command, std::string& time) {
  return command
      .add_option("--at", time,
                  "by the kept map that was in force at a time, such as \"2026-11-20 14:00\", "
                  "\"yesterday 14:00\" or -2h")
      ->type_name("TIME");
}

std::optional<PastMap> map_at(const std::string& time) {
  const auto asked = time_in(time);
  if (!asked) return std::nullopt;
  const auto maps = mapkeep::kept_maps();
  if (maps.empty()) {
    complain("no map is kept; \"tavrixctl map history\" lists those that are");
    return std::nullopt;
  }
  const auto place = mapkeep::in_force_at(maps, *asked);
  if (!place) {
    complain("the oldest kept map came into force at {}; nobody knows the map of {}",
             text::local_time(maps.front().since), text::local_time(*asked));
    return std::nullopt;
  }
  const mapkeep::KeptMap& map = maps[*place];
  const bool is_newest = *place + 1 == maps.size();
  if (is_newest) warn_of_gap(maps);
  auto image = image_of(map);
  if (!image) return std::nullopt;
  auto groups = map.has_groups ? explain::groups_in(map.groups_path()) : explain::current_groups();
  std::optional<int64_t> until;
  if (!is_newest) until = maps[*place + 1].since;
  return PastMap{map, until, std::move(*image), std::move(groups)};
}

}  // namespace tavrix::ctl
