// SPDX-License-Identifier: LGPL-3.0-or-later
// Normalizes any path name. A canonical name stays as it is, and a parent's name is no longer.

#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/target.hpp"
#include "internal/scoped.hpp"
#include "tavrix_utils.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using tavrix::CString;
  using tavrix::fuzz::require;
  const std::string path(reinterpret_cast<const char*>(data), size);
  const CString normal(normalize_path(path.c_str()));
  if (normal != nullptr) {
    const std::string text = normal.get();
    require(text.size() <= std::strlen(path.c_str()), "a canonical path is no longer");
    require(text.find("//") == std::string::npos, "a canonical path has single slashes");
    const CString again(normalize_path(text.c_str()));
    require(again != nullptr && text == again.get(), "a canonical path stays as it is");
  }
  const CString parent(parent_dir_from_path(path.c_str()));
  require(parent != nullptr && std::strlen(parent.get()) <= std::strlen(path.c_str()) + 1,
          "a parent is no longer");
  tavrix_strncasecmp(path.c_str(), parent.get(), static_cast<int>(size));
  __tavrix_strcasecmp(path.c_str(), parent.get());
  return 0;
}
