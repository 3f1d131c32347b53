// Records of a map image by their offsets: one place turns an offset into a record and checks it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "internal/assert.hpp"
#include "mkperms_shm.h"

namespace tavrix {

// The signature texts are known to operators; every check of a signature goes through these.
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

// A finished image, as readers see it. It trusts the offsets of the image, as every reader of a
// published map does: `tavrixctl map verify` is where they are checked. Records start at any byte;
// their types are packed, so their fields may be read in place.
class ImageView {
 public:
  explicit ImageView(const void* map) noexcept
      : base_(static_cast<const std::byte*>(map)),
        fselems_(base_ + header().fselem_offset),
        names_(base_ + header().nameelem_offset),
        acls_(base_ + header().acl_offset),
        lists_(base_ + header().list_offset) {}

  [[nodiscard]] const tavrix_be_header& header() const noexcept {
    return *reinterpret_cast<const tavrix_be_header*>(base_);
  }
  [[nodiscard]] const fs_elem_s& fselem(uint32_t offset) const noexcept {
    const auto& fselem = *reinterpret_cast<const fs_elem_s*>(fselems_ + offset);
    require_fselem(fselem);
    return fselem;
  }
  [[nodiscard]] const name_elem_s& name_of(const fs_elem_s& fselem) const noexcept {
    const auto& name = *reinterpret_cast<const name_elem_s*>(names_ + fselem.name_elem_offset);
    require_name(name);
    return name;
  }
  [[nodiscard]] const child_list_s& children_of(const fs_elem_s& fselem) const noexcept {
    const auto& list = *reinterpret_cast<const child_list_s*>(lists_ + fselem.clist_offset);
    require_list(list);
    return list;
  }
  // ACLs are read without a check: a folder that was given none names the first one of the region.
  [[nodiscard]] const beacl_s& acl_of(const fs_elem_s& fselem) const noexcept {
    return *reinterpret_cast<const beacl_s*>(acls_ + fselem.acl_offset);
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
  // Starts loading a folder's record before it is wanted.
  void prefetch_fselem(uint32_t offset) const noexcept { __builtin_prefetch(fselems_ + offset); }
  // The same for its name, which waits for the record.
  void prefetch_name(uint32_t offset) const noexcept {
    const auto& fselem = *reinterpret_cast<const fs_elem_s*>(fselems_ + offset);
    __builtin_prefetch(names_ + fselem.name_elem_offset);
  }
  void prefetch_acl(uint32_t offset) const noexcept {
    const auto& fselem = *reinterpret_cast<const fs_elem_s*>(fselems_ + offset);
    __builtin_prefetch(acls_ + fselem.acl_offset);
  }

 private:
  const std::byte* base_;
  const std::byte* fselems_;
  const std::byte* names_;
  const std::byte* acls_;
  const std::byte* lists_;
};

// The image under construction at `msum->membuf`.
//
// Counts are trusted by contract: a document that holds more than its size file says runs from one
// region into the next. What it must never do is leave the image: a record beyond `memsize` bytes
// ends the import here, before anything is published. A summary without a size is not checked.
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

  // The `length` bytes at `offset` of the region that starts at `region`.
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
