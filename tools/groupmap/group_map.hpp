// SPDX-License-Identifier: LGPL-3.0-or-later
// Writes, reads and checks the group list map file. The reader of server processes is in the
// library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mapcheck/findings.hpp"

namespace tavrix::groupmap {

struct User {
  std::string name;
  std::vector<uint32_t> gids;
};
struct ReservedGroup {
  std::string name;
  uint32_t gid;
};
struct GroupMap {
  std::vector<ReservedGroup> reserved;
  std::vector<User> users;
};

// The bytes of the file. Throws std::length_error when an offset does not fit into 32 bits.
std::string encode(const GroupMap& map);

// Checks every offset, length and sum as the readers compute them, and also the parts that they
// skip.
mapcheck::Findings verify(std::string_view bytes);

// The map as readers see it; nothing when verify() finds errors.
std::optional<GroupMap> decode(std::string_view bytes);

// The names of the users in the map in force; none when it cannot be read or is broken.
std::vector<std::string> known_users();

// Lists the machine's users with their groups, and the two reserved groups if they exist.
GroupMap from_system();

// Replaces the file and the checksum beside it. A reader sees the whole old file or the whole new
// one. Throws std::system_error.
void write_file(const std::string& path, const std::string& bytes);

// Compares the content with the checksum beside the file. A different checksum is an error, a
// missing one a warning.
void check_checksum(const std::string& path, std::string_view bytes, mapcheck::Findings& findings);

}  // namespace tavrix::groupmap
