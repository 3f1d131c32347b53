// SPDX-License-Identifier: LGPL-3.0-or-later
// Finds the facts, one function a topic.
//
// Pure reading: nothing here makes or changes an object, waits for a semaphore or takes a lock.
// `unread` names the topics that this user may not see. A segment is attached for reading, for a
// moment.
#pragma once

#include "tools/status/facts.hpp"

namespace tavrix::status {

Facts gather(const Places& places);

Settings look_at_settings(const std::string& file, std::vector<Unread>& unread);
Map look_at_map(const std::vector<Segment>& all, const std::string& inbox,
                std::vector<Unread>& unread);
Groups look_at_groups(std::vector<Unread>& unread);
// A node of a cluster may leave the history to another one.
std::vector<Service> look_at_services(bool is_node);
// The staging buffer. Its threshold follows from the settings.
Buffer look_at_buffer(const std::vector<Segment>& all, const Settings& settings,
                      std::vector<Unread>& unread);
Dumps look_at_dumps(const std::string& folder, std::vector<Unread>& unread);
// Nothing on a machine that is no node.
std::optional<Cluster> look_at_cluster(const std::string& settings_file,
                                       std::vector<Unread>& unread);
History look_at_history(const std::string& settings_file, std::vector<Unread>& unread);
std::vector<Alarm> look_at_alarms(std::vector<Unread>& unread);
std::vector<Disk> look_at_disks(const Facts& facts);
Connections look_at_connections(const std::vector<Segment>& all, std::vector<Unread>& unread);
HugePages look_at_huge_pages();
Versions look_at_versions();

}  // namespace tavrix::status
