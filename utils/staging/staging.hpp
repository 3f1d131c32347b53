// SPDX-License-Identifier: LGPL-3.0-or-later
// The parts of the staging buffer that its files share: segment, append and flush.
#pragma once

#include <sys/types.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "eventstore.h"
#include "logging.h"
#include "utils/parameters.hpp"

// A message for operators. The library's other messages are informational, and programs match them.
#define TAVRIX_LOG_ERROR(format, ...) \
  (tavrix_debug_level() >= 0 ? ::syslog(LOG_ERR, format __VA_OPT__(, ) __VA_ARGS__) : void())

namespace tavrix {

constexpr uint32_t kEmptyStagingBuffer = sizeof(staging_buffer_s);  // its next_offset

// Bytes of the buffer past which a writer flushes it, by the settings of this moment.
[[nodiscard]] inline int staging_fill_threshold() noexcept {
  constexpr int kHighest = 99;
  constexpr int kWhenTooHigh = 80;
  const int percent = parameter(PARAM_FLUSH_FILL_THRESHOLD);
  const int64_t share = percent > kHighest ? kWhenTooHigh : percent;
  return static_cast<int>(std::clamp<int64_t>(
      int64_t{parameter(PARAM_STAGING_BUFFER_SIZE)} * share / 100, INT_MIN, INT_MAX));
}

// The pauses between attempts at a semaphore call that is repeated until it succeeds. The first
// attempts follow at once, because most causes pass quickly. An error that stays must not keep a
// processor busy or fill the log, so later attempts come once a second, with a message to the
// operator once a minute.
class StagingRetries {
 public:
  void pause(const char* call, int error) noexcept {
    if (++tries_ <= kAtOnce || error == EINTR) return;
    if ((tries_ - kAtOnce) % kTriesAMinute == 1) {
      TAVRIX_LOG_ERROR("the semaphore of events: %s fails: %s; process %d tries again each second",
                       call, strerror(error), static_cast<int>(getpid()));
    }
    sleep(1);
  }

 private:
  static constexpr long kAtOnce = 1000;
  static constexpr long kTriesAMinute = 60;
  long tries_ = 0;
};

// Gives the semaphore back, with as many attempts as that takes: every other process waits for it.
inline void post_staging_semaphore_until_done() noexcept {
  StagingRetries retries;
  while (post_eventstore_semaphore() != 0) {
    const int error = errno;
    TAVRIX_LOG(0, "post_eventstore_semaphore failed, retrying ...");
    retries.pause("semop", error);
  }
}

// wait_eventstore_semaphore() with the set that it waited on, which stays what it was on failure.
[[nodiscard]] int wait_on_staging_set(int* err, int* set) noexcept;
// One attempt at a set that is known; false with errno. EINVAL or EIDRM: the set was removed.
[[nodiscard]] bool take_staging_set(int set) noexcept;
[[nodiscard]] bool post_staging_set(int set) noexcept;

// Holds the staging semaphore for a scope.
class [[nodiscard]] StagingHold {
 public:
  StagingHold() noexcept = default;
  ~StagingHold() { release(); }
  StagingHold(const StagingHold&) = delete;
  StagingHold& operator=(const StagingHold&) = delete;

  // On failure returns false with the cause: ENOENT for a missing semaphore, EINTR for a signal.
  [[nodiscard]] bool acquire(int& cause) noexcept {
    held_ = wait_eventstore_semaphore(&cause) == 0;
    return held_;
  }
  void release() noexcept {
    if (held_) post_staging_semaphore_until_done();
    held_ = false;
  }

 private:
  bool held_ = false;
};

// Detaches the staging buffer at the end of a scope.
class [[nodiscard]] StagingAttachment {
 public:
  explicit StagingAttachment(staging_buffer_s* buffer = nullptr) noexcept : buffer_(buffer) {}
  ~StagingAttachment() { put_eventstore_staging_buffer(buffer_); }
  StagingAttachment(const StagingAttachment&) = delete;
  StagingAttachment& operator=(const StagingAttachment&) = delete;

  [[nodiscard]] explicit operator bool() const noexcept { return buffer_ != nullptr; }
  [[nodiscard]] staging_buffer_s& operator*() const noexcept { return *buffer_; }
  [[nodiscard]] staging_buffer_s* operator->() const noexcept { return buffer_; }

 private:
  staging_buffer_s* buffer_;
};

// A segment under the buffer's key.
struct StagingSegment {
  key_t key = -1;
  int id = -1;
};
// get_eventstore_staging_buffer() with the segment that it attached.
[[nodiscard]] staging_buffer_s* attach_staging_segment(StagingSegment& segment) noexcept;
// True if the key still means that segment, and the segment has the size of the settings.
[[nodiscard]] bool is_present_segment(const StagingSegment& segment) noexcept;

// The size of the segment by the settings of this moment.
[[nodiscard]] std::size_t staging_segment_size() noexcept;

// Changes count and offset in one store. A process that dies before or after it leaves a usable
// buffer, with the record wholly in it or not at all.
void store_staging_head(staging_buffer_s& buffer, uint32_t num_records,
                        uint32_t next_offset) noexcept;

// Both empty an attached buffer of that size; the caller holds the semaphore. The second one clears
// only the used part, because every writer waits meanwhile. It also clears the bytes that a writer
// left behind the last record when it was killed during its copy.
void empty_staging_buffer(staging_buffer_s& buffer, std::size_t size) noexcept;
void empty_used_part(staging_buffer_s& buffer, std::size_t size) noexcept;

// Tells the synchronisation agent that events are lost, and ends the process.
[[noreturn]] void give_up_events() noexcept;

}  // namespace tavrix
