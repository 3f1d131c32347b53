// SPDX-License-Identifier: LGPL-3.0-or-later
// The map of a time that is past, for a question about then: among the maps that are kept.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/explain/person.hpp"
#include "tools/mapkeep/kept.hpp"

namespace tavrix::ctl {

struct PastMap {
  mapkeep::KeptMap map;
  std::optional<int64_t> until;  // microseconds since 1970; nothing: it is the newest that is kept
  Image image;
  explain::Groups groups;  // those of then, when they are kept

  // "by map 7, in force from ... until ..., with the groups of then"
  [[nodiscard]] std::string text() const;
  // Adds the key "at".
  void add_to(Json& document) const;
};

// Gives a command the option --at; the text is empty when it is not given.
CLI::Option* add_at_option(CLI::App& command, std::string& time);

// Complains and returns nothing when the text is no time, or when no kept map was in force then.
std::optional<PastMap> map_at(const std::string& time);

}  // namespace tavrix::ctl
