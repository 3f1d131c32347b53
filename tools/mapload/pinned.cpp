// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/pinned.hpp"

#include <sys/shm.h>
#include <cstring>

#include "mkperms_shm.h"

namespace tavrix::mapload {
namespace {

// The number of places in the kernel's array of segments; 0 when it cannot be asked.
int places() {
  struct shm_info info {};
  const int highest = shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds*>(&info));
  return highest < 0 ? 0 : highest + 1;
}

SegmentLook look_of(const struct shmid_ds& info) {
  constexpr unsigned kPermissionBits = 0777;
  return {(info.shm_perm.mode & SHM_DEST) != 0, info.shm_perm.mode & kPermissionBits,
          info.shm_nattch, info.shm_segsz};
}

bool holds_a_map(const Segment& segment) {
  const Attached table(segment);
  if (!table) return false;
  tavrix_be_header header{};
  std::memcpy(&header, table.bytes().data(), sizeof header);
  return header.signature == TAVRIX_BE_HEADER_SIGNATURE;
}

}  // namespace

bool may_be_old_table(const SegmentLook& look) {
  return look.is_removed && look.permission_bits == 0 && look.attachments > 0 &&
         look.bytes >= sizeof(tavrix_be_header);
}

std::vector<PinnedTable> pinned_tables() {
  std::vector<PinnedTable> found;
  const int end = places();
  for (int place = 0; place < end; ++place) {
    struct shmid_ds info {};
    const int id = shmctl(place, SHM_STAT, &info);
    if (id == -1 || !may_be_old_table(look_of(info))) continue;
    const Segment segment{id, info.shm_ctime, info.shm_cpid, info.shm_segsz};
    if (holds_a_map(segment)) found.push_back({segment, info.shm_nattch});
  }
  return found;
}

}  // namespace tavrix::mapload
