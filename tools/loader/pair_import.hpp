// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks a pair and makes its map current; on a node of a cluster, puts it up for all nodes.
#pragma once

#include <functional>
#include <string>

#include "tools/cluster/proposal.hpp"
#include "tools/loader/inbox.hpp"
#include "tools/mapkeep/settings.hpp"
#include "tools/mapload/load.hpp"

namespace tavrix::loader {

struct Outcome {
  mapload::Result result = mapload::Result::kRefused;
  std::string text;  // the map that is current, or why the pair was not loaded
  mapload::Report report;
  std::string findings;       // of the checks, for programs; empty when they found nothing
  bool is_put_up = false;     // all nodes will get it, when each has prepared it
  bool is_tree_away = false;  // the shared tree does not answer; the pair waits for it
};

// Limits past which a map is held, and the folder where its pair will be then.
struct Guard {
  mapkeep::Limits limits;
  std::string held_folder;
};

// Call it under the lock of the maps. A pair that does not pass changes nothing and stays in place.
Outcome load_pair(const Pair& pair, const Guard& guard, const std::function<bool()>& should_stop);

// The same checks and the same guard; a pair that passes becomes a proposal, and nothing is
// published here. A death on the way neither loses the pair nor puts it up twice.
Outcome put_up_pair(const Pair& pair, const Guard& guard, const Inbox& inbox,
                    const cluster::HandOver& hand_over, const std::function<bool()>& should_stop);

}  // namespace tavrix::loader
