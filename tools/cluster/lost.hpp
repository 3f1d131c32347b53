// SPDX-License-Identifier: LGPL-3.0-or-later
// A node that is gone with events in its memory.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tools/cluster/running.hpp"

namespace tavrix::cluster {

// The sentence that the agent reads with the request for a rescan.
[[nodiscard]] std::string reason_of_loss(std::string_view node);

// The node of a name or of an address: one that has a mark. Other names are returned as they are.
[[nodiscard]] std::string node_of(const std::string& name_or_address);

[[nodiscard]] bool is_address(const std::string& text);

// Says why a node seems to live: it told its state a moment ago, or it is this machine in this run.
// Returns nothing for another one.
[[nodiscard]] std::optional<std::string> sign_of_life(const std::string& node);

}  // namespace tavrix::cluster
