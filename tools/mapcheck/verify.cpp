// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/verify.hpp"

#include <fmt/format.h>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mkperms_shm.h"
#include "perm_utils.h"
#include "tools/text/counted.hpp"

namespace tavrix::mapcheck {
namespace {

constexpr uint64_t kFolder = sizeof(fs_elem_s);
constexpr uint64_t kFoldersInAStep = 4096;  // between two reports of progress

struct Region {
  const char* name;
  uint64_t start;
  uint64_t size;
  uint64_t used;
};

class Verifier {
 public:
  Verifier(std::span<const std::byte> image, const Progress& progress)
      : image_(image), progress_(progress) {}

  Findings run() {
    if (!check_header() || !check_regions()) return findings_;
    const uint64_t folders = folders_.used / kFolder;
    listed_.assign(folders, 0);
    for (uint64_t index = 0; index < folders; ++index) {
      if (progress_ && index % kFoldersInAStep == 0) progress_(index, folders);
      check_folder(index * kFolder);
    }
    check_links(folders);
    check_totals(folders);
    return findings_;
  }

 private:
  // Returns a copy of a record, or nothing when it does not lie in the used part of its region.
  template <typename Record>
  [[nodiscard]] std::optional<Record> read(const Region& region, uint64_t offset) const {
    if (offset + sizeof(Record) > region.used) return std::nullopt;
    Record record;
    std::memcpy(&record, image_.data() + region.start + offset, sizeof record);
    return record;
  }
  [[nodiscard]] const char* bytes(const Region& region, uint64_t offset) const {
    return reinterpret_cast<const char*>(image_.data()) + region.start + offset;
  }

  bool check_header() {
    if (image_.size() < sizeof header_) {
      error(0, fmt::format("{} {} no header", text::counted(image_.size(), "byte"),
                           text::verb(image_.size(), "holds", "hold")));
      return false;
    }
    std::memcpy(&header_, image_.data(), sizeof header_);
    if (header_.signature != TAVRIX_BE_HEADER_SIGNATURE) {
      error(172, fmt::format("the header's signature is 0x{:08x}", uint32_t{header_.signature}));
      return false;
    }
    if (std::memchr(header_.mapname, 0, sizeof header_.mapname) == nullptr) {
      error(0, "the map's name has no NUL at its end");
    }
    return true;
  }

  bool check_regions() {
    folders_ = {"folders", header_.fselem_offset, header_.fselem_size, header_.next_free_fselem};
    names_ = {"names", header_.nameelem_offset, header_.nameelem_size, header_.next_free_nameelem};
    acls_ = {"ACLs", header_.acl_offset, header_.acl_size, header_.next_free_acl};
    lists_ = {"child lists", header_.list_offset, header_.list_size, header_.next_free_list};
    uint64_t end = sizeof header_;
    bool good = true;
    for (const Region* region : {&folders_, &names_, &acls_, &lists_}) {
      if (region->start != end) {
        good = error(
            124, fmt::format("the {} begin at {}, not at {}", region->name, region->start, end));
      }
      end = region->start + region->size;
      if (end > image_.size()) {
        good = error(124, fmt::format("the {} end at {}, beyond the image", region->name, end));
      }
      if (region->used > region->size) {
        good = error(124, fmt::format("the {} use {} of {}", region->name,
                                      text::counted(region->used, "byte"), region->size));
      }
    }
    if (folders_.used == 0 || folders_.used % kFolder != 0) {
      good = error(132, fmt::format("the folders use {}", text::counted(folders_.used, "byte")));
    }
    return good;
  }

  void check_folder(uint64_t offset) {
    const uint64_t at = folders_.start + offset;
    const auto folder = *read<fs_elem_s>(folders_, offset);
    if (folder.signature != FSELEMSIG) {
      error(at, fmt::format("a folder's signature is 0x{:08x}", uint32_t{folder.signature}));
      return;
    }
    const bool is_root = offset == 0;
    if (is_root) {
      if (folder.parent_offset != FSELEM_ROOT_OFFSET2) error(at, "the root was never finished");
      if ((folder.flags & FSELEM_FLAG_ROOT) == 0)
        error(at, "the first folder is not marked as the root");
    } else {
      if ((folder.flags & FSELEM_FLAG_ROOT) != 0)
        error(at, "a second folder is marked as the root");
      // The import makes a folder after its parent, so the parents of a sound image form no circle.
      if (folder.parent_offset >= offset || folder.parent_offset % kFolder != 0) {
        error(at, fmt::format("a folder's parent is at {}", uint32_t{folder.parent_offset}));
      }
    }
    if (folder.flags > 3) warn(at, fmt::format("a folder's flags are {}", uint32_t{folder.flags}));
    check_name(folder, at, is_root);
    check_acl(folder, at);
    check_children(folder, offset, at);
  }

  void check_name(const fs_elem_s& folder, uint64_t at, bool is_root) {
    const auto name = read<name_elem_s>(names_, folder.name_elem_offset);
    if (!name || name->signature != NAMESIG) {
      error(at, fmt::format("no name at {}", uint32_t{folder.name_elem_offset}));
      return;
    }
    const uint64_t text_at = uint64_t{folder.name_elem_offset} + sizeof(name_elem_s);
    const uint16_t length = name->name_len;
    if (text_at + length + 1 > names_.used) {
      error(at, fmt::format("a name of {} ends beyond the names", text::counted(length, "byte")));
      return;
    }
    const char* text = bytes(names_, text_at);
    const std::string_view view(text, length);
    if (text[length] != '\0') error(at, "a name has no NUL at its end");
    if (length == 0) error(at, "an empty name");
    if (name->hashval != process_namecomponent_4hash(text, length)) {
      error(at, fmt::format("the hash of the name \"{}\" is wrong", printable(view)));
    }
    if (is_root ? view != "/" : view.find('/') != std::string_view::npos) {
      error(at, fmt::format("a folder is named \"{}\"", printable(view)));
    }
    if (view.find('\0') != std::string_view::npos) error(at, "a name holds a NUL");
  }

