// SPDX-License-Identifier: LGPL-3.0-or-later
// Who asks: accounts, the group list map, and the reserved user of the server's shares.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/explain/witness.hpp"
#include "tools/groupmap/group_map.hpp"

namespace tavrix::explain {

// The group list map as server processes have it.
struct Groups {
  enum class State { kRead, kMissing, kBroken };
  State state = State::kMissing;
  groupmap::GroupMap map;  // when it was read
  // The reserved groups; nothing when the map names none.
  [[nodiscard]] std::optional<uint32_t> administrators() const;
  [[nodiscard]] std::optional<uint32_t> power_users() const;
  // The map's entry of a user; null when it has none.
  [[nodiscard]] const groupmap::User* find(const std::string& user) const;
};
[[nodiscard]] Groups current_groups();
// The same of another file.
[[nodiscard]] Groups groups_in(const std::string& path);

// The source of a person's groups.
enum class GroupSource { kGroupMap, kMachine, kGiven, kNowhere };

struct Identity {
  Person person;
  GroupSource source = GroupSource::kNowhere;
};
// An account of the machine, with its groups from the map; from the machine when the map cannot be
// read. Nothing without such an account.
[[nodiscard]] std::optional<Identity> person_named(const std::string& name, const Groups& groups);
[[nodiscard]] std::optional<Identity> person_with(uint32_t uid, const Groups& groups);

// The gid of a group of the machine; nothing when there is none.
[[nodiscard]] std::optional<uint32_t> machine_group(const std::string& name);

// The reserved users of the shares, by the server's settings as testparm tells them.
[[nodiscard]] std::vector<std::string> reserved_users_in(const std::string& settings);
// False if the settings file cannot name one: testparm, which takes a while, need not be asked.
[[nodiscard]] bool may_name_reserved_user(const std::string& smb_conf);

}  // namespace tavrix::explain
