// SPDX-License-Identifier: LGPL-3.0-or-later
// Records of a map image by their offsets. One place turns an offset into a record and checks it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "internal/assert.hpp"
#include "mkperms_shm.h"

namespace tavrix {

// Every check of a signature goes through these: operators know the texts.
inline void require_header(const tavrix_be_header& header) noexcept {
  TAVRIX_REQUIRE(header.signature == TAVRIX_BE_HEADER_SIGNATURE,
                 "beheader->signature == TAVRIX_BE_HEADER_SIGNATURE");
}
inline void require_fselem(const fs_elem_s& fselem) noexcept {
  TAVRIX_REQUIRE(fselem.signature == FSELEMSIG, "fselem->signature == FSELEMSIG");
}
inline void require_name(const name_elem_s& name) noexcept {
  TAVRIX_REQUIRE(name.signature == NAMESIG, "nelem->signature == NAMESIG");
}
inline void require_list(const child_list_s& list) noexcept {
  TAVRIX_REQUIRE(list.signature == LISTSIG, "clist->signature == LISTSIG");
}

// A finished image, as readers see it. When the size is known, as it is for a segment of shared
// memory, every record must lie inside: a damaged table ends the process here. An image without a
// size is trusted; `tavrixctl map verify` checks its offsets. Records start at any byte, and their
// types are packed, so their fields may be read in place.
class ImageView {
 public:
  static constexpr std::size_t kUnknownSize = SIZE_MAX;

  explicit ImageView(const void* map, std::size_t size = kUnknownSize) noexcept
      : base_(static_cast<const std::byte*>(map)),
        size_(size),
        fselems_(region<fs_elem_s>(header().fselem_offset)),
        names_(region<name_elem_s>(header().nameelem_offset)),
        acls_(region<beacl_s>(header().acl_offset)),
        lists_(region<child_list_s>(header().list_offset)) {}

  [[nodiscard]] const tavrix_be_header& header() const noexcept {
    return *reinterpret_cast<const tavrix_be_header*>(base_);
  }
  [[nodiscard]] const fs_elem_s& fselem(uint32_t offset) const noexcept {
    const auto& fselem = fselems_.at<fs_elem_s>(offset);
    require_fselem(fselem);
    return fselem;
  }
  [[nodiscard]] const name_elem_s& name_of(const fs_elem_s& fselem) const noexcept {
    const auto& name = names_.at<name_elem_s>(fselem.name_elem_offset);
    require_name(name);
    return name;
  }
  [[nodiscard]] const child_list_s& children_of(const fs_elem_s& fselem) const noexcept {
    const auto& list = lists_.at<child_list_s>(fselem.clist_offset);
    require_list(list);
    lists_.require(fselem.clist_offset + std::size_t{list.num_children} * sizeof(uint32_t));
    return list;
  }
  // The signature is not checked: a folder without an ACL of its own has offset 0, which names the
  // first ACL of the region.
  [[nodiscard]] const beacl_s& acl_of(const fs_elem_s& fselem) const noexcept {
    const auto& acl = acls_.at<beacl_s>(fselem.acl_offset);
    acls_.require(fselem.acl_offset + std::size_t{acl.num_aces} * sizeof(beace_s));
    return acl;
  }
  // Call this before reading the text of a name. name_of() does not, because a scan tells most
  // names apart without their text.
  void require_text_of(const fs_elem_s& fselem, const name_elem_s& name) const noexcept {
    names_.require(std::size_t{fselem.name_elem_offset} + name.name_len);
  }

