// SPDX-License-Identifier: LGPL-3.0-or-later
// The shared segment of events: it is made, attached, emptied and removed here. A sweeper may
// replace it at any time, so every call looks it up afresh.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/parameters.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix {
namespace {

constexpr int kEveryone = 0666;

key_t buffer_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_BUFFER_KEY_ID); }

}  // namespace

std::size_t staging_segment_size() noexcept {
  return static_cast<std::size_t>(std::max(parameter(PARAM_STAGING_BUFFER_SIZE), 0));
}

void store_staging_head(staging_buffer_s& buffer, uint32_t num_records,
                        uint32_t next_offset) noexcept {
  const staging_buffer_s wanted{
      .num_records = num_records, .next_offset = next_offset, .last_flush_time = 0};
  uint64_t head = 0;
  static_assert(offsetof(staging_buffer_s, last_flush_time) == sizeof head);
  std::memcpy(&head, &wanted, sizeof head);
  __atomic_store_n(reinterpret_cast<uint64_t*>(&buffer), head, __ATOMIC_RELEASE);
}

void empty_staging_buffer(staging_buffer_s& buffer, std::size_t size) noexcept {
  store_staging_head(buffer, 0, kEmptyStagingBuffer);
  constexpr std::size_t kHead = offsetof(staging_buffer_s, last_flush_time);
  if (size > kHead) {
    std::memset(reinterpret_cast<std::byte*>(&buffer) + kHead, 0, size - kHead);
  }
}

void empty_used_part(staging_buffer_s& buffer, std::size_t size) noexcept {
  constexpr std::size_t kHead = offsetof(staging_buffer_s, last_flush_time);
  constexpr std::size_t kStretch = 64 << 10;  // more than any record of the hooks
  auto* bytes = reinterpret_cast<std::byte*>(&buffer);
  const std::size_t end = std::clamp<std::size_t>(buffer.next_offset, kHead, size);
  store_staging_head(buffer, 0, kEmptyStagingBuffer);
  std::memset(bytes + kHead, 0, end - kHead);
  for (std::size_t at = end; at < size; at += kStretch) {
    const std::size_t length = std::min(kStretch, size - at);
    const bool is_zero =
        bytes[at] == std::byte{0} && std::memcmp(bytes + at, bytes + at + 1, length - 1) == 0;
    if (is_zero) break;
    std::memset(bytes + at, 0, length);
  }
}

}  // namespace tavrix

int create_staging_buffer(void) {
  const key_t key = tavrix::buffer_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create shm key, errno = %d", errno);
    return -1;
  }
  if (shmget(key, tavrix::staging_segment_size(), IPC_CREAT | IPC_EXCL | tavrix::kEveryone) == -1) {
    TAVRIX_LOG(0, "\ncannot create shared memory for staging buffer, errno = %d", errno);
    return -1;
  }
  return initialize_staging_buffer();
}

int initialize_staging_buffer(void) {
  const key_t key = tavrix::buffer_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create shm key, errno = %d", errno);
    return -1;
  }
  const std::size_t size = tavrix::staging_segment_size();
  const int shmid = shmget(key, size, tavrix::kEveryone);
  if (shmid == -1) {
    TAVRIX_LOG(0, "cannot access shared memory for staging buffer, errno = %d", errno);
    return -1;
  }
  const tavrix::ShmAttachment segment(shmat(shmid, nullptr, 0));
  if (!segment) {
    TAVRIX_LOG(0, "cannot attach to shm, errno = %d", errno);
    return -1;
  }
  // A segment is a page at least, so the header fits whatever the size is.
  tavrix::empty_staging_buffer(*static_cast<staging_buffer_s*>(segment.get()), size);
  return 0;
}

staging_buffer_s* tavrix::attach_staging_segment(StagingSegment& segment) noexcept {
  segment.key = buffer_key();
  if (segment.key == -1) {
    TAVRIX_LOG(0, "cannot create staging buffer key. errno = %d(%s)", errno, strerror(errno));
    return nullptr;
  }
  segment.id = shmget(segment.key, staging_segment_size(), kEveryone);
  if (segment.id == -1) {
    TAVRIX_LOG(0, "\ncannot get the shared memory for staging buffer. errno = %d(%s)", errno,
               strerror(errno));
    return nullptr;
  }
  ShmAttachment attachment(shmat(segment.id, nullptr, 0));
  if (!attachment) {
    TAVRIX_LOG(0, "cannot attach to shm. errno = %d(%s)", errno, strerror(errno));
    return nullptr;
  }
  return static_cast<staging_buffer_s*>(attachment.release());
}

bool tavrix::is_present_segment(const StagingSegment& segment) noexcept {
  return shmget(segment.key, staging_segment_size(), kEveryone) == segment.id;
}

staging_buffer_s* get_eventstore_staging_buffer(void) {
  tavrix::StagingSegment segment;
  return tavrix::attach_staging_segment(segment);
}

void put_eventstore_staging_buffer(staging_buffer_s* buffer) {
  if (buffer == nullptr) return;
  tavrix::ErrnoKeeper keep;
  shmdt(buffer);
}

int remove_staging_buffers(void) {
  // The first appliances' size, whatever the setting says now. A smaller segment is not found and
  // stays; the sweeper's own check after the removal relies on that.
  constexpr std::size_t kLookedUpSize = 20800;
  const key_t key = tavrix::buffer_key();
  if (key == -1) {
    TAVRIX_LOG(0, "Cannot create sema key for shm");
    return -1;
  }
  const int shmid = shmget(key, kLookedUpSize, tavrix::kEveryone);
  if (shmid == -1) {
    TAVRIX_LOG(0, "Cannot create shared memory for global param");
    return -1;
  }
  return shmctl(shmid, IPC_RMID, nullptr);
}
