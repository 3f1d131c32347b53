// SPDX-License-Identifier: LGPL-3.0-or-later
// Group list map files, written apart from the code that reads and writes them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tavrix::test {

struct GroupMapUser {
  std::string name;
  std::vector<uint32_t> gids;
};
struct GroupMapReserved {
  std::string name;
  uint32_t gid;
};
struct GroupMap {
  std::vector<GroupMapReserved> reserved;
  std::vector<GroupMapUser> users;
};

// Tables behind the header, then names, then gid lists; padded. Names come before lists: a reader
// measures a list from the name.
std::string group_map_bytes(const GroupMap& map);
void put32(std::string& bytes, std::size_t at, uint32_t value);
uint32_t get32(const std::string& bytes, std::size_t at);

}  // namespace tavrix::test
