// SPDX-License-Identifier: LGPL-3.0-or-later
// The flush: from the staging buffer to a dump file that the synchronisation agent picks up.
//
// The records are on the disk before the buffer is emptied, and a dump file gets its name only when
// it is whole. Where that fails, events are lost, and the agent must be told.

#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/parameters.hpp"
#include "utils/root_scope.hpp"
#include "utils/staging/dump_in_flight.hpp"
#include "utils/staging/history_link.hpp"
#include "utils/staging/staging.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix {
namespace {

constexpr int kLastRetry = 2;  // attempts 0, 1 and 2 may be followed by another one
constexpr int kDone = 1;
constexpr int kFailed = -1;

const char* context_name(FB_CTX ctx) {
  switch (ctx) {
    case FB_CTX_SWPR:
      return "Sweeper";
    case FB_CTX_DISCON:
      return "Disconnect";
    case FB_CTX_EVT:
      return "Event";
    default:
      return "Invalid ctx";
  }
}

bool is_folder(const char* path) {
  struct stat info {};
  return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

enum class Step { kFinished, kRetry, kError };

// One attempt to flush; owns what it opens. `error()` and `message()` say why it failed.
class FlushAttempt {
 public:
  FlushAttempt(FB_CTX ctx, int number) noexcept
      : ctx_(ctx), may_retry_(number <= kLastRetry), dir_(parameter_text(PARAM_STAGING_DIR)) {}

  [[nodiscard]] Step run() {
    if (!is_folder(dir_))
      return fail(FB_ERR_MISSING_STAGING_DIR, "missing staging directory %s\n", dir_);
    dump_name_.reset(get_dumpfname(dir_));
    if (dump_name_ == nullptr) {
      return retry_or_fail(FB_ERR_GET_DUMPFNAME_FAILED, "Failed to get the dumpfname ");
    }
    if (!temp_.create(dir_)) {
      return retry_or_fail(FB_ERR_MKSTEMP_FAILED, "cannot openfile %s. errno = %d(%s)\n",
                           temp_.path(), errno, strerror(errno));
    }
    if (const auto refused = take_semaphore()) return *refused;
    const StagingAttachment buffer(get_eventstore_staging_buffer());
    if (!buffer) return without_buffer();
    return move_records(*buffer);
  }

  [[nodiscard]] FB_ERR error() const noexcept { return error_; }
  [[nodiscard]] const char* message() const noexcept { return message_; }

 private:
  // Returns nothing once the semaphore is held.
  std::optional<Step> take_semaphore() {
    int cause = 0;
    while (!hold_.acquire(cause)) {
      TAVRIX_LOG(0, "Failed to get the semaphore.");
      if (cause == EINTR) continue;
      const FB_ERR error =
          cause == ENOENT ? FB_ERR_SEMAPHORE_NOT_FOUND : FB_ERR_SEMAPHORE_WAIT_FAILED;
      constexpr const char* kMessage = "Failed to get the eventstore semaphore with err %d.";
      const bool is_removed = cause == ENOENT || cause == EIDRM;
      if (is_removed && (ctx_ == FB_CTX_SWPR || ctx_ == FB_CTX_EVT)) {
        TAVRIX_LOG(0, "Semaphore is removed.");
        return fail(error, kMessage, cause);
      }
      return retry_or_fail(error, kMessage, cause);
    }
    return std::nullopt;
  }

  Step without_buffer() {
    constexpr const char* kMessage = "cannot access staging buffer.\n";
    if (ctx_ == FB_CTX_SWPR) return fail(FB_ERR_STAGING_BUFFER_UNAVAILABLE, kMessage);
    return retry_or_fail(FB_ERR_STAGING_BUFFER_UNAVAILABLE, kMessage);
  }

  [[nodiscard]] bool has_work(const staging_buffer_s& buffer) const {
    if (buffer.num_records == 0) return false;
    // Another writer may have flushed since this one found the buffer full.
    return ctx_ != FB_CTX_EVT ||
           buffer.next_offset >= static_cast<uint32_t>(staging_fill_threshold());
  }

  Step move_records(staging_buffer_s& buffer) {
    if (!has_work(buffer)) return Step::kFinished;
    const int size = parameter(PARAM_STAGING_BUFFER_SIZE);
    const uint32_t end = buffer.next_offset;
    // An end before the first record is as wrong as one behind the segment.
    if (size < 0 || end > static_cast<uint32_t>(size) || end < kEmptyStagingBuffer) {
      return fail(FB_ERR_STAGING_BUFFER_OVERFLOW,
                  "Event buffer overflow detected buf->nxt_offset:%d, bufsz:%d\n",
                  static_cast<int>(end), size);
    }
    const std::size_t length = end - kEmptyStagingBuffer;
    if (const auto refused = set_mark({reinterpret_cast<const std::byte*>(&buffer + 1), length})) {
      return *refused;
    }
    const ssize_t written = write_all(temp_.fd(), &buffer + 1, length);
    if (written != static_cast<ssize_t>(length)) return write_failed(written, length);
    if (!sync()) {
      return fail(FB_ERR_FDATASYNC_FAILED, "staging buffer fdatasync error. errno = %d(%s)\n",
                  errno, strerror(errno));
    }
    // Uses this attachment because its pages are mapped already.
    empty_used_part(buffer, static_cast<std::size_t>(size));
    mark_.clear();
    hold_.release();
    link_for_history(temp_.path(), HistoryKind::kEvents, dump_name_.get());
    if (!temp_.rename_to(dump_name_.get())) {
      return fail(FB_ERR_RENAME_FAILED, "cannot rename %s to %s. errno = %d(%s)\n", temp_.path(),
                  dump_name_.get(), errno, strerror(errno));
    }
    sync_folder(dir_);
    return Step::kFinished;
  }

  // Returns nothing when the flush may go on.
  std::optional<Step> set_mark(std::span<const std::byte> records) {
    const auto before = mark_.set(dir_, temp_.name(), records);
    if (before == FlushMark::Before::kUnsettled && may_retry_) return Step::kRetry;
    if (before != FlushMark::Before::kSettled) return std::nullopt;
    // A later name than that of the file that was settled, which this one must not replace.
    dump_name_.reset(get_dumpfname(dir_));
    if (dump_name_ != nullptr) return std::nullopt;
    return retry_or_fail(FB_ERR_GET_DUMPFNAME_FAILED, "Failed to get the dumpfname ");
  }

  Step write_failed(ssize_t written, std::size_t length) {
    if (may_retry_) {
      TAVRIX_LOG(0,
                 "staging buffer could not finish write, perhaps interrupted by a signal. retrying "
                 "errno = %d(%s)",
                 errno, strerror(errno));
      return Step::kRetry;
    }
    return fail(FB_ERR_BUFFER_WRITE_FAILED,
                "staging buffer write failed sizewr = %d size = %d. errno = %d(%s)\n",
                static_cast<int>(written), static_cast<int>(length), errno, strerror(errno));
  }

  [[nodiscard]] bool sync() const {
    int result = 0;
    do {
      result = fdatasync(temp_.fd());
    } while (result != 0 && errno == EINTR);
    return result == 0;
  }

  Step retry_or_fail(FB_ERR error, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list arguments;
    va_start(arguments, format);
    note(error, format, arguments);
    va_end(arguments);
    return may_retry_ ? Step::kRetry : Step::kError;
  }

  Step fail(FB_ERR error, const char* format, ...) __attribute__((format(printf, 3, 4))) {
    va_list arguments;
    va_start(arguments, format);
    note(error, format, arguments);
    va_end(arguments);
    return Step::kError;
  }

  void note(FB_ERR error, const char* format, va_list arguments) {
    error_ = error;
    std::vsnprintf(message_, sizeof message_, format, arguments);
  }

  FB_CTX ctx_;
  bool may_retry_;
  const char* dir_;
  CString dump_name_;
  // The order of members matters: on a failure the file goes first, then its mark, then the
  // semaphore. A file with records but without a mark would be taken for their only copy.
  StagingHold hold_;
  FlushMark mark_;
  TempDump temp_;
  FB_ERR error_ = FB_OK;
  char message_[1024] = "";
};

// Ends the process when the error is fatal in the context.
int handle_error(FB_CTX ctx, FB_ERR error, const char* message) {
  TAVRIX_LOG(0, "FSB: %s in ctx %s", message, context_name(ctx));
  if (fb_err_disp(ctx, error) == 1) {
    TAVRIX_LOG(0, "Writing sync.off file.");
    give_up_events();
  }
  if (ctx == FB_CTX_DISCON) {
    TAVRIX_LOG(4, "FSB - Disconnect buffer unavailability");
  } else {
    TAVRIX_LOG(0, "FSB - Unknown context");
  }
  return kFailed;
}

}  // namespace
}  // namespace tavrix

