// SPDX-License-Identifier: LGPL-3.0-or-later
// Walks over the components of a path without copying it.
#pragma once

#include <cstdint>
#include <string_view>

namespace tavrix {

// One name of a path, with its length and hash, which a lookup compares first.
struct PathComponent {
  const char* name;  // `len` bytes, not terminated
  uint32_t len;
  uint32_t hash;
};

// Yields the names between the slashes and skips empty ones. The leading "/" is not a name: see
// is_absolute().
class PathCursor {
 public:
  explicit PathCursor(std::string_view path) noexcept
      : rest_(path), absolute_(path.starts_with('/')) {}

  [[nodiscard]] bool is_absolute() const noexcept { return absolute_; }
  [[nodiscard]] bool next(std::string_view& name) noexcept;
  [[nodiscard]] bool next(PathComponent& component) noexcept;

 private:
  std::string_view rest_;
  bool absolute_;
};

[[nodiscard]] uint32_t hash_name(std::string_view name) noexcept;

}  // namespace tavrix
