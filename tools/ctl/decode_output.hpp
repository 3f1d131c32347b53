// SPDX-License-Identifier: LGPL-3.0-or-later
// The output of "events decode" and "audit decode": a line of JSON for each record, or counts.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tools/events/people.hpp"
#include "tools/events/record_filter.hpp"
#include "tools/json/document.hpp"

namespace tavrix::ctl {

// A kind of records: how they are unpacked, judged and printed.
class DecodeSink;
struct RecordKind {
  const char* schema;
  const char* folder;  // of the dump files, by the shipped settings
  std::optional<int64_t> (*time_of)(std::string_view payload);
  void (*put)(std::string_view payload, DecodeSink& sink);  // the payload is of the kind
};
extern const RecordKind kEventRecords, kAuditRecords;

class DecodeSink {
 public:
  struct Wishes {
    bool counts = false;        // counts instead of lines
    bool names_schema = false;  // the lines begin with the name of their schema
  };
  DecodeSink(const RecordKind& kind, const Wishes& wishes, events::RecordFilter filter)
      : kind_(kind), wishes_(wishes), filter_(std::move(filter)) {}

  // Takes a record that the filter takes. `node` is empty where there is one machine.
  void put(std::string_view payload, const std::string& node) {
    node_ = &node;
    kind_.put(payload, *this);
  }
  // Prints the counts, if they are wished for.
  void finish();

  // For the kinds.
  [[nodiscard]] bool takes(const events::Occurrence& record) const { return filter_.takes(record); }
  [[nodiscard]] bool counts() const { return wishes_.counts; }
  void count(const std::string& type, uint32_t uid, int64_t seconds);
  [[nodiscard]] json::Json begin_line(const std::optional<std::string>& time) const;
  void end_line(json::Json line, uint32_t uid);

 private:
  const RecordKind& kind_;
  Wishes wishes_;
  events::RecordFilter filter_;
  events::People people_;
  const std::string* node_ = nullptr;  // of the record that is put
  std::map<std::string, uint64_t> by_type_, by_user_, by_user_name_, by_minute_, by_node_;
  uint64_t records_ = 0;
};

}  // namespace tavrix::ctl
