// SPDX-License-Identifier: LGPL-3.0-or-later
// A staging buffer of the test's own, with readers of it and of the dump files.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <cstring>
#include <string>
#include <vector>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"
#include "vfs_common.h"

namespace tavrix::test {

// A framed record with that payload.
inline Malloced<staging_data_s> record_of(const std::string& payload) {
  Malloced<staging_data_s> record(alloc_staging_data(static_cast<int>(payload.size())));
  record->size = static_cast<uint32_t>(payload.size());
  std::memcpy(record.get() + 1, payload.data(), payload.size());
  return record;
}

// The payloads of a sequence of frames; a torn or foreign one fails the test.
inline std::vector<std::string> payloads_of(const std::string& bytes) {
  std::vector<std::string> payloads;
  for (std::size_t at = 0; at < bytes.size();) {
    staging_data_s head{};
    if (at + sizeof head > bytes.size()) {
      ADD_FAILURE() << "a torn head at " << at;
      break;
    }
    std::memcpy(&head, bytes.data() + at, sizeof head);
    at += sizeof head;
    if (head.sig != STAGING_DATA_SIGNATURE || at + head.size > bytes.size()) {
      ADD_FAILURE() << "a torn record at " << at;
      break;
    }
    payloads.push_back(bytes.substr(at, head.size));
    at += head.size;
  }
  return payloads;
}

class Staging : public Isolated {
 protected:
  static constexpr const char* kDir = "/scratch/staging";
  static constexpr const char* kSyncOff = "/tavrix/.conf/sync.off";

  void SetUp() override {
    Isolated::SetUp();
    set_debug_level(-1);
    make_dirs(kDir);
    make_dirs("/tavrix/.conf");
    configure(20800, 50, kDir);
    ASSERT_EQ(1, create_eventstore_staging_semaphore());
    ASSERT_EQ(0, create_staging_buffer());
  }

  static void configure(int size, int percent, const std::string& dir) {
    global_params[PARAM_STAGING_BUFFER_SIZE].value.intval = size;
    global_params[PARAM_FLUSH_FILL_THRESHOLD].value.intval = percent;
    std::strcpy(global_params[PARAM_STAGING_DIR].value.strval, dir.c_str());
  }
  static int append(const std::string& payload) {
    return write_to_staging_buffer(record_of(payload).get());
  }

  // The buffer's bytes behind its header, up to its end.
  static std::string content() {
    staging_buffer_s* buffer = get_eventstore_staging_buffer();
    const std::string bytes(reinterpret_cast<const char*>(buffer + 1), buffer->next_offset - 16);
    put_eventstore_staging_buffer(buffer);
    return bytes;
  }
  static staging_buffer_s header() {
    staging_buffer_s* buffer = get_eventstore_staging_buffer();
    const staging_buffer_s copy = *buffer;
    put_eventstore_staging_buffer(buffer);
    return copy;
  }
  static void set_offset(uint32_t offset) {
    staging_buffer_s* buffer = get_eventstore_staging_buffer();
    buffer->next_offset = offset;
    buffer->num_records = 1;
    put_eventstore_staging_buffer(buffer);
  }
  static std::vector<std::string> dumps() {
    std::vector<std::string> names;
    for (const std::string& name : list(kDir)) {
      if (name.starts_with("pending_")) names.push_back(name);
    }
    return names;
  }
  static std::vector<std::string> dumped() {
    std::vector<std::string> all;
    for (const std::string& name : dumps()) {
      const auto some = payloads_of(read_file(std::string(kDir) + "/" + name));
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }
  static bool semaphore_is_free() {
    return in_child([] {
             alarm(2);
             int cause = 0;
             if (wait_eventstore_semaphore(&cause) != 0) _exit(1);
           })
        .ok();
  }
};

}  // namespace tavrix::test
