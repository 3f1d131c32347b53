// SPDX-License-Identifier: LGPL-3.0-or-later
// Files by which the nodes of a cluster meet, in the tree that all of them share, and files that a
// node keeps for itself. NODE is a node's name; a NUMBER counts the maps handed to the cluster.
#pragma once

#include "tavrix_api.h"

namespace tavrix::cluster {

// In the shared tree.
inline constexpr const char* kSharedFolder = TAVRIX_CONF_FOLDER "/cluster";
// "NODE.json": what the node says of itself every second.
inline constexpr const char* kNodesFolder = TAVRIX_CONF_FOLDER "/cluster/nodes";
// "NODE.json": what its sweeper says in each period of the events in its memory.
inline constexpr const char* kStagedFolder = TAVRIX_CONF_FOLDER "/cluster/staged";
// "NODE": there may be events in that node's memory. It names the run of the machine.
inline constexpr const char* kRunningFolder = TAVRIX_CONF_FOLDER "/cluster/running";
// A pair for all nodes, as it may be handed to the loader of one node.
inline constexpr const char* kInbox = TAVRIX_CONF_FOLDER "/cluster/inbox";
// "NUMBER/": a pair on its way to all nodes, with the answers of the nodes.
inline constexpr const char* kMapsFolder = TAVRIX_CONF_FOLDER "/cluster/maps";
// The map that all nodes must have: number, checksums, time.
inline constexpr const char* kCommitted = TAVRIX_CONF_FOLDER "/cluster/committed.json";

// On the node. The folder is on the file system of the local copy.
inline constexpr const char* kPreparedFolder = "/etc/tavrix/cluster";
// The map of the cluster that this node published last. A node that has it has seen kCommitted.
inline constexpr const char* kPublished = "/etc/tavrix/cluster/current.json";
// Says until when this node may serve clients. It is gone after a boot.
inline constexpr const char* kLease = "/run/tavrix/cluster.lease";
// This node's address in CTDB. CTDB's event script writes it before smbd starts, because the
// sandbox of a service has no network in which the address could be found.
inline constexpr const char* kAddress = "/run/tavrix/cluster.address";

}  // namespace tavrix::cluster
