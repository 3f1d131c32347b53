// SPDX-License-Identifier: LGPL-3.0-or-later
// The layout of a map image: the sizes of its regions, and the header that names them.

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "mkperms_shm.h"

namespace tavrix {
namespace {

// Advises the kernel on the whole pages of a block. Advice that the kernel does not know, or cannot
// follow, changes nothing.
void advise(std::byte* block, std::size_t size, int advice) noexcept {
  const auto page = static_cast<std::uintptr_t>(getpagesize());
  const auto start = (reinterpret_cast<std::uintptr_t>(block) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(block) + size) / page * page;
  const ErrnoKeeper keep;
  if (start < end) madvise(reinterpret_cast<void*>(start), end - start, advice);
}

// Zeroes an image whose pages usually do not exist yet. The advice on huge pages comes first,
// because small pages that exist are not replaced. The pages of a slice are made in one call, which
// costs less than a page fault for each of them, and the slice is zeroed while it is in the cache.
void zero_image(void* image, std::size_t size) noexcept {
  constexpr std::size_t kSlice = std::size_t{2} << 20;  // a huge page
  auto* bytes = static_cast<std::byte*>(image);
  advise(bytes, size, MADV_HUGEPAGE);
  for (std::size_t at = 0; at < size; at += kSlice) {
    const std::size_t length = std::min(kSlice, size - at);
    advise(bytes + at, length, MADV_POPULATE_WRITE);
    std::memset(bytes + at, 0, length);
  }
}

}  // namespace
}  // namespace tavrix

void estimate_shmbe_size(memsummary_s* sum) {
  if (sum == nullptr) {
    TAVRIX_LOG(0, " NULL summary");
    return;
  }
  // The sum of the regions that init_shmbe() lays out, in the same 32-bit arithmetic.
  constexpr auto kPerFolder =
      static_cast<uint32_t>(sizeof(fs_elem_s) + sizeof(name_elem_s) + sizeof(beacl_s) +
                            sizeof(child_list_s) + sizeof(uint32_t));
  static_assert(kPerFolder == 60);
  sum->memsize = static_cast<uint32_t>(sizeof(tavrix_be_header)) + kPerFolder * sum->total_fselems +
                 sum->total_namelen + static_cast<uint32_t>(sizeof(beace_s)) * sum->total_aces;
}

membe_shm_err init_shmbe(memsummary_s* sum) {
  if (sum == nullptr || sum->membuf == nullptr) {
    TAVRIX_LOG(0, "Shared memory not present");
    return SHM_MEMBE_ERR_BADARGS;
  }
  const uint32_t folders = sum->total_fselems;
  tavrix_be_header header{};
  std::memcpy(header.mapname, sum->mapname, sizeof header.mapname);
  std::memcpy(header.version, sum->version, sizeof header.version);
  header.generationnum = sum->generationnum;
  header.timestamp = sum->timestamp;
  header.total_fselems = folders;
  header.total_aces = sum->total_aces;

  // The regions follow one another without alignment.
  header.fselem_offset = static_cast<uint32_t>(sizeof header);
  header.fselem_size = static_cast<uint32_t>(sizeof(fs_elem_s)) * folders;
  header.nameelem_offset = header.fselem_offset + header.fselem_size;
  header.nameelem_size = sum->total_namelen + static_cast<uint32_t>(sizeof(name_elem_s)) * folders;
  header.acl_offset = header.nameelem_offset + header.nameelem_size;
  header.acl_size = static_cast<uint32_t>(sizeof(beace_s)) * sum->total_aces +
                    static_cast<uint32_t>(sizeof(beacl_s)) * folders;
  header.list_offset = header.acl_offset + header.acl_size;
  // Each folder but the root is the child of exactly one folder, so one slot per folder is enough.
  header.list_size = static_cast<uint32_t>(sizeof(child_list_s) + sizeof(uint32_t)) * folders;
  header.signature = TAVRIX_BE_HEADER_SIGNATURE;

  tavrix::zero_image(sum->membuf, sum->memsize);
  // An image that will be read from a truncated local copy may not even hold a header.
  std::memcpy(sum->membuf, &header, std::min<std::size_t>(sizeof header, sum->memsize));
  return SHM_MEMBE_OK;
}
