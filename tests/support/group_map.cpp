// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/group_map.hpp"

#include <cstring>

namespace tavrix::test {

void put32(std::string& bytes, std::size_t at, uint32_t value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

uint32_t get32(const std::string& bytes, std::size_t at) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

std::string group_map_bytes(const GroupMap& map) {
  const std::size_t reserved_at = 16;
  const std::size_t users_at = reserved_at + 8 * map.reserved.size();
  std::string bytes(users_at + 16 * map.users.size(), '\0');
  put32(bytes, 0, reserved_at);
  put32(bytes, 4, static_cast<uint32_t>(map.reserved.size()));
  put32(bytes, 8, static_cast<uint32_t>(users_at));
  put32(bytes, 12, static_cast<uint32_t>(map.users.size()));
  const auto add_name = [&bytes](const std::string& name) {
    const auto at = static_cast<uint32_t>(bytes.size());
    bytes.append(name);
    bytes += '\0';
    return at;
  };
  for (std::size_t i = 0; i < map.reserved.size(); ++i) {
    const uint32_t name = add_name(map.reserved[i].name);
    put32(bytes, reserved_at + 8 * i, name);
    put32(bytes, reserved_at + 8 * i + 4, map.reserved[i].gid);
  }
  for (std::size_t i = 0; i < map.users.size(); ++i) {
    const uint32_t name = add_name(map.users[i].name);
    const std::size_t at = users_at + 16 * i;
    put32(bytes, at, name);
    put32(bytes, at + 4, static_cast<uint32_t>(map.users[i].name.size()));
    put32(bytes, at + 12, static_cast<uint32_t>(map.users[i].gids.size()));
  }
  bytes.resize((bytes.size() + 3) / 4 * 4);
  for (std::size_t i = 0; i < map.users.size(); ++i) {
    put32(bytes, users_at + 16 * i + 8, static_cast<uint32_t>(bytes.size()));
    for (const uint32_t gid : map.users[i].gids) {
      bytes.append(4, '\0');
      put32(bytes, bytes.size() - 4, gid);
    }
  }
  bytes.resize(std::max<std::size_t>(8192, (bytes.size() + 4095) / 4096 * 4096));
  return bytes;
}

}  // namespace tavrix::test
