// SPDX-License-Identifier: LGPL-3.0-or-later
// A map becomes current by an operator's command: the same steps for an import, a restore, a map
// that comes back and one that is approved.
#pragma once

#include <functional>
#include <string>

#include "tools/ctl/commands.hpp"
#include "tools/mapkeep/kept.hpp"
#include "tools/mapload/load.hpp"

namespace tavrix::ctl {

struct Publication {
  std::string name;          // of the JSON document
  mapkeep::Origin origin;    // how the map comes into force
  mapload::Request request;  // the progress is set here
  // Loads under the lock, after the recovery; complains and returns nothing when it has to give up.
  std::function<std::optional<mapload::Loaded>(const mapload::Request&)> load;
  std::function<void()> afterwards;  // under the lock, when the map is current; may be empty
};
// Prints the outcome, and returns the exit code.
int publish(const Options& options, Publication publication);

void print_refusal(const Options& options, const std::string& name,
                   const mapcheck::Findings& findings);

// The name of whoever runs the command, also behind sudo.
std::string operator_name();

}  // namespace tavrix::ctl