  [[nodiscard]] static const char* bytes_of(const name_elem_s& name) noexcept {
    return reinterpret_cast<const char*>(&name + 1);
  }
  [[nodiscard]] static std::string_view text_of(const name_elem_s& name) noexcept {
    return {bytes_of(name), name.name_len};
  }
  [[nodiscard]] static uint32_t child_at(const child_list_s& list, uint32_t slot) noexcept {
    uint32_t offset = 0;
    std::memcpy(&offset, reinterpret_cast<const std::byte*>(&list + 1) + std::size_t{slot} * 4, 4);
    return offset;
  }
  // Starts loading a folder's record before it is needed.
  void prefetch_fselem(uint32_t offset) const noexcept {
    __builtin_prefetch(fselems_.start + offset);
  }
  // Does the same for the folder's name, for which it reads the record. An offset outside the image
  // is skipped; the reader of the record itself will find it.
  void prefetch_name(uint32_t offset) const noexcept {
    if (!fselems_.holds(offset)) return;
    const auto& fselem = *reinterpret_cast<const fs_elem_s*>(fselems_.start + offset);
    __builtin_prefetch(names_.start + fselem.name_elem_offset);
  }
  void prefetch_acl(uint32_t offset) const noexcept {
    if (!fselems_.holds(offset)) return;
    const auto& fselem = *reinterpret_cast<const fs_elem_s*>(fselems_.start + offset);
    __builtin_prefetch(acls_.start + fselem.acl_offset);
  }

 private:
  // A region's records start between `start` and `start + last`, so a check is one comparison.
  struct Region {
    const std::byte* start;
    std::size_t last;

    [[nodiscard]] bool holds(std::size_t offset) const noexcept { return offset <= last; }
    void require(std::size_t offset) const noexcept {
      TAVRIX_REQUIRE(holds(offset), "record lies inside the image");
    }
    template <typename Record>
    [[nodiscard]] const Record& at(uint32_t offset) const noexcept {
      require(offset);
      return *reinterpret_cast<const Record*>(start + offset);
    }
  };
  template <typename Record>
  [[nodiscard]] Region region(uint32_t offset) const noexcept {
    TAVRIX_REQUIRE(std::size_t{offset} + sizeof(Record) <= size_, "region lies inside the image");
    return {base_ + offset, size_ - offset - sizeof(Record)};
  }

  const std::byte* base_;
  std::size_t size_;
  Region fselems_;
  Region names_;
  Region acls_;
  Region lists_;
};

// The image under construction at `msum->membuf`.
//
// Counts are trusted by contract: a document with more records than its size file says runs from
// one region into the next. It must never leave the image: a record beyond `memsize` bytes ends the
// import here, before anything is published. A summary without a size is not checked.
class ImageWriter {
 public:
  explicit ImageWriter(const memsummary_s& summary) noexcept
      : base_(static_cast<std::byte*>(summary.membuf)), size_(summary.memsize) {
    TAVRIX_REQUIRE(base_ != nullptr, "memsummary->membuf != NULL");
  }

  [[nodiscard]] tavrix_be_header& header() const noexcept {
    return *reinterpret_cast<tavrix_be_header*>(base_);
  }
  [[nodiscard]] tavrix_be_header& checked_header() const noexcept {
    require_header(header());
    return header();
  }

  // The `length` bytes at `offset` in the region that starts at `region`.
  [[nodiscard]] std::byte* bytes(uint32_t region, uint32_t offset,
                                 std::size_t length) const noexcept {
    const std::size_t start = std::size_t{region} + offset;
    TAVRIX_REQUIRE(size_ == 0 || start + length <= size_, "record lies inside the image");
    return base_ + start;
  }
  [[nodiscard]] fs_elem_s& raw_fselem(uint32_t offset) const noexcept {
    return record<fs_elem_s>(header().fselem_offset, offset);
  }
  [[nodiscard]] fs_elem_s& fselem(uint32_t offset) const noexcept {
    fs_elem_s& fselem = raw_fselem(offset);
    require_fselem(fselem);
    return fselem;
  }
  [[nodiscard]] child_list_s& children_of(const fs_elem_s& fselem) const noexcept {
    auto& list = record<child_list_s>(header().list_offset, fselem.clist_offset);
    require_list(list);
    return list;
  }
  void set_child(const fs_elem_s& folder, uint32_t slot, uint32_t child) const noexcept {
    const std::size_t at = sizeof(child_list_s) + std::size_t{slot} * sizeof child;
    std::byte* list = bytes(header().list_offset, folder.clist_offset, at + sizeof child);
    std::memcpy(list + at, &child, sizeof child);
  }

 private:
  template <typename Record>
  [[nodiscard]] Record& record(uint32_t region, uint32_t offset) const noexcept {
    return *reinterpret_cast<Record*>(bytes(region, offset, sizeof(Record)));
  }

  std::byte* base_;
  std::size_t size_;
};

}  // namespace tavrix
