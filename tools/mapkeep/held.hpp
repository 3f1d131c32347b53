// SPDX-License-Identifier: LGPL-3.0-or-later
// A map that waits until an operator approves or rejects it. There is at most one.
//
//   /etc/tavrix/maps/held.map                     its image
//   /etc/tavrix/maps/held.txt, held.diff.json     what it would change, as "map diff" prints it
//   /etc/tavrix/maps/held.json                    its facts; without this file no map is held
#pragma once

#include "tools/mapkeep/kept.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::mapkeep {

// The changes that a map brings, compared with the map in force.
struct Counts {
  uint64_t folders = 0;  // of the map in force
  uint64_t removed = 0, added = 0, moved = 0, changed = 0;
  // Users who gain or lose a right, of those in the group list map; nothing when it cannot be read.
  std::optional<uint64_t> touched;
  uint64_t users = 0;
};
[[nodiscard]] json::Json json_of(const Counts& counts);
// Throws json::Json::exception when a key is missing.
[[nodiscard]] Counts counts_in(const json::Json& json);

struct HeldMap {
  int64_t since = 0;  // microseconds since 1970
  std::string reason;
  files::Digest base;            // of the map that it was compared with
  std::optional<Counts> counts;  // nothing: the comparison failed
  std::string pair;              // the folder with its two files
  ImageFacts image;

  static std::string image_path();
  static std::string text_path();
  static std::string diff_path();
  static std::string facts_path();
};
// A file of a map that is about to be held; it gets its own name when the map is stored.
[[nodiscard]] std::string staged(const std::string& path);

// Nothing when no map is held, or when its facts cannot be read.
[[nodiscard]] std::optional<HeldMap> held_map();
// A cheap look without the lock.
[[nodiscard]] bool is_map_held();

// The following are called under the lock of the maps.

// Stores the image and the facts, and gives the staged files of the difference their names. Returns
// false and sets errno when it fails; an earlier held map stays when there is no room for this one.
[[nodiscard]] bool hold(const HeldMap& map, std::span<const std::byte> image);
// Removes the held map and its pair. Returns false when there was none.
bool drop_held();
// Removes what a death left of a map that was about to be held.
void clear_held_leftovers();

}  // namespace tavrix::mapkeep
