// SPDX-License-Identifier: LGPL-3.0-or-later
// A dump file on its way: the temporary file of one flush, and what the next flusher or the sweeper
// can tell of it when its flusher was killed.
//
// A lock on the file, which goes with its flusher, says that somebody works on it. A mark on the
// staging directory names the file from before its first byte until the buffer is empty; it is set
// and cleared under the staging semaphore. So a file that no one holds is in one of these states:
//
//   empty                      nothing is in it
//   marked, in the buffer      its flusher died before it emptied the buffer: the buffer has the
//                              records
//   marked, not in the buffer  it died after that: the file alone has them
//   not marked                 it died between the semaphore and the rename: the file alone has
//                              them
//
// The kernel gives back the semaphore of a killed process before the lock. So a marked file may be
// locked although its flusher is past doing anything; the content decides then.
//
// A flusher that finds a mark settles the file before it empties the buffer, because afterwards
// nobody could tell the second state from the third.
#pragma once

#include <cstddef>
#include <span>

#include "internal/scoped.hpp"

namespace tavrix {

constexpr const char* kTempDumpPrefix = "txtemp";

// A file under a temporary name, locked; unlinked unless it was given its own.
class TempDump {
 public:
  TempDump() noexcept = default;
  ~TempDump() { discard(); }
  TempDump(const TempDump&) = delete;
  TempDump& operator=(const TempDump&) = delete;

  [[nodiscard]] bool create(const char* dir) noexcept;
  void discard() noexcept;
  // Closes it too, and with that gives up the lock, but not before it has its name.
  [[nodiscard]] bool rename_to(const char* name) noexcept;
  // Leaves it to be settled.
  void keep() noexcept;
  [[nodiscard]] int fd() const noexcept { return fd_.get(); }
  [[nodiscard]] const char* path() const noexcept { return path_; }
  [[nodiscard]] const char* name() const noexcept;  // without its directory

 private:
  char path_[1050] = "";
  Fd fd_;
  bool exists_ = false;
};

// The mark that says which file the flusher with the semaphore writes to. Where the file system has
// no room for it, flushing goes on without: then a kill at the wrong moment may leave records
// twice.
class FlushMark {
 public:
  FlushMark() noexcept = default;
  ~FlushMark() { clear(); }
  FlushMark(const FlushMark&) = delete;
  FlushMark& operator=(const FlushMark&) = delete;

  enum class Before {
    kNone,       // no flusher was killed with its mark set
    kSettled,    // one was: its file may have got a dump file's name with this process's number
    kUnsettled,  // its file cannot be looked at now. Its mark stays, and nothing is marked: who
                 // empties the buffer all the same may leave records twice
  };
  // Settles the file of a mark that is there. The caller holds the semaphore; `buffered` are the
  // records in the buffer now.
  [[nodiscard]] Before set(const char* dir, const char* name,
                           std::span<const std::byte> buffered) noexcept;
  void clear() noexcept;

 private:
  const char* dir_ = nullptr;  // that of the mark, which the caller keeps; null: not set
};

enum class Settled {
  kGone,       // there is no such file
  kLive,       // its flusher lives
  kRemoved,    // it was empty or cut, or the buffer has its records still
  kPublished,  // it alone had its records: it has the name of a dump file now
  kForeign,    // it holds what no flush writes, and is where it was
  kFailed,     // errno says why; it is where it was
};

// Settles the temporary file of a flusher that may be dead: the one of the mark, which goes with
// it, or the one of that name. The caller holds the semaphore, and settles the marked one first.
[[nodiscard]] Settled settle_marked_dump(const char* dir,
                                         std::span<const std::byte> buffered) noexcept;
[[nodiscard]] Settled settle_dump(const char* dir, const char* name,
                                  std::span<const std::byte> buffered) noexcept;

// True if the directory has a mark.
[[nodiscard]] bool has_flush_mark(const char* dir) noexcept;

}  // namespace tavrix
