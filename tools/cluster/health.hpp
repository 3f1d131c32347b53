// SPDX-License-Identifier: LGPL-3.0-or-later
// May this machine serve clients? Asked every second or two, so it reads headers and no content.
//
// Only what is this machine's own decides. A fact that all nodes share would make all of them
// unhealthy at once, and then nobody serves; such a fact is a note.
#pragma once

#include <string>
#include <vector>

namespace tavrix::cluster {

struct Check {
  const char* name;
  std::string problem;  // what is wrong and what to do; empty when it is well
};
struct Note {
  const char* name;
  std::string sentence;
};

struct Health {
  std::string node;  // empty on a machine alone
  std::vector<Check> checks;
  std::vector<Note> notes;
  // The first problem; empty when the machine is healthy.
  [[nodiscard]] std::string problem() const;
};
[[nodiscard]] Health look_at_health(const std::string& settings_file);

// The parts of it that touch nothing but this machine, for when the tree does not answer. The
// machine is not healthy then.
[[nodiscard]] Health health_without_tree(const std::string& settings_file);

}  // namespace tavrix::cluster
