// SPDX-License-Identifier: LGPL-3.0-or-later
// Holds a map back that changes more than the settings allow, before it is published.
//
// The comparison runs in a process of its own: it asks the decision, whose assertions end a
// process. A map that cannot be compared is held too, because a guard that fails must not let it
// through.
#pragma once

#include <functional>
#include <span>
#include <string>

#include "tools/explain/person.hpp"
#include "tools/mapkeep/held.hpp"
#include "tools/mapkeep/settings.hpp"
#include "tools/mapload/load.hpp"

namespace tavrix::mapkeep {

// The sentence why a map with these counts is held; empty when it is not.
[[nodiscard]] std::string excess(const Counts& counts, const Limits& limits);

// Two sound images, and the groups by which users have their rights.
struct Comparison {
  std::span<const std::byte> old_image, new_image;
  explain::Groups groups;
  std::optional<Limits> limits;  // past them the files of a held map's difference are written too
};
struct Failure {
  std::string why;
  bool may_pass = false;  // another attempt may succeed
};
// Nothing when the comparison ended before its answer.
[[nodiscard]] std::optional<Counts> compare(const Comparison& comparison,
                                            const std::function<bool()>& should_stop,
                                            Failure& failure);

// Asked about a finished image, under the lock of the maps. A map that is past the limits is stored
// as held, with `pair` as the folder where its two files will be; the text says why, and what to
// do.
[[nodiscard]] mapload::Guarded judge(std::span<const std::byte> image, const Limits& limits,
                                     const std::string& pair,
                                     const std::function<bool()>& should_stop);

}  // namespace tavrix::mapkeep