int flush_staging_buffer(FB_CTX ctx) {
  const tavrix::RootScope root;
  if (!root) return tavrix::kFailed;
  for (int number = 0;; ++number) {
    FB_ERR error = FB_OK;
    char message[1024];
    {
      tavrix::FlushAttempt attempt(ctx, number);
      switch (attempt.run()) {
        case tavrix::Step::kFinished:
          return tavrix::kDone;
        case tavrix::Step::kRetry:
          continue;
        case tavrix::Step::kError:
          error = attempt.error();
          std::memcpy(message, attempt.message(), sizeof message);
      }
    }
    // The attempt is gone, and with it the semaphore, the buffer and the temporary file.
    return tavrix::handle_error(ctx, error, message);
  }
}

// The sweeper and a writer must not go on without the buffer. A client that leaves may, because a
// later flush finds the events; from the overflow on, an error means that events may be lost.
int fb_err_disp(FB_CTX ctx, FB_ERR err) {
  if (err == FB_OK) return 0;
  switch (ctx) {
    case FB_CTX_SWPR:
    case FB_CTX_EVT:
      return 1;
    case FB_CTX_DISCON:
      return err >= FB_ERR_STAGING_BUFFER_OVERFLOW && err <= FB_ERR_RENAME_FAILED ? 1 : 0;
    default:
      return 0;
  }
}
