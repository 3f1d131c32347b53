// What the append and the flush of the staging buffer share.
#pragma once

#include <cstdint>

#include "eventstore.h"

namespace tavrix {

constexpr uint32_t kEmptyStagingBuffer = sizeof(staging_buffer_s);  // its next_offset

// Bytes of the buffer past which a writer flushes it, by the settings of this moment.
[[nodiscard]] int staging_fill_threshold() noexcept;

// Gives the semaphore back, however often that takes: every other process waits for it.
void post_staging_semaphore_until_done() noexcept;

// The staging semaphore, taken and given back.
class [[nodiscard]] StagingHold {
 public:
  StagingHold() noexcept = default;
  ~StagingHold() { release(); }
  StagingHold(const StagingHold&) = delete;
  StagingHold& operator=(const StagingHold&) = delete;

  // false with the cause: ENOENT is a missing semaphore, EINTR a signal.
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

// The staging buffer, attached and detached.
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

// Events are lost: tells the synchronisation agent, and ends the process.
[[noreturn]] void give_up_events() noexcept;

}  // namespace tavrix
