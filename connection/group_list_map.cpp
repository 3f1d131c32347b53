// SPDX-License-Identifier: LGPL-3.0-or-later
// The group list map file: mapped read-only, searched from its start.

#include <fcntl.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "tavrix_getgrouplist.h"

namespace tavrix {
namespace {

// The mapped file and its size. In a damaged file records and names may start at any byte, so
// records are copied out, and a name that runs off the end equals nothing.
class GroupMap {
 public:
  GroupMap(const mapheader* map, uint32_t size) noexcept
      : base_(reinterpret_cast<const std::byte*>(map)), size_(size) {}

  [[nodiscard]] const mapheader& header() const noexcept {
    return *reinterpret_cast<const mapheader*>(base_);
  }
  [[nodiscard]] uint32_t size() const noexcept { return size_; }
  [[nodiscard]] uint32_t last_byte() const noexcept { return size_ - 1; }
  [[nodiscard]] const std::byte* at(uint32_t offset) const noexcept { return base_ + offset; }

  [[nodiscard]] bool holds(uint64_t offset, uint64_t length) const noexcept {
    return offset + length <= size_;
  }
  template <typename Record>
  [[nodiscard]] Record record(uint32_t table, uint32_t index) const noexcept {
    Record record;
    std::memcpy(&record, base_ + table + std::size_t{index} * sizeof record, sizeof record);
    return record;
  }
  [[nodiscard]] bool name_equals(uint32_t offset, const char* wanted) const noexcept {
    const char* name = reinterpret_cast<const char*>(base_) + offset;
    const std::size_t length = std::strlen(wanted);
    return length < size_ - offset && strncasecmp(name, wanted, length) == 0 &&
           name[length] == '\0';
  }

 private:
  const std::byte* base_;
  uint32_t size_;
};

bool has_sound_size(off_t size) {
  if (size < off_t{TAVRIX_GROUPMAP_MIN_SIZE}) {
    debug_printf("File too short\n");
    return false;
  }
  if (size % off_t{TAVRIX_GROUPMAP_ALIGNMENT} != 0) {
    debug_printf("File not aligned\n");
    return false;
  }
  return true;
}

bool is_long_enough(const mapheader* map, uint32_t size) {
  if (map != nullptr && size >= TAVRIX_GROUPMAP_MIN_SIZE) return true;
  debug_printf("map too short, bail\n");
  return false;
}

// The checks add in 32 bits and measure the gid list from the name. Writers of the file rely on
// what passes, so neither may become stricter.
bool passes_checks(const GroupMap& map, const uitem& user, uint32_t index) {
  const uint32_t limit = map.last_byte();
  if (user.noffs > limit || user.noffs + user.nlen > limit) {
    debug_printf("user item %u name beyond map, bail\n", index);
    return false;
  }
  if (user.noffs + user.glen * 4U > limit) {
    debug_printf("group item %u name beyond map, bail\n", index);
    return false;
  }
  return true;
}

// Copies the gids from the mapping. Bytes behind the mapping are read through the kernel, which
// returns an error where a plain copy would end the process.
bool copy_gids(const GroupMap& map, uint32_t offset, gid_t* gids, std::size_t bytes) {
  if (map.holds(offset, bytes)) {
    std::memcpy(gids, map.at(offset), bytes);
    return true;
  }
  iovec to{gids, bytes};
  iovec from{const_cast<std::byte*>(map.at(offset)), bytes};
  return process_vm_readv(getpid(), &to, 1, &from, 1, 0) == static_cast<ssize_t>(bytes);
}

// Collects thousands of gids into few writes, because standard error is not buffered.
void print_gids(const char* user, const gid_t* gids, uint32_t count) {
  debug_printf("New gid list begins for user %s = 0x%x\n", user,
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(gids)));
  constexpr std::size_t kLongestItem = 40;
  char line[4096];
  std::size_t used = 0;
  for (uint32_t i = 0; i < count; ++i) {
    used += static_cast<std::size_t>(std::snprintf(line + used, sizeof line - used,
                                                   "gid[%d] = %u\t", static_cast<int>(i), gids[i]));
    if (sizeof line - used >= kLongestItem) continue;
    debug_printf("%s", line);
    used = 0;
  }
  if (used > 0) debug_printf("%s", line);
  debug_printf("\nEnd of Gid List\n");
}

gid_t* copy_of_list(const GroupMap& map, const uitem& user, const char* username,
                    unsigned int* grouplen) {
  Malloced<gid_t> gids(static_cast<gid_t*>(std::calloc(user.glen, sizeof(gid_t))));
  if (gids == nullptr) return nullptr;
  if (!copy_gids(map, user.goffs, gids.get(), std::size_t{user.glen} * sizeof(gid_t))) {
    return nullptr;
  }
  *grouplen = user.glen;
  print_gids(username, gids.get(), user.glen);
  return gids.release();
}

}  // namespace
}  // namespace tavrix

