// SPDX-License-Identifier: LGPL-3.0-or-later
// A dump file on its way: the temporary file of one flush. When its flusher is killed, the next
// flusher or the sweeper settles the file.
//
// The flusher holds a lock on the file; the kernel drops it when the flusher dies. A mark on the
// staging directory names the file from before its first byte until the buffer is empty; it is set
// and cleared under the staging semaphore. So an unlocked file is in one of these states:
//
//   empty                      nothing is in it
//   marked, in the buffer      its flusher died before it emptied the buffer: the buffer has the
//                              records
//   marked, not in the buffer  it died after that: the file alone has them
//   not marked                 it died between the semaphore and the rename: the file alone has
//                              them
//
// The kernel gives back the semaphore of a killed process before the lock. So a marked file may be
// locked although its flusher is already dying; its content decides then.
//
// A flusher that finds a mark settles the file before it empties the buffer, because afterwards
// nobody could tell the second state from the third.
#pragma once

#include <cstddef>
#include <span>

#include "internal/scoped.hpp"

namespace tavrix {

constexpr const char* kTempDumpPrefix = "txtemp";

// A locked file under a temporary name. The end of its life unlinks it, unless it was renamed or
// kept.
class TempDump {
 public:
  TempDump() noexcept = default;
  ~TempDump() { discard(); }
  TempDump(const TempDump&) = delete;
  TempDump& operator=(const TempDump&) = delete;

  [[nodiscard]] bool create(const char* dir) noexcept;
  void discard() noexcept;
  // Renames the file, then closes it and so gives up the lock.
  [[nodiscard]] bool rename_to(const char* name) noexcept;
  // Closes the file and leaves it for others to settle.
  void keep() noexcept;
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  [[nodiscard]] const char* path() const noexcept { return path_; }
  [[nodiscard]] const char* name() const noexcept;  // without its directory

 private:
  char path_[1050] = "";
  Fd fd_;
  bool exists_ = false;
};

// The mark names the file that the holder of the semaphore writes to. Without room for it in the
// file system the flush goes on; a kill at the wrong moment may then leave records twice.
class FlushMark {
 public:
  FlushMark() noexcept = default;
  ~FlushMark() { clear(); }
  FlushMark(const FlushMark&) = delete;
  FlushMark& operator=(const FlushMark&) = delete;

  enum class Before {
    kNone,       // no flusher was killed with its mark set
    kSettled,    // one was; its file may now be a dump file with this process's number
    kUnsettled,  // its file cannot be read now. Its mark stays and no other is set, so a flush
                 // that empties the buffer anyway may leave records twice
  };
  // Settles the file of an earlier mark first. The caller holds the semaphore; `buffered` are the
  // records in the buffer now.
  [[nodiscard]] Before set(const char* dir, const char* name,
                           std::span<const std::byte> buffered) noexcept;
  void clear() noexcept;

 private:
  const char* dir_ =
      nullptr;  // the marked directory; the caller keeps the string. Null: no mark is set
};

enum class Settled {
  kGone,       // there is no such file
  kLive,       // its flusher lives
  kRemoved,    // it was empty or cut, or the buffer still has its records
  kPublished,  // it had the only copy of its records and is a dump file now
  kForeign,    // no flush wrote it; it stays where it was
  kFailed,     // errno says why; it stays where it was
};

// Settle the temporary file of a flusher that may be dead: the first one the marked file, and
// removes the mark; the second one the file of that name. The caller holds the semaphore and
// settles the marked file first.
[[nodiscard]] Settled settle_marked_dump(const char* dir,
                                         std::span<const std::byte> buffered) noexcept;
[[nodiscard]] Settled settle_dump(const char* dir, const char* name,
                                  std::span<const std::byte> buffered) noexcept;

// True if the directory has a mark.
[[nodiscard]] bool has_flush_mark(const char* dir) noexcept;

}  // namespace tavrix
