// SPDX-License-Identifier: LGPL-3.0-or-later
// A settings file that is to become that of all nodes.
#pragma once

#include <string>

namespace tavrix::cluster {

// The first mistake in the file, as a line for people; empty when all nodes can have it. A value
// that a service alone would pass over counts, and so does a file that ends the cluster.
[[nodiscard]] std::string mistake_in_settings(const std::string& path);

}  // namespace tavrix::cluster
