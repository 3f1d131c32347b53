// SPDX-License-Identifier: LGPL-3.0-or-later
// The event store of a test: a staging buffer, an auditing directory, and what they hold.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace tavrix::test {

inline const std::string kStagingDir = "/scratch/staging";
inline const std::string kAuditDir = "/scratch/audit";

// An event as a line: "MKDIR DIR /path", "RENAME FILE /old -> /new"; and who did it.
struct Event {
  std::string what;
  uint32_t uid = 0;
  int pid = 0;
  int64_t time = 0;  // microseconds
};
struct AuditRecord {
  std::string path;
  uint32_t uid = 0;
  std::string address;
  uint64_t size = 0;
};

// Sets the parameters of both buffers and creates the staging buffer and its semaphore.
void make_event_store(int bytes = 1 << 20);

// Copies this process's settings to the shared block, from which programs take theirs.
void share_settings();

// The events of the dump files, oldest first, then those of the buffer. A torn record fails the
// test.
std::vector<Event> events();
std::vector<std::string> lines_of(const std::vector<Event>& events);
std::vector<std::string> event_lines();
// Their number while others write and flush. A flush that runs hides the events that it moves.
std::size_t events_at_a_glance();
// The records of the audit dump files; each process flushes its own buffer.
std::vector<AuditRecord> audit_records();

}  // namespace tavrix::test
