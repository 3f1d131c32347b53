// SPDX-License-Identifier: LGPL-3.0-or-later
// Dump files of events and audits, record by record, and what is wrong with one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tavrix::events {

// Walks over the frames of a dump. What follows a torn or foreign frame cannot be trusted.
class DumpReader {
 public:
  explicit DumpReader(std::string_view bytes) : bytes_(bytes) {}

  // The next payload; nothing at the end, or at damage.
  std::optional<std::string_view> next();
  // What is wrong, with the offset; empty at a sound end.
  [[nodiscard]] const std::string& damage() const { return damage_; }
  [[nodiscard]] uint64_t offset() const { return at_; }

 private:
  std::string_view bytes_;
  std::size_t at_ = 0;
  std::string damage_;
};

struct Event {
  int client_pid = 0;
  std::string path;
  uint32_t uid = 0;
  std::optional<std::string> rename_path;
  int optype = 0;
  int64_t seconds = 0;
  int microseconds = 0;
  int fselem_type = 0;
  std::optional<std::string> user;
};
std::optional<Event> unpack_event(std::string_view payload);
std::string optype_name(int optype);

struct Audit {
  std::string path;
  uint32_t uid = 0;
  int64_t seconds = 0;
  std::optional<std::string> address;
  uint64_t size = 0;
};
std::optional<Audit> unpack_audit(std::string_view payload);

}  // namespace tavrix::events
