// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads any bytes as a group list map. The library's readers survive them, and agree with the
// decoder about sound ones.

#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/target.hpp"
#include "tavrix_getgrouplist.h"
#include "tools/groupmap/group_map.hpp"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using tavrix::fuzz::require;
  // The readers see a mapping, which has whole pages.
  std::string bytes(reinterpret_cast<const char*>(data), size);
  bytes.resize(size < 8192 ? 8192 : (size + 4095) / 4096 * 4096);
  const auto* map = reinterpret_cast<const mapheader*>(bytes.data());
  const auto length = static_cast<unsigned int>(bytes.size());
  const auto decoded = tavrix::groupmap::decode(bytes);
  tavrix_reserved_gid(map, length, "tavrix-admins");
  for (const char* user : {"anna", "nobody", ""}) {
    unsigned int count = 0;
    gid_t* list = tavrix_getgrouplist(map, length, user, &count);
    require(list != nullptr || count == 0, "no list has no length");
    std::free(list);
  }
  if (decoded && !decoded->users.empty() && decoded->users[0].name.size() < 4096) {
    unsigned int count = 0;
    gid_t* list = tavrix_getgrouplist(map, length, decoded->users[0].name.c_str(), &count);
    require(list != nullptr && count == decoded->users[0].gids.size(),
            "a sound map is read as it is");
    std::free(list);
  }
  return 0;
}
