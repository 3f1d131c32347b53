// SPDX-License-Identifier: LGPL-3.0-or-later
// The append: one record into the staging buffer. A writer that finds the buffer full flushes it
// and waits, because an event is never dropped.

#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "logging.h"
#include "utils/staging/held_buffer.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix {
namespace {

constexpr unsigned kSecondsBetweenTries = 5;
constexpr long kTriesBetweenComplaints = 5;

void acquire_or_give_up(BufferForAppend& access) {
  StagingRetries retries;
  for (int cause = 0; !access.acquire(cause);) {
    if (cause == ENOENT) {
      TAVRIX_LOG(0, "Eventstore semaphore does not exist pid: %d", getpid());
      give_up_events();
    }
    TAVRIX_LOG(0, "Failed to get eventstore semaphore, retrying");
    retries.pause("semop", cause);
  }
}

// Gives up when the header points outside the buffer: the records of a damaged buffer are lost.
void require_sound_header(const staging_buffer_s& buffer, uint32_t length) {
  const auto size = static_cast<uint64_t>(staging_segment_size());
  const uint64_t offset = buffer.next_offset;
  if (offset >= kEmptyStagingBuffer && offset <= size && offset + length <= size) return;
  TAVRIX_LOG(0, "buffer overflow detected buffer->next_offset = %d, size = %d",
             static_cast<int>(buffer.next_offset), static_cast<int>(length));
  give_up_events();
}

enum class Append { kDone, kNoBuffer, kFull };

// One attempt to append; holds the semaphore while it looks at the buffer.
Append try_append(const staging_data_s& record, uint32_t length, int threshold) {
  BufferForAppend access;
  acquire_or_give_up(access);
  staging_buffer_s* buffer = access.attach();
  if (buffer == nullptr) {
    TAVRIX_LOG(0, "cannot access the staging buffer. errno = %d(%s)", errno, strerror(errno));
    return Append::kNoBuffer;
  }
  // The comparison is signed and may wrap, as in every program that uses the buffer.
  if (static_cast<int32_t>(buffer->next_offset + length) >= threshold) {
    access.release();
    TAVRIX_LOG(0, "Write thrshld Exceeded. offset:%d size:%d thrsh:%d",
               static_cast<int>(buffer->next_offset), static_cast<int>(length), threshold);
    return Append::kFull;
  }
  if (record.sig != STAGING_DATA_SIGNATURE) {
    // Store it anyway: the agent reports a record that it cannot read, but nobody reports a missing
    // one.
    TAVRIX_LOG(0, "writing a buffer without a proper signature");
  }
  require_sound_header(*buffer, length);
  std::memcpy(reinterpret_cast<std::byte*>(buffer) + buffer->next_offset, &record, length);
  store_staging_head(*buffer, buffer->num_records + 1, buffer->next_offset + length);
  access.release();
  return Append::kDone;
}

}  // namespace
}  // namespace tavrix

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