using tavrix::GroupMap;

void debug_printf(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stderr, format, arguments);
  va_end(arguments);
}

void* tavrix_mapfile(const char* path, unsigned int* mapsize) {
  struct stat status {};
  if (path == nullptr || stat(path, &status) == -1) return nullptr;
  if (!tavrix::has_sound_size(status.st_size)) return nullptr;
  const tavrix::Fd file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file) {
    debug_printf("Failed to open %s: %s", path, strerror(errno));
    return nullptr;
  }
  // The name may lead to another file by now; the open one counts.
  if (fstat(file.get(), &status) == -1 || !tavrix::has_sound_size(status.st_size)) return nullptr;
  const auto size = static_cast<unsigned int>(status.st_size);
  void* map = mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), 0);
  // Only null is a failure here: callers expect the all-ones value of a failed mmap() unchanged.
  if (map == nullptr) {
    debug_printf("Failed to mmap %s: %s", path, strerror(errno));
    *mapsize = 0;
    return nullptr;
  }
  *mapsize = size;
  return map;
}

void tavrix_unmap(void* map, unsigned int size) {
  if (munmap(map, size) == -1) debug_printf("unmapping group map %s", strerror(errno));
}

gid_t tavrix_reserved_gid(const mapheader* map, unsigned int mapsize, const char* groupname) {
  if (!tavrix::is_long_enough(map, mapsize)) return 0;
  const GroupMap groups(map, mapsize);
  const mapheader& header = groups.header();
  if (!groups.holds(header.roffs, uint64_t{header.rnum} * sizeof(ritem))) {
    debug_printf("reserved group table beyond map, bail\n");
    return 0;
  }
  for (uint32_t i = 0; i < header.rnum; ++i) {
    const auto group = groups.record<ritem>(header.roffs, i);
    if (group.noffs > groups.last_byte()) {
      debug_printf("reserved group item %u beyond map, bail\n", i);
      return 0;
    }
    if (groups.name_equals(group.noffs, groupname)) return group.gid;
  }
  return 0;
}

gid_t* tavrix_getgrouplist(const mapheader* map, unsigned int mapsize, const char* username,
                           unsigned int* grouplen) {
  *grouplen = 0;
  if (!tavrix::is_long_enough(map, mapsize)) return nullptr;
  const GroupMap groups(map, mapsize);
  const mapheader& header = groups.header();
  for (uint32_t i = 0; i < header.unum; ++i) {
    // Nothing else bounds the table, so a record beyond the file ends the search.
    if (!groups.holds(uint64_t{header.uoffs} + uint64_t{i} * sizeof(uitem), sizeof(uitem))) break;
    const auto user = groups.record<uitem>(header.uoffs, i);
    if (!tavrix::passes_checks(groups, user, i)) break;
    if (!groups.name_equals(user.noffs, username)) continue;
    return tavrix::copy_of_list(groups, user, username, grouplen);
  }
  return nullptr;
}
