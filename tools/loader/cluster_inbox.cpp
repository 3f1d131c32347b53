// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/cluster_inbox.hpp"

#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::loader {

std::string find_node(const std::string& settings_file, std::string& node) {
  if (!settings::ServiceSettings::read(settings_file).is_on("CLUSTER:enabled")) return {};
  node = cluster::this_node();
  return node.empty()
             ? "the host name is no name of a node: it needs letters and digits, at most 64"
             : "";
}

// A node's name never begins with a dot, so the shared folder's slot is nobody's own.
std::optional<cluster::HandOver> hand_over_of(const std::string& node) {
  if (node.empty()) return std::nullopt;
  return cluster::HandOver(node, node);
}

ClusterInbox::ClusterInbox(Keeper& keeper, std::string node, unsigned keep_refused)
    : inbox_(cluster::kInbox, keep_refused, true), keeper_(keeper), node_(std::move(node)) {}

Worker* ClusterInbox::worker() {
  if (worker_) return &*worker_;
  if (!cluster::make_shared_folders() || !inbox_.prepare().empty()) return nullptr;
  lock_ = cluster::lock_shared(std::string(cluster::kInbox) + "/.lock", cluster::Wait::kNo);
  if (!lock_) return nullptr;
  worker_.emplace(inbox_, keeper_, cluster::HandOver(".inbox", node_));
  return &*worker_;
}

}  // namespace tavrix::loader
