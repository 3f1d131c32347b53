// SPDX-License-Identifier: LGPL-3.0-or-later
// The loader on a node of a cluster: what is handed over here, or in the folder that all nodes
// share, is put up for all nodes.
#pragma once

#include <optional>
#include <string>

#include "tools/loader/worker.hpp"

namespace tavrix::loader {

// Sets the node's name; it stays empty where the settings say that this machine is none. Returns an
// empty text, or why the loader cannot work.
[[nodiscard]] std::string find_node(const std::string& settings_file, std::string& node);

// For pairs of the node's own folder; nothing without a node.
[[nodiscard]] std::optional<cluster::HandOver> hand_over_of(const std::string& node);

// The shared folder. The loader of one node works for it, as long as it has the lock; that of
// another node takes over where it ended.
class ClusterInbox {
 public:
  ClusterInbox(Keeper& keeper, std::string node, unsigned keep_refused);
  // Null while another node's loader works for the folder, or while the shared tree is away.
  [[nodiscard]] Worker* worker();

 private:
  Inbox inbox_;
  Keeper& keeper_;
  std::string node_;
  Fd lock_;
  std::optional<Worker> worker_;
};

}  // namespace tavrix::loader
