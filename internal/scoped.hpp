// SPDX-License-Identifier: LGPL-3.0-or-later
// Owners of raw resources. A handle is wrapped from its first line; closing keeps errno.
#pragma once

#include <sys/shm.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

namespace tavrix {

// Restores errno at the end of a scope, whatever the calls in between do to it.
class ErrnoKeeper {
 public:
  ErrnoKeeper() noexcept : saved_(errno) {}
  ~ErrnoKeeper() { errno = saved_; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  int saved_;
};

// Owns one handle; "none" is the failure value of the call that makes such handles.
template <typename Traits>
class [[nodiscard]] Scoped {
 public:
  using Handle = typename Traits::Handle;

  explicit Scoped(Handle handle = Traits::none()) noexcept : handle_(handle) {}
  Scoped(Scoped&& other) noexcept : handle_(other.release()) {}
  Scoped& operator=(Scoped&& other) noexcept {
    reset(other.release());
    return *this;
  }
  Scoped(const Scoped&) = delete;
  Scoped& operator=(const Scoped&) = delete;
  ~Scoped() { reset(); }

  [[nodiscard]] Handle get() const noexcept { return handle_; }
  [[nodiscard]] explicit operator bool() const noexcept { return handle_ != Traits::none(); }
  [[nodiscard]] Handle release() noexcept { return std::exchange(handle_, Traits::none()); }
  void reset(Handle next = Traits::none()) noexcept {
    if (Handle old = std::exchange(handle_, next); old != Traits::none()) {
      ErrnoKeeper keep;
      Traits::close(old);
    }
  }

 private:
  Handle handle_;
};

struct FdTraits {
  using Handle = int;
  static constexpr Handle none() noexcept { return -1; }
  static void close(Handle handle) noexcept { ::close(handle); }
};
using Fd = Scoped<FdTraits>;

struct ShmTraits {
  using Handle = void*;
  // shmat() fails with all ones, not with null.
  static Handle none() noexcept { return reinterpret_cast<void*>(-1); }
  static void close(Handle handle) noexcept { ::shmdt(handle); }
};
using ShmAttachment = Scoped<ShmTraits>;

struct StreamTraits {
  using Handle = std::FILE*;
  static constexpr Handle none() noexcept { return nullptr; }
  static void close(Handle handle) noexcept { std::fclose(handle); }
};
using Stream = Scoped<StreamTraits>;

struct FreeDeleter {
  void operator()(void* block) const noexcept {
    ErrnoKeeper keep;
    std::free(block);
  }
};
// Owns a block from malloc(): a string that crosses the C boundary, a record, a buffer.
template <typename T>
using Malloced = std::unique_ptr<T, FreeDeleter>;
using CString = Malloced<char>;

// One zeroed record. calloc() would bypass the C library's per-thread cache of small blocks.
template <typename T>
[[nodiscard]] T* malloc_zeroed() noexcept {
  void* block = std::malloc(sizeof(T));
  return block == nullptr ? nullptr : static_cast<T*>(std::memset(block, 0, sizeof(T)));
}

}  // namespace tavrix
