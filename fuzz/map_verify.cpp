// SPDX-License-Identifier: LGPL-3.0-or-later
// Verifies any bytes as an image. Readers can walk every image that passes.

#include "tools/mapcheck/verify.hpp"

#include <cstdlib>
#include <vector>

#include "fuzz/target.hpp"
#include "perm_utils.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto* bytes = reinterpret_cast<const std::byte*>(data);
  std::vector<std::byte> image(bytes, bytes + size);
  if (tavrix::mapcheck::verify(image).errors() > 0) return 0;
  for (const char* path : {"/", "Shared/Team", "a/b/c/d"}) {
    tavrix_acl_t* acl = nullptr;
    get_tavrix_acl(image.data(), path, &acl);
    free_ACL(acl);
    std::free(acl);
  }
  return 0;
}
