// SPDX-License-Identifier: LGPL-3.0-or-later
// The shared segment of events: its life, and the append.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/parameters.hpp"
#include "utils/root_scope.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix {
namespace {

constexpr int kEveryone = 0666;
constexpr unsigned kSecondsBetweenTries = 5;
constexpr long kTriesBetweenComplaints = 5;

key_t buffer_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_BUFFER_KEY_ID); }

int buffer_size() noexcept { return parameter(PARAM_STAGING_BUFFER_SIZE); }

std::size_t segment_size() noexcept { return static_cast<std::size_t>(std::max(buffer_size(), 0)); }

void hold_or_give_up(StagingHold& hold) {
  StagingRetries retries;
  for (int cause = 0; !hold.acquire(cause);) {
    if (cause == ENOENT) {
      TAVRIX_LOG(0, "Eventstore semaphore does not exist pid: %d", getpid());
      give_up_events();
    }
    TAVRIX_LOG(0, "Failed to get eventstore semaphore, retrying");
    retries.pause("semop", cause);
  }
}

// The header of a damaged buffer points outside it: what it held is lost.
void require_sound_header(const staging_buffer_s& buffer, uint32_t length) {
  const auto size = static_cast<uint64_t>(segment_size());
  const uint64_t offset = buffer.next_offset;
  if (offset >= kEmptyStagingBuffer && offset <= size && offset + length <= size) return;
  TAVRIX_LOG(0, "buffer overflow detected buffer->next_offset = %d, size = %d",
             static_cast<int>(buffer.next_offset), static_cast<int>(length));
  give_up_events();
}

// Count and offset change in one store: whoever dies before or after it leaves a buffer that the
// next one can use, with a record that is wholly in it or not at all.
void store_head(staging_buffer_s& buffer, uint32_t num_records, uint32_t next_offset) {
  const staging_buffer_s wanted{
      .num_records = num_records, .next_offset = next_offset, .last_flush_time = 0};
  uint64_t head = 0;
  static_assert(offsetof(staging_buffer_s, last_flush_time) == sizeof head);
  std::memcpy(&head, &wanted, sizeof head);
  __atomic_store_n(reinterpret_cast<uint64_t*>(&buffer), head, __ATOMIC_RELEASE);
}

enum class Append { kDone, kNoBuffer, kFull };

// One attempt, with the semaphore held for as long as the buffer is looked at.
Append try_append(const staging_data_s& record, uint32_t length, int threshold) {
  StagingHold hold;
  hold_or_give_up(hold);
  const StagingAttachment buffer(get_eventstore_staging_buffer());
  if (!buffer) {
    TAVRIX_LOG(0, "cannot access the staging buffer. errno = %d(%s)", errno, strerror(errno));
    return Append::kNoBuffer;
  }
  // Signed, and around the end of the type, as all users of the buffer compare.
  if (static_cast<int32_t>(buffer->next_offset + length) >= threshold) {
    hold.release();
    TAVRIX_LOG(0, "Write thrshld Exceeded. offset:%d size:%d thrsh:%d",
               static_cast<int>(buffer->next_offset), static_cast<int>(length), threshold);
    return Append::kFull;
  }
  if (record.sig != STAGING_DATA_SIGNATURE) {
    // Stored all the same: the agent reports a record that it cannot read, a missing one nobody.
    TAVRIX_LOG(0, "writing a buffer without a proper signature");
  }
  require_sound_header(*buffer, length);
  std::memcpy(reinterpret_cast<std::byte*>(&*buffer) + buffer->next_offset, &record, length);
  store_head(*buffer, buffer->num_records + 1, buffer->next_offset + length);
  hold.release();
  return Append::kDone;
}

}  // namespace

void empty_staging_buffer(staging_buffer_s& buffer, std::size_t size) noexcept {
  store_head(buffer, 0, kEmptyStagingBuffer);
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
  store_head(buffer, 0, kEmptyStagingBuffer);
  std::memset(bytes + kHead, 0, end - kHead);
  for (std::size_t at = end; at < size; at += kStretch) {
    const std::size_t length = std::min(kStretch, size - at);
    const bool is_zero =
        bytes[at] == std::byte{0} && std::memcmp(bytes + at, bytes + at + 1, length - 1) == 0;
    if (is_zero) break;
    std::memset(bytes + at, 0, length);
  }
}

void give_up_events() noexcept {
  const RootScope root;  // the agent's folder is closed to clients
  if (const int error = write_sync_off(); error != 0) {
    TAVRIX_LOG_ERROR("events are lost, and %s, which would tell the agent, cannot be made: %s",
                     TAVRIX_SYNC_OFF_PATH, strerror(error));
  }
  TAVRIX_REQUIRE(false, "0");
  __builtin_unreachable();
}

}  // namespace tavrix

int create_staging_buffer(void) {
  const key_t key = tavrix::buffer_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create shm key, errno = %d", errno);
    return -1;
  }
  if (shmget(key, tavrix::segment_size(), IPC_CREAT | IPC_EXCL | tavrix::kEveryone) == -1) {
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
  const std::size_t size = tavrix::segment_size();
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

staging_buffer_s* get_eventstore_staging_buffer(void) {
  const key_t key = tavrix::buffer_key();
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create staging buffer key. errno = %d(%s)", errno, strerror(errno));
    return nullptr;
  }
  const int shmid = shmget(key, tavrix::segment_size(), tavrix::kEveryone);
  if (shmid == -1) {
    TAVRIX_LOG(0, "\ncannot get the shared memory for staging buffer. errno = %d(%s)", errno,
               strerror(errno));
    return nullptr;
  }
  tavrix::ShmAttachment segment(shmat(shmid, nullptr, 0));
  if (!segment) {
    TAVRIX_LOG(0, "cannot attach to shm. errno = %d(%s)", errno, strerror(errno));
    return nullptr;
  }
  return static_cast<staging_buffer_s*>(segment.release());
}

void put_eventstore_staging_buffer(staging_buffer_s* buffer) {
  if (buffer == nullptr) return;
  tavrix::ErrnoKeeper keep;
  shmdt(buffer);
}

int remove_staging_buffers(void) {
  // The size that the first appliances had, whatever the setting says now; a smaller segment is not
  // found and stays. The sweeper's own check of what was removed counts on it.
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

int write_to_staging_buffer(staging_data_s* data) {
  if (data == nullptr) {
    TAVRIX_LOG(0, "null staging data");
    return -1;
  }
  if (static_cast<int32_t>(data->size) < 1) {
    TAVRIX_LOG(0, "invalid data size");
    return -1;
  }
  const auto length = static_cast<uint32_t>(data->size + sizeof(staging_data_s));
  const int threshold = tavrix::staging_fill_threshold();
  for (long retries = 0;; ++retries) {
    switch (tavrix::try_append(*data, length, threshold)) {
      case tavrix::Append::kDone:
        return 0;
      case tavrix::Append::kNoBuffer:
        return -1;
      case tavrix::Append::kFull:
        break;
    }
    flush_staging_buffer(FB_CTX_EVT);
    if (retries != 0 && retries % tavrix::kTriesBetweenComplaints == 0) {
      TAVRIX_LOG(0, "Starving producer %ld. Unable to push event after %d retries.",
                 static_cast<long>(getpid()), static_cast<int>(retries));
    }
    sleep(tavrix::kSecondsBetweenTries);
  }
}
