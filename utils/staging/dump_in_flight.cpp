// SPDX-License-Identifier: LGPL-3.0-or-later
#include "utils/staging/dump_in_flight.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "eventstore.h"
#include "utils/staging/history_link.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix {
namespace {

constexpr const char* kMark = "trusted.tavrix.flush";
constexpr std::size_t kMarkRoom = 64;
constexpr int kTriesToCreate = 10;
constexpr int kNamesToTry = 1000;

using Records = std::span<const std::byte>;

// The name in the mark, or an empty one.
void read_mark(const char* dir, char (&name)[kMarkRoom]) noexcept {
  const ssize_t size = lgetxattr(dir, kMark, name, sizeof name - 1);
  name[size > 0 ? size : 0] = '\0';
}

// True for a name that a flush gives: a plain file name with the right start.
bool is_temp_name(const char* name) noexcept {
  return std::strncmp(name, kTempDumpPrefix, std::strlen(kTempDumpPrefix)) == 0 &&
         std::strchr(name, '/') == nullptr;
}

bool read_whole(int fd, std::byte* bytes, std::size_t size) noexcept {
  for (std::size_t at = 0; at < size;) {
    const ssize_t got = pread(fd, bytes + at, size - at, static_cast<off_t>(at));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got == 0) errno = EIO;  // the file shrank
      return false;
    }
    at += static_cast<std::size_t>(got);
  }
  return true;
}

enum class Shape { kWhole, kCut, kForeign };

// kWhole: frames only; kCut: frames and then a part of one.
Shape shape_of(Records bytes) noexcept {
  for (std::size_t at = 0; at < bytes.size();) {
    staging_data_s head{};
    if (bytes.size() - at < sizeof head) return Shape::kCut;
    std::memcpy(&head, bytes.data() + at, sizeof head);
    if (head.sig != STAGING_DATA_SIGNATURE || head.size == 0) return Shape::kForeign;
    at += sizeof head;
    if (bytes.size() - at < head.size) return Shape::kCut;
    at += head.size;
  }
  return Shape::kWhole;
}

bool starts_with(Records all, Records part) noexcept {
  // No bytes may have no address, and memcmp() wants one.
  return part.empty() ||
         (part.size() <= all.size() && std::memcmp(all.data(), part.data(), part.size()) == 0);
}

// One temporary file that may have lost its flusher.
class Leftover {
 public:
  Leftover(const char* dir, const char* name, bool is_marked) noexcept
      : dir_(dir), is_marked_(is_marked) {
    std::snprintf(path_, sizeof path_, "%s/%s", dir, name);
  }

  [[nodiscard]] Settled settle(Records buffered) noexcept {
    fd_.reset(open(path_, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd_) {
      if (errno == ENOENT) return Settled::kGone;
      return errno == ELOOP ? Settled::kForeign : Settled::kFailed;
    }
    const bool is_free = flock(fd_.get(), LOCK_EX | LOCK_NB) == 0;
    if (!is_free && errno != EWOULDBLOCK) return Settled::kFailed;
    if (!is_free && !is_marked_) return Settled::kLive;
    struct stat info {};
    if (fstat(fd_.get(), &info) != 0) return Settled::kFailed;
    if (!S_ISREG(info.st_mode)) return Settled::kForeign;
    if (info.st_nlink == 0) return Settled::kGone;
    if (info.st_size > INT_MAX) return Settled::kForeign;  // no buffer is that large
    const auto size = static_cast<std::size_t>(info.st_size);
    const Malloced<std::byte> block(
        static_cast<std::byte*>(std::malloc(std::max<std::size_t>(size, 1))));
    if (block == nullptr || !read_whole(fd_.get(), block.get(), size)) return Settled::kFailed;
    const Records bytes(block.get(), size);
    if (!is_free) return settle_of_the_dying(bytes, buffered);
    return settle_content(bytes, info.st_mtim, buffered);
  }

 private:
  // The kernel gives back the semaphore of a killed process before its locks. In between, its file
  // is marked and still locked. A live flusher gives the semaphore back only when its file is gone
  // or the buffer is empty, so a locked file whose records are in the buffer has no live flusher.
  // Every other file can wait, because nobody empties the buffer of its records.
  Settled settle_of_the_dying(Records bytes, Records buffered) noexcept {
    return !bytes.empty() && starts_with(buffered, bytes) ? remove() : Settled::kLive;
  }

  Settled settle_content(Records bytes, const timespec& written, Records buffered) noexcept {
    if (starts_with(buffered, bytes)) return remove();
    switch (shape_of(bytes)) {
      case Shape::kWhole:
        return publish(written);
      case Shape::kCut:
        return remove_cut();
      default:
        return Settled::kForeign;
    }
  }

  // A power cut or a flipped bit has damaged the file. Its events may be lost, so the agent is told
  // before the file goes.
  Settled remove_cut() noexcept {
    return mark_event_db_as_rescan_needed("a file of events was cut") == 0 ? remove()
                                                                           : Settled::kFailed;
  }

  Settled remove() noexcept { return unlink(path_) == 0 ? Settled::kRemoved : Settled::kFailed; }

  // Gives the file a dump file's name with the time at which its records were written, because
  // readers go by that time. Never replaces another file.
  Settled publish(const timespec& written) noexcept {
    if (fsync(fd_.get()) != 0) return Settled::kFailed;
    auto seconds = static_cast<long long>(written.tv_sec);
    long micros = written.tv_nsec / 1000;
    for (int tries = 0; tries < kNamesToTry; ++tries) {
      char name[sizeof path_ + kMarkRoom];
      std::snprintf(name, sizeof name, "%s/%s%d_%lld.%06ld", dir_, TAVRIX_DUMP_FILE_PREFIX,
                    getpid(), seconds, micros);
      // Its flusher may have linked it already. Who reads the links knows a file by its inode.
      if (tries == 0) link_for_history(path_, HistoryKind::kEvents, name);
      if (renameat2(AT_FDCWD, path_, AT_FDCWD, name, RENAME_NOREPLACE) == 0) {
        sync_folder(dir_);
        return Settled::kPublished;
      }
      if (errno != EEXIST) return Settled::kFailed;
      if (++micros == 1'000'000) {
        micros = 0;
        ++seconds;
      }
    }
    return Settled::kFailed;
  }

  const char* dir_;
  bool is_marked_;
  char path_[PATH_MAX];
  Fd fd_;
};

}  // namespace

