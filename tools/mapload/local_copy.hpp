// SPDX-License-Identifier: LGPL-3.0-or-later
// The local copy of the current image on the disk. It is never deleted or overwritten while it is
// the only one.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "tools/files/checksum.hpp"

namespace tavrix::mapload {

// The state of a copy, after a check of its whole content.
struct Copy {
  enum class State {
    kMissing,
    kUnreadable,  // reading failed; the next attempt may not
    kDamaged,     // not a sound image, or not the content of its checksum
    kUsable
  } state = State::kMissing;
  std::string why;  // why it is not usable
  bool has_checksum = false;
  files::Digest digest;
  uint32_t generation = 0;
  int64_t timestamp = 0;
  [[nodiscard]] bool is_usable() const { return state == State::kUsable; }
};
// Checks the local copy or the previous one; both against the checksums of the local copy.
[[nodiscard]] Copy look_at_copy(const char* path);

// The following return false and set errno when they fail.

// Writes the copy anew from an image, with its checksum.
[[nodiscard]] bool write_copy(std::span<const std::byte> image, const files::Digest& digest);

// Makes the previous copy the copy again.
[[nodiscard]] bool take_copy_back();
// Removes the previous copy, and leaves the copy's checksum as the only one.
[[nodiscard]] bool settle_copy(const files::Digest& digest);

// Guards the copy while an import writes it in place, or while another image takes its place: the
// old copy keeps a second name, and the import gets a file of its own. The end of the scope puts
// the old copy back unless keep() was called.
class CopyReplacement {
 public:
  CopyReplacement() = default;
  ~CopyReplacement();
  CopyReplacement(const CopyReplacement&) = delete;
  CopyReplacement& operator=(const CopyReplacement&) = delete;

  // When this fails, nothing has changed.
  [[nodiscard]] bool begin();
  // Makes a file of the disk the new copy; the file keeps its own name.
  [[nodiscard]] bool put(const std::string& path);
  // Syncs the new copy, which has this digest, and lets the old and the new checksums count.
  [[nodiscard]] bool confirm(const files::Digest& digest);
  void keep() { is_open_ = false; }

 private:
  void put_back();
  bool is_open_ = false;
  bool had_copy_ = false;
  std::vector<files::Digest> checksums_;  // of the old copy
};

}  // namespace tavrix::mapload
