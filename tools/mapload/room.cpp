// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/room.hpp"

#include <fmt/format.h>
#include <sys/statvfs.h>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>

#include "internal/scoped.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::mapload {
namespace {

// Space for the mark, the checksums and what a file system needs for itself.
constexpr uint64_t kSlack = 64 << 10;
constexpr uint64_t kFiles = 8;

std::string lack_of_disk(uint64_t image_bytes) {
  struct statvfs disk {};
  if (statvfs(kFolder, &disk) != 0) return {};  // unknown: the writes will show it
  const uint64_t free = uint64_t{disk.f_bfree} * disk.f_frsize;
  if (free < image_bytes + kSlack) {
    return fmt::format("no space in {}: the local copy needs {}, {} {} free", kFolder,
                       text::counted(image_bytes + kSlack, "byte"), free,
                       text::verb(free, "is", "are"));
  }
  if (disk.f_files != 0 && disk.f_ffree < kFiles) {
    return fmt::format("no space in {}: {} more files are needed, {} {} free", kFolder, kFiles,
                       uint64_t{disk.f_ffree}, text::verb(disk.f_ffree, "is", "are"));
  }
  return {};
}

std::string lack_of_segment(uint64_t image_bytes) {
  uint64_t most = 0;
  if (!(std::ifstream("/proc/sys/kernel/shmmax") >> most) || image_bytes <= most) return {};
  return fmt::format("a table of {} bytes is too large: kernel.shmmax is {}", image_bytes, most);
}

std::string lack_of_memory(uint64_t needed) {
  std::ifstream in("/proc/meminfo");
  uint64_t free = 0;
  bool known = false;
  for (std::string line; std::getline(in, line);) {
    unsigned long kilobytes = 0;
    if (std::sscanf(line.c_str(), "MemAvailable: %lu", &kilobytes) == 1) known = true;
    if (kilobytes != 0 || std::sscanf(line.c_str(), "SwapFree: %lu", &kilobytes) == 1) {
      free += uint64_t{kilobytes} << 10U;
    }
  }
  if (!known || free >= needed) return {};
  return fmt::format("not enough memory: the import needs {} bytes, {} are free", needed, free);
}

}  // namespace

std::string lack_of_room(uint64_t image_bytes, uint64_t data_file_bytes) {
  std::string lack = lack_of_segment(image_bytes);
  if (lack.empty()) lack = lack_of_disk(image_bytes);
  if (lack.empty()) lack = lack_of_memory(image_bytes + data_file_bytes);
  return lack;
}

bool is_lack_of_disk(uint64_t image_bytes) { return !lack_of_disk(image_bytes).empty(); }

}  // namespace tavrix::mapload
