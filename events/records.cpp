// SPDX-License-Identifier: LGPL-3.0-or-later
// Event records: they are stamped, packed, framed and passed to a buffer here.

#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/reserved_user.hpp"
#include "vfs_common.h"

namespace tavrix {
namespace {

using Record = Malloced<staging_data_s>;

constexpr std::size_t kHeader = sizeof(staging_data_s);

const char* shown(const char* path) { return path != nullptr ? path : ""; }

// The superuser's changes are the appliance's own; the reserved user's must not be synchronised.
bool is_ignored(uid_t uid) { return uid == 0 || is_reserved_user(uid); }

timeval time_of_day() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return now;
}

Record alloc_record(std::size_t payload) {
  if (payload > INT_MAX) {
    errno = ENOMEM;
    return Record(nullptr);
  }
  return Record(alloc_staging_data(static_cast<int>(payload)));
}

uint8_t* payload_of(const Record& record) {
  return reinterpret_cast<uint8_t*>(record.get()) + kHeader;
}

}  // namespace
}  // namespace tavrix

using tavrix::Record;

staging_data_s* alloc_staging_data(int size) {
  if (size < 1) return nullptr;
  const std::size_t bytes = static_cast<std::size_t>(size) + tavrix::kHeader;
  auto* record = static_cast<staging_data_s*>(std::malloc(bytes));
  if (record == nullptr) return nullptr;
  std::memset(record, 0, bytes);
  record->size = static_cast<uint32_t>(bytes);
  record->sig = STAGING_DATA_SIGNATURE;
  return record;
}

int pop_vfs_event(VFSEvent* ve, uid_t uid) {
  const timeval now = tavrix::time_of_day();
  ve->uid = uid;
  ve->client_pid = getpid();
  ve->time_sec = static_cast<int32_t>(now.tv_sec);
  ve->time_usec = static_cast<int32_t>(now.tv_usec);
  TAVRIX_LOG(0, "%s: Time stamp=%lu(secs) %lu(msecs) uid=%d path=%s", __func__,
             static_cast<unsigned long>(now.tv_sec), static_cast<unsigned long>(now.tv_usec),
             static_cast<int>(uid), tavrix::shown(ve->path));
  return 0;
}

int pop_audit_event(AuditEvent* ae) {
  const timeval now = tavrix::time_of_day();
  ae->time_sec = static_cast<int32_t>(now.tv_sec);
  TAVRIX_LOG(10, "%s: Time stamp=%lu(secs) uid=%d path=%s", __func__,
             static_cast<unsigned long>(now.tv_sec), static_cast<int>(ae->uid),
             tavrix::shown(ae->path));
  return 0;
}

staging_data_s* create_staging_data_buf(VFSEvent* ve) {
  if (ve == nullptr) {
    TAVRIX_LOG(0, "vfsevent is null");
    return nullptr;
  }
  if (tavrix::is_ignored(ve->uid)) {
    // The message says pid and shows the uid; log readers expect that.
    TAVRIX_LOG(0, "Ignoring reserved user events [%s] pid %d", tavrix::shown(ve->path),
               static_cast<int>(ve->uid));
    return nullptr;
  }
  const std::size_t size = vfsevent__get_packed_size(ve);
  Record record = tavrix::alloc_record(size);
  if (record == nullptr) {
    TAVRIX_LOG(0, "could not allocate event staging data. errno = %d(%s)", errno, strerror(errno));
    return nullptr;
  }
  vfsevent__pack(ve, tavrix::payload_of(record));
  record->size = static_cast<uint32_t>(size);
  TAVRIX_LOG(10, "event %d [%s]", static_cast<int>(size), tavrix::shown(ve->path));
  return record.release();
}

staging_data_s* create_audit_data_buf(AuditEvent* ae) {
  if (ae == nullptr) {
    TAVRIX_LOG(0, "vfsevent is null");
    return nullptr;
  }
  if (tavrix::is_ignored(ae->uid)) {
    TAVRIX_LOG(5, "Ignoring reserved user events [%s] pid %d", tavrix::shown(ae->path), getpid());
    return nullptr;
  }
  const std::size_t size = audit_event__get_packed_size(ae);
  Record record = tavrix::alloc_record(size);
  if (record == nullptr) {
    TAVRIX_LOG(0, "could not allocate audit staging data. errno = %d(%s)", errno, strerror(errno));
    return nullptr;
  }
  audit_event__pack(ae, tavrix::payload_of(record));
  record->size = static_cast<uint32_t>(size);
  TAVRIX_LOG(10, "audit %d [%s]", static_cast<int>(size), tavrix::shown(ae->path));
  return record.release();
}

int send_modify_vfs_event(VFSEvent* ve) {
  const Record record(create_staging_data_buf(ve));
  if (record == nullptr) return -1;
  static_cast<void>(write_to_staging_buffer(record.get()));
  return 0;
}

int send_audit_vfs_event(AuditEvent* ve, uid_t uid) {
  TAVRIX_LOG(1, "%s: send audit event", __func__);
  if (ve != nullptr) ve->uid = uid;
  const Record record(create_audit_data_buf(ve));
  if (record == nullptr) return -1;
  static_cast<void>(write_to_audit_buffer(record.get()));
  return 0;
}
