// An image as lines of the system log, for a developer with a debug level to spare.

#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "permissions/image.hpp"
#include "read_perms.h"

namespace tavrix {
namespace {

constexpr int kSummaryLevel = 7;
constexpr int kNameLevel = 10;

// The texts are as they have always been, slips included: scripts pick the numbers out of them.
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
  tavrix::require_header(*beheader);
  tavrix::require_fselem(*parent);
  const tavrix::ImageView image(beheader);
  // A leaf's offset is 0 and names the first list of the region, whose signature is as good.
  const child_list_s& children = image.children_of(*parent);

  const name_elem_s& name = tavrix::raw_name_of(*beheader, *parent);
  const tavrix::CString text(strndup(tavrix::ImageView::bytes_of(name), name.name_len));
  TAVRIX_LOG(tavrix::kNameLevel, "Level %d Name %s", level + 1, text == nullptr ? "" : text.get());

  if ((parent->flags & FSELEM_FLAG_NO_CHILD_LIST) != 0) return;
  for (uint32_t slot = 0; slot < children.next_index; ++slot) {
    const uint32_t child = tavrix::ImageView::child_at(children, slot);
    const fs_elem_s& folder = image.fselem(child);
    walk_tree(beheader, const_cast<fs_elem_s*>(&folder), level + 1);
  }
}
