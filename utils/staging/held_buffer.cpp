// SPDX-License-Identifier: LGPL-3.0-or-later
// The staging buffer and its semaphore, held by a thread between the events of a session.

#include "utils/staging/held_buffer.hpp"

#include <cerrno>

#include "internal/coarse_clock.hpp"
#include "internal/scoped.hpp"

namespace tavrix {
namespace {

bool is_removed(int error) noexcept { return error == EIDRM || error == EINVAL; }

}  // namespace

void HeldBuffer::keep_no_longer() noexcept {
  keeps_ = false;
  drop();
}

void HeldBuffer::drop() noexcept {
  const ErrnoKeeper keep;
  put_eventstore_staging_buffer(buffer_);
  buffer_ = nullptr;
  segment_ = {};
  set_ = -1;
}

// Everything is looked up afresh once a second, keys included. Between two such looks any failure
// leads to one: the whole look-up has the messages, and its answer counts.
bool HeldBuffer::take(int& cause) noexcept {
  if (coarse_seconds() != looked_up_) drop();
  if (set_ != -1 && take_staging_set(set_)) return true;
  set_ = -1;
  if (wait_on_staging_set(&cause, &set_) != 0) return false;
  looked_up_ = coarse_seconds();
  return true;
}

void HeldBuffer::post() noexcept {
  StagingRetries retries;
  while (!post_staging_set(set_)) {
    const int error = errno;
    if (is_removed(error)) break;  // nobody can wait on it any more
    TAVRIX_LOG(0, "post_eventstore_semaphore failed, retrying ...");
    retries.pause("semop", error);
  }
}

staging_buffer_s* HeldBuffer::buffer() noexcept {
  if (buffer_ != nullptr && is_present_segment(segment_)) return buffer_;
  put_eventstore_staging_buffer(buffer_);
  buffer_ = attach_staging_segment(segment_);
  return buffer_;
}

BufferForAppend::BufferForAppend() noexcept : held_(held_buffer.find()) {
  if (held_ != nullptr && !held_->keeps()) held_ = nullptr;
}

BufferForAppend::~BufferForAppend() {
  release();
  put_eventstore_staging_buffer(attached_);
}

bool BufferForAppend::acquire(int& cause) noexcept {
  if (held_ == nullptr) return hold_.acquire(cause);
  is_taken_ = held_->take(cause);
  return is_taken_;
}

staging_buffer_s* BufferForAppend::attach() noexcept {
  if (held_ != nullptr) return held_->buffer();
  attached_ = get_eventstore_staging_buffer();
  return attached_;
}

void BufferForAppend::release() noexcept {
  hold_.release();
  if (is_taken_) held_->post();
  is_taken_ = false;
}

}  // namespace tavrix