  void check_acl(const fs_elem_s& folder, uint64_t at) {
    const auto acl = read<beacl_s>(acls_, folder.acl_offset);
    if (!acl || acl->signature != ACLSIG) {
      error(at, fmt::format("no ACL at {}", uint32_t{folder.acl_offset}));
      return;
    }
    const uint64_t first = uint64_t{folder.acl_offset} + sizeof(beacl_s);
    if (first + uint64_t{acl->num_aces} * sizeof(beace_s) > acls_.used) {
      error(at, fmt::format("an ACL of {} ends beyond the ACLs",
                            text::counted(uint32_t{acl->num_aces}, "entry")));
      return;
    }
    aces_ += acl->num_aces;
    for (uint64_t index = 0; index < acl->num_aces; ++index) {
      const auto ace = *read<beace_s>(acls_, first + index * sizeof(beace_s));
      if (ace.idtype != IDTYPE_UID && ace.idtype != IDTYPE_GID) {
        error(at, fmt::format("an entry of type {}", uint32_t{ace.idtype}));
      }
      if (ace.perm_mask > 31)
        warn(at, fmt::format("an entry's mask is {}", uint16_t{ace.perm_mask}));
    }
  }

  void check_children(const fs_elem_s& folder, uint64_t offset, uint64_t at) {
    const auto list = read<child_list_s>(lists_, folder.clist_offset);
    // A leaf has the offset 0, which is the first list; readers check that list's signature too.
    if (!list || list->signature != LISTSIG) {
      error(at, fmt::format("no child list at {}", uint32_t{folder.clist_offset}));
      return;
    }
    if ((folder.flags & FSELEM_FLAG_NO_CHILD_LIST) != 0) return;
    const uint64_t first = uint64_t{folder.clist_offset} + sizeof(child_list_s);
    if (first + uint64_t{list->num_children} * sizeof(uint32_t) > lists_.used) {
      error(at, fmt::format("a list of {} ends beyond the child lists",
                            text::counted(uint32_t{list->num_children}, "child")));
      return;
    }
    if (list->next_index != list->num_children) {
      error(at, fmt::format("a list has {} of {}", uint32_t{list->next_index},
                            text::counted(uint32_t{list->num_children}, "child")));
    }
    // Lists may overlap in a damaged image. This limit bounds the work: without overlaps there are
    // fewer slots than the region has bytes.
    slots_seen_ += list->num_children;
    if (slots_seen_ > lists_.size) {
      if (!std::exchange(overlap_told_, true)) error(at, "child lists overlap");
      return;
    }
    for (uint64_t slot = 0; slot < list->num_children; ++slot) {
      check_child(*read<uint32_t>(lists_, first + slot * sizeof(uint32_t)), offset, at);
    }
  }

  void check_child(uint32_t child_offset, uint64_t parent, uint64_t at) {
    const auto child =
        child_offset % kFolder == 0 ? read<fs_elem_s>(folders_, child_offset) : std::nullopt;
    if (!child || child_offset == 0) {
      error(at, fmt::format("no child at {}", child_offset));
      return;
    }
    if (child->parent_offset != parent) {
      error(at, fmt::format("the child at {} has another parent", child_offset));
    }
    if (listed_[child_offset / kFolder]++ > 0) {
      error(at, fmt::format("the child at {} is listed twice", child_offset));
    }
  }

  void check_links(uint64_t folders) {
    for (uint64_t index = 1; index < folders; ++index) {
      if (listed_[index] == 0)
        error(folders_.start + index * kFolder, "a folder is in no child list");
    }
  }

  void check_totals(uint64_t folders) {
    if (header_.total_fselems != folders) {
      error(112, fmt::format("the header counts {}, {} {} there",
                             text::counted(uint32_t{header_.total_fselems}, "folder"), folders,
                             text::verb(folders, "is", "are")));
    }
    if (header_.total_aces < aces_) {
      error(116, fmt::format("the header counts {}, {} {} there",
                             text::counted(uint32_t{header_.total_aces}, "entry"), aces_,
                             text::verb(aces_, "is", "are")));
    }
  }

  static std::string printable(std::string_view text) {
    std::string result(text.substr(0, 100));
    for (char& c : result) {
      if (static_cast<unsigned char>(c) < 0x20) c = '?';
    }
    return result;
  }

  bool error(uint64_t at, std::string text) {
    findings_.add({Severity::kError, "", "", at, std::move(text)});
    return false;
  }
  void warn(uint64_t at, std::string text) {
    findings_.add({Severity::kWarning, "", "", at, std::move(text)});
  }

  std::span<const std::byte> image_;
  const Progress& progress_;
  tavrix_be_header header_{};
  Region folders_{}, names_{}, acls_{}, lists_{};
  std::vector<uint8_t> listed_;
  uint64_t aces_ = 0;
  uint64_t slots_seen_ = 0;
  bool overlap_told_ = false;
  Findings findings_;
};

}  // namespace

Findings verify(std::span<const std::byte> image, const Progress& progress) {
  return Verifier(image, progress).run();
}

}  // namespace tavrix::mapcheck
