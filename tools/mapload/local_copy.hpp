// SPDX-License-Identifier: LGPL-3.0-or-later
// The local copy of the current image, on the disk: never deleted or overwritten while it is the
// only one.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tools/files/checksum.hpp"

namespace tavrix::mapload {

// A copy as a look at all of it finds it.
struct Copy {
  enum class State {
    kMissing,
    kUnreadable,  // for now: the look failed
    kDamaged,     // no sound image, or not what its checksum says
    kUsable
  } state = State::kMissing;
  std::string why;  // damaged or unreadable
  bool has_checksum = false;
  files::Digest digest;
  uint32_t generation = 0;
  int64_t timestamp = 0;
  [[nodiscard]] bool is_usable() const { return state == State::kUsable; }
};
// The local copy, or the one of before: both are checked against the checksums of the local copy.
[[nodiscard]] Copy look_at_copy(const char* path);

// Writes the copy anew from an image, with its checksum. false and errno.
[[nodiscard]] bool write_copy(std::span<const std::byte> image, const files::Digest& digest);

// Makes the copy of before the copy again. false and errno.
[[nodiscard]] bool take_copy_back();
// Forgets the copy of before: the copy's checksum is the only one from now on. false and errno.
[[nodiscard]] bool settle_copy(const files::Digest& digest);

// The copy while an import writes it in place: the old one keeps a second name, and the import gets
// a file of its own. Put back at the end of the scope unless kept.
class CopyReplacement {
 public:
  CopyReplacement() = default;
  ~CopyReplacement();
  CopyReplacement(const CopyReplacement&) = delete;
  CopyReplacement& operator=(const CopyReplacement&) = delete;

  // false and errno; nothing has changed then.
  [[nodiscard]] bool begin();
  // The new copy has this digest: syncs it, and lets both checksums count. false and errno.
  [[nodiscard]] bool confirm(const files::Digest& digest);
  void keep() { is_open_ = false; }

 private:
  void put_back();
  bool is_open_ = false;
  bool had_copy_ = false;
  std::vector<files::Digest> checksums_;  // of before
};

}  // namespace tavrix::mapload
