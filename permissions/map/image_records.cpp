// SPDX-License-Identifier: LGPL-3.0-or-later
// The primitives by which an import writes the records of a map image.

#include <cstring>

#include "internal/assert.hpp"
#include "logging.h"
#include "perm_utils.h"
#include "permissions/map/image.hpp"
#include "permissions/map/name_traces.hpp"

namespace tavrix {
namespace {

// A caller that breaks one of these conditions has a fault in its code, not in its input. So these
// functions log the place and abort.
void require_stack_element(const jsonstack* stelem, const char* function, int line) {
  if (stelem == nullptr) {
    TAVRIX_LOG(0, "%s(%d): Null stelem ", function, line);
    TAVRIX_REQUIRE(stelem != nullptr, "stelem != NULL");
  }
}

void require_list_arguments(const memsummary_s* msum, const jsonstack* stelem) {
  if (msum == nullptr) {
    TAVRIX_LOG(0, "Invalid memsummary");
    TAVRIX_REQUIRE(msum != nullptr, "memsummary != NULL");
  }
  if (stelem == nullptr) {
    TAVRIX_LOG(0, "Invalid stelem");
    TAVRIX_REQUIRE(stelem != nullptr, "stelem != NULL");
  }
}

void require_name_arguments(const memsummary_s* msum, uint32_t len, const char* name,
                            const jsonstack* stelem, const char* function) {
  if (name == nullptr || len == 0) {
    TAVRIX_LOG(0, "%s(%d):Invalid name parameters", function, __LINE__);
    TAVRIX_REQUIRE(name != nullptr && len > 0, "name != NULL && len > 0");
  }
  if (stelem == nullptr) {
    TAVRIX_LOG(0, "%s(%d): Invalid stelem", function, __LINE__);
    TAVRIX_REQUIRE(stelem != nullptr, "stelem != NULL");
  }
  if (msum == nullptr) {
    TAVRIX_LOG(0, "%s(%d): Invalid memsummary", function, __LINE__);
    TAVRIX_REQUIRE(msum != nullptr, "memsummary != NULL");
  }
}

void require_folder_entry(const jsonstack* stelem) {
  TAVRIX_REQUIRE(stelem->stetype == STELEM_TYPE_FSELEM, "stelem->stetype == STELEM_TYPE_FSELEM");
}

}  // namespace
}  // namespace tavrix

using tavrix::ImageWriter;

membe_shm_err create_fselem(memsummary_s* msum, jsonstack* stelem, uint32_t parent_offset) {
  tavrix::require_stack_element(stelem, __func__, __LINE__);
  TAVRIX_REQUIRE(msum != nullptr, "memsummary != NULL");
  const ImageWriter image(*msum);
  tavrix_be_header& header = image.checked_header();
  const bool is_root = parent_offset == FSELEM_ROOT_OFFSET;

  stelem->stetype = STELEM_TYPE_FSELEM;
  stelem->jsonoffset = header.next_free_fselem;
  if (is_root) {
    TAVRIX_REQUIRE(
        header.next_free_fselem == 0 || header.next_free_fselem == sizeof(fs_elem_s),
        "beheader->next_free_fselem == 0 || beheader->next_free_fselem == sizeof(fs_elem_s)");
  } else {
    static_cast<void>(image.fselem(parent_offset));
  }
  image.raw_fselem(is_root ? 0 : header.next_free_fselem) =
      fs_elem_s{.signature = FSELEMSIG,
                .parent_offset = parent_offset,
                .name_elem_offset = 0,
                .clist_offset = 0,
                .acl_offset = 0,
                .flags = 0};
  header.next_free_fselem += static_cast<uint32_t>(sizeof(fs_elem_s));
  return SHM_MEMBE_OK;
}

membe_shm_err create_nameelem(memsummary_s* msum, uint32_t len, const char* name,
                              jsonstack* stelem) {
  tavrix::require_name_arguments(msum, len, name, stelem, __func__);
  // The record has 16 bits for the length; readers could not step over a longer name.
  TAVRIX_REQUIRE(len <= UINT16_MAX, "len <= UINT16_MAX");
  tavrix::require_folder_entry(stelem);
  const ImageWriter image(*msum);
  tavrix_be_header& header = image.checked_header();
  fs_elem_s& folder = image.fselem(stelem->jsonoffset);
  TAVRIX_REQUIRE(folder.name_elem_offset == 0, "fselem->name_elem_offset == 0");

  const uint32_t offset = header.next_free_nameelem;
  const std::size_t size = sizeof(name_elem_s) + len + 1;
  std::byte* bytes = image.bytes(header.nameelem_offset, offset, size);
  const name_elem_s record{.name_len = static_cast<uint16_t>(len),
                           .padding = 0,
                           .signature = NAMESIG,
                           .hashval = process_namecomponent_4hash(name, len)};
  std::memcpy(bytes, &record, sizeof record);
  std::memcpy(bytes + sizeof record, name, len);
  bytes[sizeof record + len] = std::byte{0};
  tavrix::print_name_trace(name, len, record.hashval);

  folder.name_elem_offset = offset;
  header.next_free_nameelem += static_cast<uint32_t>(size);
  return SHM_MEMBE_OK;
}

membe_shm_err create_child_list(memsummary_s* msum, uint32_t num_children, jsonstack* stelem) {
  tavrix::require_list_arguments(msum, stelem);
  tavrix::require_folder_entry(stelem);
  const ImageWriter image(*msum);
  tavrix_be_header& header = image.checked_header();
  fs_elem_s& folder = image.fselem(stelem->jsonoffset);

  const uint32_t offset = header.next_free_list;
  const std::size_t size = sizeof(child_list_s) + std::size_t{num_children} * sizeof(uint32_t);
  std::byte* bytes = image.bytes(header.list_offset, offset, size);
  std::memset(bytes, 0, size);
  const child_list_s record{.signature = LISTSIG, .num_children = num_children, .next_index = 0};
  std::memcpy(bytes, &record, sizeof record);

  folder.clist_offset = offset;
  header.next_free_list += static_cast<uint32_t>(size);
  return SHM_MEMBE_OK;
}

membe_shm_err add_to_parentlist(memsummary_s* msum, jsonstack* child, uint32_t parent_offset) {
  tavrix::require_list_arguments(msum, child);
  tavrix::require_folder_entry(child);
  const ImageWriter image(*msum);
  const fs_elem_s& parent = image.fselem(parent_offset);
  child_list_s& list = image.children_of(parent);

  image.set_child(parent, list.next_index, child->jsonoffset);
  list.next_index += 1;
  image.fselem(child->jsonoffset).parent_offset = parent_offset;
  return SHM_MEMBE_OK;
}