bool TempDump::create(const char* dir) noexcept {
  for (int tries = 0; tries < kTriesToCreate; ++tries) {
    std::snprintf(path_, sizeof path_, "%s/%sXXXXXX", dir, kTempDumpPrefix);
    fd_.reset(mkostemp(path_, O_CLOEXEC));
    exists_ = static_cast<bool>(fd_);
    if (!exists_) return false;
    // A file that cannot be locked is usable: nobody settles files on such a file system.
    const bool is_taken = flock(fd_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    struct stat info {};
    const bool is_removed = fstat(fd_.get(), &info) == 0 && info.st_nlink == 0;
    if (!is_taken && !is_removed) return true;
    // Between the two calls the sweeper took the empty file for a dead flusher's. Make another one.
    fd_.reset();
    exists_ = false;
  }
  errno = EAGAIN;
  return false;
}

void TempDump::discard() noexcept {
  const ErrnoKeeper keep;
  // The name goes first: an unlocked file under a temporary name would be settled by others.
  if (exists_) unlink(path_);
  exists_ = false;
  fd_.reset();
}

bool TempDump::rename_to(const char* name) noexcept {
  if (rename(path_, name) != 0) return false;
  keep();
  return true;
}

void TempDump::keep() noexcept {
  exists_ = false;
  fd_.reset();
}

const char* TempDump::name() const noexcept {
  const char* slash = std::strrchr(path_, '/');
  return slash == nullptr ? path_ : slash + 1;
}

FlushMark::Before FlushMark::set(const char* dir, const char* name, Records buffered) noexcept {
  const ErrnoKeeper keep;
  Before before = Before::kNone;
  if (lsetxattr(dir, kMark, name, std::strlen(name), XATTR_CREATE) != 0) {
    if (errno != EEXIST) return Before::kNone;
    if (settle_marked_dump(dir, buffered) == Settled::kFailed) return Before::kUnsettled;
    before = Before::kSettled;
    if (lsetxattr(dir, kMark, name, std::strlen(name), 0) != 0) return before;
  }
  dir_ = dir;
  return before;
}

void FlushMark::clear() noexcept {
  const ErrnoKeeper keep;
  if (dir_ != nullptr) lremovexattr(dir_, kMark);
  dir_ = nullptr;
}

bool has_flush_mark(const char* dir) noexcept { return lgetxattr(dir, kMark, nullptr, 0) > 0; }

Settled settle_marked_dump(const char* dir, Records buffered) noexcept {
  char name[kMarkRoom];
  read_mark(dir, name);
  if (!is_temp_name(name)) {
    lremovexattr(dir, kMark);
    return Settled::kGone;
  }
  const Settled result = Leftover(dir, name, true).settle(buffered);
  // The buffer does not hold the records of a file that stays locked; its flusher or the sweeper
  // publishes it.
  if (result != Settled::kFailed) {
    const ErrnoKeeper keep;
    lremovexattr(dir, kMark);
  }
  return result;
}

Settled settle_dump(const char* dir, const char* name, Records buffered) noexcept {
  return Leftover(dir, name, false).settle(buffered);
}

}  // namespace tavrix
