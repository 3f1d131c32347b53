// SPDX-License-Identifier: LGPL-3.0-or-later
// The staging buffer and its semaphore, held by a thread between the events of a session.
//
// The kernel gives an id to no other segment while one bears it, and an attached segment bears its
// id: so a look-up by key that gives the same id means the same segment. A semaphore set that was
// removed refuses its old id. An append posts on the set that it waited on, because another set
// under the key is not the one that it took.
#pragma once

#include <ctime>

#include "internal/per_thread.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix {

class HeldBuffer {
 public:
  // From now on an append keeps the buffer, or no longer.
  void keep() noexcept { keeps_ = true; }
  void keep_no_longer() noexcept;
  [[nodiscard]] bool keeps() const noexcept { return keeps_; }
  // Detaches. errno survives.
  void drop() noexcept;
  [[nodiscard]] bool is_holding() const noexcept { return buffer_ != nullptr; }

  // Takes the semaphore, as wait_eventstore_semaphore() does.
  [[nodiscard]] bool take(int& cause) noexcept;
  // Gives it back, with as many attempts as that takes.
  void post() noexcept;
  // The present buffer; the semaphore is held. Null as get_eventstore_staging_buffer().
  [[nodiscard]] staging_buffer_s* buffer() noexcept;

  void at_thread_end() noexcept { drop(); }

 private:
  staging_buffer_s* buffer_ = nullptr;
  StagingSegment segment_;
  int set_ = -1;
  time_t looked_up_ = 0;  // seconds of the coarse clock
  bool keeps_ = false;    // a session is open
};
inline PerThread<HeldBuffer> held_buffer;

// The semaphore and the buffer for one append, held by the session if there is one.
class [[nodiscard]] BufferForAppend {
 public:
  BufferForAppend() noexcept;
  ~BufferForAppend();
  BufferForAppend(const BufferForAppend&) = delete;
  BufferForAppend& operator=(const BufferForAppend&) = delete;

  // On failure returns false with the cause: ENOENT for a missing semaphore, EINTR for a signal.
  [[nodiscard]] bool acquire(int& cause) noexcept;
  // Attaches the buffer. Null when it cannot.
  [[nodiscard]] staging_buffer_s* attach() noexcept;
  void release() noexcept;

 private:
  HeldBuffer* held_;  // null without a session
  StagingHold hold_;
  staging_buffer_s* attached_ = nullptr;  // to detach at the end
  bool is_taken_ = false;                 // by `held_`
};

}  // namespace tavrix
