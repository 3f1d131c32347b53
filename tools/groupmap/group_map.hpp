// SPDX-License-Identifier: LGPL-3.0-or-later
// The group list map file, for its writer and for operators. The readers' side is in the library.
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

// Throws std::length_error when offsets of 32 bits do not reach.
std::string encode(const GroupMap& map);

// Every offset, length and sum as the readers compute them, and what they do not look at.
mapcheck::Findings verify(std::string_view bytes);

// What readers see; nothing of a file that verify() finds errors in.
std::optional<GroupMap> decode(std::string_view bytes);

// The machine's users with their groups, and the two reserved groups where they exist.
GroupMap from_system();

// Replaces the file as a whole, with its checksum beside it: a reader has the old one or the new
// one. Throws std::system_error.
void write_file(const std::string& path, const std::string& bytes);

// Compares the content with the checksum beside the file: another one is an error, none a warning.
void check_checksum(const std::string& path, std::string_view bytes, mapcheck::Findings& findings);

}  // namespace tavrix::groupmap
