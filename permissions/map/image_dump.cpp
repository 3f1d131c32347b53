// SPDX-License-Identifier: LGPL-3.0-or-later
// Writes an image to the system log, for developers.

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/map/image.hpp"
#include "read_perms.h"

namespace tavrix {
namespace {

constexpr int kSummaryLevel = 7;
constexpr int kNameLevel = 10;

// The texts keep their old slips: scripts pick the numbers out of them.
void log_summary(const tavrix_be_header& header) {
  TAVRIX_LOG(kSummaryLevel, "Summary");
  TAVRIX_LOG(kSummaryLevel, "Map name %.*s",
             static_cast<int>(strnlen(header.mapname, sizeof header.mapname)), header.mapname);
  TAVRIX_LOG(kSummaryLevel, "next map %.*s",
             static_cast<int>(strnlen(header.nextmap, sizeof header.nextmap)), header.nextmap);
  TAVRIX_LOG(kSummaryLevel, "Generation number %lu",
             static_cast<unsigned long>(header.generationnum));
  TAVRIX_LOG(kSummaryLevel, "Time stamp %lu", static_cast<unsigned long>(header.timestamp));
  TAVRIX_LOG(kSummaryLevel, "Total filesystem elems %u", header.total_fselems);
  TAVRIX_LOG(kSummaryLevel, "Total ACEs %u", header.total_aces);
  TAVRIX_LOG(kSummaryLevel, "Total lists %u", header.total_lists);
  TAVRIX_LOG(kSummaryLevel, "Fselem offset %u", header.fselem_offset);
  TAVRIX_LOG(kSummaryLevel, "Fselem size %u", header.fselem_size);
  TAVRIX_LOG(kSummaryLevel, "Next free fselem  %u", header.next_free_fselem);
  TAVRIX_LOG(kSummaryLevel, "Name elem offser %u", header.nameelem_offset);
  TAVRIX_LOG(kSummaryLevel, "Name eleem size %u", header.nameelem_size);
  TAVRIX_LOG(kSummaryLevel, "Next free nameelem %u", header.next_free_nameelem);
  TAVRIX_LOG(kSummaryLevel, "Acl offset %u", header.acl_offset);
  TAVRIX_LOG(kSummaryLevel, "ACL size %u", header.acl_size);
  TAVRIX_LOG(kSummaryLevel, "Next free ACL %u", header.next_free_acl);
  TAVRIX_LOG(kSummaryLevel, "List offset %u", header.list_offset);
  TAVRIX_LOG(kSummaryLevel, "List size %u", header.list_size);
  TAVRIX_LOG(kSummaryLevel, "Next free list %u", header.next_free_list);
  TAVRIX_LOG(kSummaryLevel, "Signature %u", header.signature);
}

const name_elem_s& raw_name_of(const tavrix_be_header& header, const fs_elem_s& folder) {
  const auto* base = reinterpret_cast<const std::byte*>(&header);
  return *reinterpret_cast<const name_elem_s*>(base + header.nameelem_offset +
                                               folder.name_elem_offset);
}

// Checks one folder and logs its line. Returns the list of its children, or null for a folder
// without one.
const child_list_s* log_folder(const tavrix_be_header& header, const fs_elem_s& folder, int level) {
  require_header(header);
  require_fselem(folder);
  const ImageView image(&header);
  // A folder without a list has offset 0, which names the first list of the region.
  const child_list_s& children = image.children_of(folder);
  const name_elem_s& name = raw_name_of(header, folder);
  const CString text(strndup(ImageView::bytes_of(name), name.name_len));
  TAVRIX_LOG(kNameLevel, "Level %d Name %s", level + 1, text == nullptr ? "" : text.get());
  return (folder.flags & FSELEM_FLAG_NO_CHILD_LIST) != 0 ? nullptr : &children;
}

// The path from the first folder to the present one. It is on the heap, because a map may be deeper
// than the stack of a thread allows.
class Way {
 public:
  struct Step {
    const child_list_s* children;
    uint32_t next;  // slot
  };

  // false when there is no memory.
  [[nodiscard]] bool enter(const child_list_s* children) noexcept {
    if (children == nullptr) return true;
    if (count_ == room_ && !grow()) return false;
    steps_.get()[count_++] = {children, 0};
    return true;
  }
  [[nodiscard]] bool is_empty() const noexcept { return count_ == 0; }
  [[nodiscard]] std::size_t depth() const noexcept { return count_; }
  Step& last() noexcept { return steps_.get()[count_ - 1]; }
  void leave() noexcept { --count_; }

 private:
  bool grow() noexcept {
    const std::size_t room = room_ == 0 ? 64 : room_ * 2;
    auto* grown = static_cast<Step*>(std::realloc(steps_.get(), room * sizeof(Step)));
    if (grown == nullptr) return false;
    static_cast<void>(steps_.release());
    steps_.reset(grown);
    room_ = room;
    return true;
  }
  Malloced<Step> steps_;
  std::size_t count_ = 0, room_ = 0;
};

}  // namespace
}  // namespace tavrix

void print_tree(tavrix_be_header* beheader) {
  tavrix::log_summary(*beheader);
  auto* root = reinterpret_cast<fs_elem_s*>(reinterpret_cast<std::byte*>(beheader) +
                                            beheader->fselem_offset);
  tavrix::require_fselem(*root);
  walk_tree(beheader, root, 0);
}

void walk_tree(tavrix_be_header* beheader, fs_elem_s* parent, int level) {
  tavrix::Way way;
  const tavrix::ImageView image(beheader);
  bool is_whole = way.enter(tavrix::log_folder(*beheader, *parent, level));
  while (is_whole && !way.is_empty()) {
    tavrix::Way::Step& step = way.last();
    if (step.next == step.children->next_index) {
      way.leave();
      continue;
    }
    const uint32_t child = tavrix::ImageView::child_at(*step.children, step.next++);
    const int child_level = level + static_cast<int>(way.depth());
    is_whole = way.enter(tavrix::log_folder(*beheader, image.fselem(child), child_level));
  }
  if (!is_whole) TAVRIX_LOG(0, "No memory %s", strerror(errno));
}
