// SPDX-License-Identifier: LGPL-3.0-or-later
// The records of an image of any bytes. Each is checked when it is read, and nothing outside of the
// image is.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "mkperms_shm.h"
#include "tools/mapcheck/findings.hpp"

namespace tavrix::mapcheck {

class Records {
 public:
  // Takes each finding, with the byte of the image that it is about. It may throw.
  using Tell = std::function<void(Severity, uint64_t at, std::string text)>;
  static constexpr uint64_t kFolder = sizeof(fs_elem_s);

  Records(std::span<const std::byte> image, Tell tell) : image_(image), tell_(std::move(tell)) {}

  // Reads the header. False when the records cannot be read; all functions below expect true.
  [[nodiscard]] bool open();
  [[nodiscard]] const tavrix_be_header& header() const { return header_; }
  [[nodiscard]] uint64_t folders() const { return folders_.used / kFolder; }
  [[nodiscard]] uint64_t lists_size() const { return lists_.size; }

  // A folder by its offset, which is below folders() * kFolder. Its signature, parent and flags are
  // checked. Nothing when it is no folder.
  [[nodiscard]] std::optional<fs_elem_s> folder(uint64_t offset) const;

  // A folder's name. name_record() checks that it lies in the image, which does for one that a scan
  // compares; name() checks its text, hash and characters too.
  struct Name {
    uint32_t hash;
    std::string_view text;  // a NUL follows
  };
  [[nodiscard]] std::optional<Name> name_record(const fs_elem_s& folder, uint64_t at) const;
  [[nodiscard]] std::optional<Name> name(const fs_elem_s& folder, uint64_t offset) const;

  // The entries of the folder itself.
  struct Entries {
    const std::byte* stored = nullptr;
    uint32_t size = 0;
    [[nodiscard]] beace_s operator[](uint32_t index) const;
  };
  [[nodiscard]] std::optional<Entries> entries(const fs_elem_s& folder, uint64_t at) const;

  // The offsets of the folders in a folder; each is looked at by child().
  struct Children {
    const std::byte* stored = nullptr;
    uint32_t size = 0;
    [[nodiscard]] uint32_t operator[](uint32_t slot) const;
  };
  [[nodiscard]] std::optional<Children> children(const fs_elem_s& folder, uint64_t at) const;
  // A child of the folder at `parent`, whose list is told of at `at`.
  [[nodiscard]] std::optional<fs_elem_s> child(uint32_t offset, uint64_t parent, uint64_t at) const;

  // The byte of the image at which a folder begins.
  [[nodiscard]] uint64_t place_of(uint64_t offset) const { return folders_.start + offset; }

 private:
  struct Region {
    const char* name;
    uint64_t start;
    uint64_t size;
    uint64_t used;
  };
  template <typename Record>
  [[nodiscard]] std::optional<Record> read(const Region& region, uint64_t offset) const;
  [[nodiscard]] const std::byte* bytes(const Region& region, uint64_t offset) const {
    return image_.data() + region.start + offset;
  }
  [[nodiscard]] bool open_header();
  [[nodiscard]] bool open_regions();
  void check_parent(const fs_elem_s& folder, uint64_t offset) const;
  bool error(uint64_t at, std::string text) const;
  void warn(uint64_t at, std::string text) const;

  std::span<const std::byte> image_;
  Tell tell_;
  tavrix_be_header header_{};
  Region folders_{}, names_{}, acls_{}, lists_{};
};

}  // namespace tavrix::mapcheck
