// SPDX-License-Identifier: LGPL-3.0-or-later
// This machine as a node of a cluster.
#pragma once

#include <string>
#include <string_view>

namespace tavrix::cluster {

// True if a text may be a node's name: letters, digits, '-', '_' and '.', at most 64, the first one
// a letter or a digit. Names of nodes are names of files.
[[nodiscard]] bool is_node_name(std::string_view text);

// The host name up to its first dot; empty when that is no name of a node.
[[nodiscard]] std::string this_node();

}  // namespace tavrix::cluster
