// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/publish.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstring>

#include "perm_map.h"
#include "tavrix_vfs_utils.h"
#include "tools/files/durable.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::mapload {
namespace {

// Writes the previous mark again, or removes the mark when there was none.
bool write_mark_back(const std::optional<Mark>& before) {
  return before ? write_mark(*before) : files::remove(kMark) && files::sync_folder(kFolder);
}

}  // namespace

std::string NextTable::create(int table, uint32_t bytes) {
  table_ = table;
  bytes_ = bytes;
  void* address = create_perm_map_shm(key_of(table), bytes, &id_);
  if (address != nullptr) {
    address_.reset(address);
    return {};
  }
  const ErrnoKeeper keep;
  if (errno == EEXIST) {
    return fmt::format("table {} (key 0x{:x}) is there already, and cannot be removed", table,
                       key_of(table));
  }
  return fmt::format("cannot make a table of {}: {}", text::counted(bytes, "byte"),
                     std::strerror(errno));
}

NextTable::~NextTable() {
  if (address_ && !is_published_) shmctl(id_, IPC_RMID, nullptr);
}

std::span<const std::byte> NextTable::image() const {
  return {static_cast<const std::byte*>(address_.get()), bytes_};
}

bool NextTable::is_in_place() const { return shmget(key_of(table_), 0, 0) == id_; }

std::string NextTable::publish(const files::Digest& digest, Report& report) {
  const Tables before = look_at_tables();
  if (before.error != 0) {
    errno = before.error;
    return fmt::format("cannot look at the tables: {}", std::strerror(errno));
  }
  const Segment& mine = before.table[table_];
  if (mine.id != id_) {
    errno = EAGAIN;
    return fmt::format("somebody has removed table {} while it was filled", table_);
  }
  const auto old_mark = read_mark();
  if (!write_mark(mark_of(table_, mine, image(), digest))) {
    return fmt::format("cannot write {}: {}", kMark, std::strerror(errno));
  }
  if (!make_current(table_)) {
    const int error = errno;
    if (!write_mark_back(old_mark)) {
      report.push_back({Weight::kError, fmt::format("cannot write {}", kMark)});
    }
    errno = error;
    return fmt::format("cannot make table {} current: {}", table_, std::strerror(error));
  }
  is_published_ = true;
  const Segment& old = before.table[1 - table_];
  if (old.id != -1 && !remove_segment(old)) {
    report.push_back({Weight::kError, fmt::format("cannot remove table {}, the previous one: {}",
                                                  1 - table_, std::strerror(errno))});
  }
  return {};
}

void tell_servers(Report& report) {
  const Fd refresh_file(
      open(TAVRIX_PERMISSION_MARKER_PATH, O_CREAT | O_WRONLY | O_CLOEXEC | O_NOCTTY, 0644));
  if (refresh_file && futimens(refresh_file.get(), nullptr) == 0) return;
  report.push_back(
      {Weight::kError, fmt::format("cannot touch {}: {}; servers keep verdicts of the previous map",
                                   TAVRIX_PERMISSION_MARKER_PATH, std::strerror(errno))});
}

}  // namespace tavrix::mapload
