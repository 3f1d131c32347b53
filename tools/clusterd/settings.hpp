// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings of the cluster's daemon.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace tavrix::clusterd {

struct Settings {
  bool is_enabled = false;
  std::chrono::seconds commit{30};  // a map waits so long for nodes that have not prepared it
  std::chrono::seconds fence{10};   // no verdict is from a map that is out of force for longer
  unsigned kept_maps = 0;
  std::string file;
  std::string node;         // empty: the host name is no name of a node
  std::string leader_file;  // names the node that may commit; empty: whoever has the lock
  std::vector<std::string> warnings;

  // A lease is that long, in nanoseconds. It leaves a part of the fence to the end of a session.
  [[nodiscard]] int64_t lease() const;
  // The daemon looks that often; several looks fit into a lease.
  [[nodiscard]] std::chrono::milliseconds period() const;
};

[[nodiscard]] Settings read_settings(const std::string& file);

}  // namespace tavrix::clusterd
