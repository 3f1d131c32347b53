// SPDX-License-Identifier: LGPL-3.0-or-later
// The audit records of this process, kept in a buffer of its own and flushed to dump files.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/parameters.hpp"
#include "utils/root_scope.hpp"
#include "utils/staging/history_link.hpp"
#include "vfs_common.h"

staging_buffer_s* global_read_audit_buffer = nullptr;

namespace tavrix {
namespace {

constexpr uint32_t kEmpty = sizeof(staging_buffer_s);  // next_offset of a buffer without records
constexpr const char* kTempName = "/adtempXXXXXX";
constexpr std::size_t kTempNameRoom = 15;

// Half of the buffer when the setting is no percentage; the staging buffer uses 80 per cent then.
int write_threshold() {
  const int size = parameter(PARAM_AUDITING_BUFFER_SIZE);
  const int percent = parameter(PARAM_FLUSH_FILL_THRESHOLD);
  if (percent > 99) return size / 2;
  return static_cast<int>(int64_t{size} * percent / 100);
}

// Bytes allocated for the buffer; the settings may change while it lives.
std::size_t capacity = 0;

bool allocate_buffer() {
  const int size = parameter(PARAM_AUDITING_BUFFER_SIZE);
  const std::size_t bytes =
      size > static_cast<int>(kEmpty) ? static_cast<std::size_t>(size) : kEmpty;
  global_read_audit_buffer = static_cast<staging_buffer_s*>(std::calloc(1, bytes));
  capacity = bytes;
  return global_read_audit_buffer != nullptr;
}

// The threshold keeps most records inside the buffer. A record larger than the room behind the
// threshold makes the buffer grow: no record may be lost, and nothing may be overrun.
bool make_room(std::size_t end) {
  if (end <= capacity) return true;
  void* grown = std::realloc(global_read_audit_buffer, end);
  if (grown == nullptr) return false;
  global_read_audit_buffer = static_cast<staging_buffer_s*>(grown);
  capacity = end;
  return true;
}

bool is_flush_due(const staging_buffer_s& buffer) {
  const bool below_threshold = static_cast<int>(buffer.next_offset) < write_threshold();
  const bool in_time =
      time(nullptr) <= buffer.last_flush_time + parameter(PARAM_AUDITING_FLUSH_INTERVAL);
  return !(below_threshold && in_time);
}

CString temp_name_in(const char* dir) {
  const std::size_t room = std::strlen(dir) + kTempNameRoom;
  CString name(static_cast<char*>(std::malloc(room)));
  if (name != nullptr) std::snprintf(name.get(), room, "%s%s", dir, kTempName);
  return name;
}

bool is_folder(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool exists(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0;
}

// Replaces the buffer by a new one, once its records are in the file.
void replace_buffer() {
  std::free(global_read_audit_buffer);
  global_read_audit_buffer = nullptr;
  init_audit_buffer();
}

int write_dump(const char* dir) {
  CString temp_name = temp_name_in(dir);
  if (temp_name == nullptr) {
    TAVRIX_LOG(0, "Out of memory for creating tmpfname");
    return -1;
  }
  Fd file(mkostemp(temp_name.get(), O_CLOEXEC));
  if (!file) {
    TAVRIX_LOG(0, "cannot openfile %s. errno = %d(%s)", temp_name.get(), errno, strerror(errno));
    return -1;
  }
  const CString dump_name(get_dumpfname(dir));
  if (dump_name == nullptr) {
    unlink(temp_name.get());
    return -1;
  }
  if (exists(dump_name.get())) {
    // The temporary file stays here and after a short write, as evidence.
    TAVRIX_LOG(0, "dump file %s already exists.", dump_name.get());
    return -1;
  }
  const staging_buffer_s& buffer = *global_read_audit_buffer;
  const std::size_t size = buffer.next_offset - kEmpty;
  TAVRIX_LOG(3, "%s: writing to %s would rename to filename %s size %d ", "flush_audit_buffer",
             temp_name.get(), dump_name.get(), static_cast<int>(size));
  if (write(file.get(), &buffer + 1, size) != static_cast<ssize_t>(size)) {
    TAVRIX_LOG(4, "staging buffer could not finish write");
    return -1;
  }
  file.reset();
  replace_buffer();
  link_for_history(temp_name.get(), HistoryKind::kAudit, dump_name.get());
  if (rename(temp_name.get(), dump_name.get()) == -1) {
    TAVRIX_LOG(0, "cannot rename %s to %s, errno = %d", temp_name.get(), dump_name.get(), errno);
    unlink(temp_name.get());
  }
  return 0;
}

}  // namespace
}  // namespace tavrix

void init_audit_buffer(void) {
  TAVRIX_LOG(1, "Allocating %d for audit buffer", tavrix::parameter(PARAM_AUDITING_BUFFER_SIZE));
  if (global_read_audit_buffer == nullptr) {
    if (!tavrix::allocate_buffer()) {
      TAVRIX_LOG(0, "Unable to allocate buffer for auditing");
      return;
    }
  } else if (global_read_audit_buffer->next_offset > tavrix::kEmpty) {
    TAVRIX_LOG(1, "Got an init force flush temp_offset %d, flush_time %d",
               static_cast<int>(global_read_audit_buffer->next_offset),
               static_cast<int>(global_read_audit_buffer->last_flush_time));
    // Records that could not be written stay for the next append to flush.
    if (flush_audit_buffer() != 0 || global_read_audit_buffer == nullptr) return;
  } else {
    TAVRIX_LOG(1, "Got an init but nothing in the buffer");
  }
  staging_buffer_s& buffer = *global_read_audit_buffer;
  buffer.last_flush_time = time(nullptr);
  buffer.next_offset = tavrix::kEmpty;
  TAVRIX_LOG(1, "Finished  allocating %d for audit buffer flush time %d",
             tavrix::parameter(PARAM_AUDITING_BUFFER_SIZE),
             static_cast<int>(buffer.last_flush_time));
}

int write_to_audit_buffer(staging_data_s* rec) {
  if (rec == nullptr) {
    TAVRIX_LOG(0, "null staging data");
    return -1;
  }
  if (static_cast<int32_t>(rec->size) < 1) {
    TAVRIX_LOG(0, "invalid data size");
    return -1;
  }
  if (global_read_audit_buffer == nullptr) {
    TAVRIX_LOG(0, "Auditing buffer is NULL");
    return -1;
  }
  if (rec->sig != STAGING_DATA_SIGNATURE) {
    TAVRIX_LOG(0, "Writing to audit buffer without a proper signature");
  }
  const std::size_t length = std::size_t{rec->size} + sizeof(staging_data_s);
  TAVRIX_LOG(8,
             "audit: last flush time %d, flush interval %d, current time %d, current offset %d, "
             "data size %d, write threshold %d",
             static_cast<int>(global_read_audit_buffer->last_flush_time),
             tavrix::parameter(PARAM_AUDITING_FLUSH_INTERVAL), static_cast<int>(time(nullptr)),
             static_cast<int>(global_read_audit_buffer->next_offset), static_cast<int>(length),
             tavrix::write_threshold());
  if (tavrix::is_flush_due(*global_read_audit_buffer) && flush_audit_buffer() == -1) {
    TAVRIX_LOG(0, "Failed to flush audit buffer. errno = %d(%s)", errno, strerror(errno));
  }
  if (global_read_audit_buffer == nullptr ||
      !tavrix::make_room(global_read_audit_buffer->next_offset + length)) {
    TAVRIX_LOG(0, "Unable to allocate buffer for auditing");
    return -1;
  }
  staging_buffer_s& buffer = *global_read_audit_buffer;
  std::memcpy(reinterpret_cast<std::byte*>(&buffer) + buffer.next_offset, rec, length);
  buffer.next_offset += static_cast<uint32_t>(length);
  buffer.num_records += 1;
  return 0;
}

int flush_audit_buffer(void) {
  if (global_read_audit_buffer == nullptr) {
    TAVRIX_LOG(0, "cannot access staging buffer.");
    return -1;
  }
  if (global_read_audit_buffer->num_records == 0) return 1;
  const tavrix::RootScope root;
  if (!root) return -1;
  const char* dir = tavrix::parameter_text(PARAM_AUDITING_DIR);
  if (!tavrix::is_folder(dir)) {
    TAVRIX_LOG(0, "missing auditing directory %s", dir);
    return -1;
  }
  return tavrix::write_dump(dir);
}
