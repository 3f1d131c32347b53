// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/event_store.hpp"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <functional>

#include "audit_events.pb-c.h"
#include "eventstore.h"
#include "samba.pb-c.h"
#include "tests/support/files.hpp"
#include "tests/support/log_capture.hpp"

namespace tavrix::test {
namespace {

// Sorted by the time in "pending_<pid>_<time>", whatever the process.
std::vector<std::string> dumps_in(const std::string& folder) {
  std::vector<std::string> names;
  for (const std::string& name : list(folder)) {
    if (name.starts_with("pending_")) names.push_back(name);
  }
  const auto time_of = [](const std::string& name) { return name.substr(name.find('_', 8) + 1); };
  std::stable_sort(names.begin(), names.end(), [&](const std::string& a, const std::string& b) {
    return time_of(a) < time_of(b);
  });
  return names;
}

void for_each_payload(const std::string& bytes,
                      const std::function<void(const uint8_t*, std::size_t)>& action) {
  for (std::size_t at = 0; at < bytes.size();) {
    staging_data_s head{};
    ASSERT_LE(at + sizeof head, bytes.size()) << "a torn head";
    std::memcpy(&head, bytes.data() + at, sizeof head);
    at += sizeof head;
    ASSERT_EQ(STAGING_DATA_SIGNATURE, head.sig);
    ASSERT_LE(at + head.size, bytes.size()) << "a torn record";
    action(reinterpret_cast<const uint8_t*>(bytes.data() + at), head.size);
    at += head.size;
  }
}

Event event_of(const VFSEvent& message) {
  const auto* type = protobuf_c_enum_descriptor_get_value(&vfsevent__op_type__descriptor,
                                                          static_cast<int>(message.optype));
  std::string what = type == nullptr ? "?" : std::string(type->name).substr(7);  // "OPTYPE_"
  what += message.fselem_type == VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR ? " DIR " : " FILE ";
  what += message.path;
  if (message.rename_path != nullptr) what += std::string(" -> ") + message.rename_path;
  return {what, message.uid, message.client_pid,
          message.time_sec * int64_t{1000000} + message.time_usec};
}

void append_events(const std::string& bytes, std::vector<Event>& events) {
  for_each_payload(bytes, [&](const uint8_t* payload, std::size_t size) {
    VFSEvent* message = vfsevent__unpack(nullptr, size, payload);
    ASSERT_NE(nullptr, message);
    events.push_back(event_of(*message));
    vfsevent__free_unpacked(message, nullptr);
  });
}

}  // namespace

void make_event_store(int bytes) {
  make_dirs(kStagingDir);
  make_dirs(kAuditDir);
  make_dirs("/tavrix/.conf");
  const auto number = [](int index, int value) { global_params[index].value.intval = value; };
  number(PARAM_STAGING_BUFFER_SIZE, bytes);
  number(PARAM_FLUSH_FILL_THRESHOLD, 80);
  number(PARAM_AUDITING_BUFFER_SIZE, 65536);
  number(PARAM_AUDITING_FLUSH_INTERVAL, 3600);
  std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, kStagingDir.c_str());
  std::strcpy(global_params[PARAM_AUDITING_DIR].value.strval, kAuditDir.c_str());
  ASSERT_EQ(1, create_eventstore_staging_semaphore());
  ASSERT_EQ(0, create_staging_buffer());
}

void share_settings() {
  constexpr std::size_t kSize = sizeof(global_param_s) * PARAM_MAX_INDEX;
  const int id = shmget(ftok("/dev/null", 3456), kSize, IPC_CREAT | 0666);
  void* block = shmat(id, nullptr, 0);
  ASSERT_NE(reinterpret_cast<void*>(-1), block);
  std::memcpy(block, global_params, kSize);
  shmdt(block);
}

// The events of the dump files, then those of the buffer.
static std::vector<Event> events_now() {
  std::vector<Event> all;
  for (const std::string& name : dumps_in(kStagingDir)) {
    append_events(read_file(kStagingDir + "/" + name), all);
  }
  staging_buffer_s* buffer = get_eventstore_staging_buffer();
  if (buffer == nullptr) {
    ADD_FAILURE() << "no staging buffer";
    return all;
  }
  append_events({reinterpret_cast<const char*>(buffer + 1), buffer->next_offset - 16}, all);
  put_eventstore_staging_buffer(buffer);
  return all;
}

// A flush empties the buffer before its file has a name, so this looks again when a flush began or
// ended meanwhile, as the end of a server process makes one. It gives up in the end: a flusher that
// was killed leaves its temporary file for ever.
std::vector<Event> events() {
  const auto is_flushing = [](const std::vector<std::string>& names) {
    return std::any_of(names.begin(), names.end(),
                       [](const std::string& name) { return name.starts_with("txtemp"); });
  };
  std::vector<Event> all;
  for (int tries = 0; tries < 100; ++tries) {
    const auto before = list(kStagingDir);
    all = events_now();
    if (!is_flushing(before) && list(kStagingDir) == before) break;
    usleep(10000);
  }
  return all;
}

std::size_t events_at_a_glance() { return events_now().size(); }

std::vector<std::string> lines_of(const std::vector<Event>& events) {
  std::vector<std::string> lines;
  for (const Event& event : events) lines.push_back(event.what);
  return lines;
}

std::vector<std::string> event_lines() { return lines_of(events()); }

std::vector<AuditRecord> audit_records() {
  std::vector<AuditRecord> all;
  for (const std::string& name : dumps_in(kAuditDir)) {
    for_each_payload(
        read_file(kAuditDir + "/" + name), [&](const uint8_t* payload, std::size_t size) {
          AuditEvent* message = audit_event__unpack(nullptr, size, payload);
          ASSERT_NE(nullptr, message);
          all.push_back({message->path, message->uid,
                         message->ip_address == nullptr ? "" : message->ip_address, message->size});
          audit_event__free_unpacked(message, nullptr);
        });
  }
  return all;
}

}  // namespace tavrix::test
