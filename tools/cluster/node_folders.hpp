// SPDX-License-Identifier: LGPL-3.0-or-later
// Folders that each node has for itself in the shared tree, below a folder that all know: names of
// dump files are unique on one machine only.
#pragma once

#include <string>
#include <vector>

namespace tavrix::cluster {

[[nodiscard]] std::string folder_of(const std::string& shared, const std::string& node);

// Makes a node's folder where it is missing and the shared one is there.
void make_folder(const std::string& path);

// The names of the nodes that have a folder in it, in order; none when it cannot be read.
[[nodiscard]] std::vector<std::string> nodes_in(const std::string& shared);

}  // namespace tavrix::cluster
