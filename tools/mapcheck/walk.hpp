// SPDX-License-Identifier: LGPL-3.0-or-later
// A walk through an image of any bytes. It checks the header and each record that it reads, as
// verify() does, and leaves the others alone: an answer about one folder of a million looks at a
// few pages. A record that is not sound throws Broken.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mapcheck/records.hpp"

namespace tavrix::mapcheck {

class Broken : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Walk {
 public:
  struct Folder {
    uint32_t offset = 0;
    fs_elem_s record{};
  };
  using Children = Records::Children;

  explicit Walk(std::span<const std::byte> image);
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  [[nodiscard]] const tavrix_be_header& header() const { return records_.header(); }
  [[nodiscard]] uint64_t folders() const { return records_.folders(); }
  [[nodiscard]] uint64_t place_of(const Folder& folder) const {
    return records_.place_of(folder.offset);
  }

  // The folder with this number, in the order of the image; the first is the root.
  [[nodiscard]] Folder numbered(uint64_t number) const;
  [[nodiscard]] Folder at(uint32_t offset) const { return numbered(offset / Records::kFolder); }
  [[nodiscard]] Folder root() const { return numbered(0); }
  [[nodiscard]] Folder parent_of(const Folder& folder) const;

  [[nodiscard]] std::string_view name_of(const Folder& folder) const;
  // The same without a look at the text itself, for a search through all names.
  [[nodiscard]] std::string_view name_to_scan(const Folder& folder) const;
  // "/Shared/Team"; "/" for the root.
  [[nodiscard]] std::string path_of(Folder folder) const;
  [[nodiscard]] Records::Entries entries_of(const Folder& folder) const;

  // The folders in a folder, in the order of the image.
  [[nodiscard]] Children children_of(const Folder& folder) const;
  [[nodiscard]] Folder child(const Folder& folder, const Children& children, uint32_t slot) const;

  // The deepest folder of the map on a path. It answers for the path, and `exact` tells whether it
  // is the path itself. Of several folders of one name it is the first, as for the decision.
  struct Found {
    Folder folder;
    bool exact = false;
  };
  [[nodiscard]] Found find(std::string_view path) const;

  // The folder whose entries govern a folder: itself, or the nearest above it that has some.
  [[nodiscard]] Folder source_of(Folder folder) const;

  // Checks all that the library reads when it looks up a path in the folder, so that the library,
  // which trusts an image, may be asked about it.
  void vouch_for(Folder folder) const;
  // The same for a folder that lies in one for which the walk vouched already.
  void vouch_for_next(const Folder& folder) const;

 private:
  Records records_;
};

}  // namespace tavrix::mapcheck
