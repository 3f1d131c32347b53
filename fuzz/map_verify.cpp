// SPDX-License-Identifier: LGPL-3.0-or-later
// Walks through any bytes as an image, and verifies them. Readers can walk every image that passes.

#include "tools/mapcheck/verify.hpp"

#include <cstdlib>
#include <vector>

#include "fuzz/target.hpp"
#include "perm_utils.h"
#include "tools/mapbrowse/children.hpp"
#include "tools/mapbrowse/search.hpp"

namespace {

// Each record is checked when the walk reads it.
void walk_through(const std::vector<std::byte>& image) {
  try {
    const tavrix::mapcheck::Walk walk(image);
    for (const char* path : {"/", "Shared/Team", "a/b/c/d"}) {
      const auto folder = walk.find(path).folder;
      static_cast<void>(walk.path_of(walk.source_of(folder)));
      static_cast<void>(tavrix::mapbrowse::page_of(walk, folder, "b", 3));
    }
    static_cast<void>(tavrix::mapbrowse::search(walk, tavrix::mapbrowse::Wanted("a"), 5));
  } catch (const tavrix::mapcheck::Broken&) {
    return;
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto* bytes = reinterpret_cast<const std::byte*>(data);
  std::vector<std::byte> image(bytes, bytes + size);
  walk_through(image);
  if (tavrix::mapcheck::verify(image).errors() > 0) return 0;
  for (const char* path : {"/", "Shared/Team", "a/b/c/d"}) {
    tavrix_acl_t* acl = nullptr;
    get_tavrix_acl(image.data(), path, &acl);
    free_ACL(acl);
    std::free(acl);
  }
  return 0;
}
