// SPDX-License-Identifier: LGPL-3.0-or-later
// Lookups as a decision makes them: on the current table, attached by this thread for the moment.
#pragma once

#include <gtest/gtest.h>
#include <cstdlib>
#include <string>

#include "perm_map.h"
#include "perm_utils.h"
#include "tests/support/map_model.hpp"

namespace tavrix::test {

inline Governing look_up_in(void* map, const std::string& path) {
  tavrix_acl_t* acl = nullptr;
  EXPECT_EQ(0, get_tavrix_acl(map, path.c_str(), &acl));
  Governing governing = governing_of(*acl);
  free_ACL(acl);
  std::free(acl);
  return governing;
}
// The first trustee of the entries that govern the path; 0 for no entries.
inline uint32_t governor_in(void* map, const std::string& path) {
  const Governing governing = look_up_in(map, path);
  return governing.entries.empty() ? 0 : governing.entries[0].ace.id;
}

inline Governing look_up(const std::string& path) {
  void* map = get_perm_map_addr();
  Governing governing = look_up_in(map, path);
  put_perm_map_addr(map);
  return governing;
}
inline uint32_t governor(const std::string& path) {
  void* map = get_perm_map_addr();
  const uint32_t id = governor_in(map, path);
  put_perm_map_addr(map);
  return id;
}

}  // namespace tavrix::test
