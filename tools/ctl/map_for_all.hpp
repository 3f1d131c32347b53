// SPDX-License-Identifier: LGPL-3.0-or-later
// An operator's map on a node of a cluster: it goes to all nodes, and their daemons make it
// current. A map that came into force on one node alone would soon give way to the one of the
// cluster.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/cluster/proposal.hpp"
#include "tools/ctl/commands.hpp"

namespace tavrix::ctl {

[[nodiscard]] bool is_node_of_cluster();

// Puts the files up under the next number; the caller holds the lock of the maps. Complains and
// returns nothing when that fails. The files themselves stay.
[[nodiscard]] std::optional<uint32_t> put_up_for_all(const cluster::Files& files);

// Prints the number, as the JSON document of that name or for people.
void print_put_up(const Options& options, const std::string& name, uint32_t number);

}  // namespace tavrix::ctl
