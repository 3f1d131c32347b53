// SPDX-License-Identifier: LGPL-3.0-or-later
// The records of several dump files, in order of time.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/events/dump_folder.hpp"

namespace tavrix::events {

// Names of dump files begin with the number of a process, so a list of them is in no order of time.
class DumpSet {
 public:
  // The time of a payload in microseconds since 1970; nothing when it is no record of the kind.
  using TimeOf = std::optional<int64_t> (*)(std::string_view payload);
  enum class Result { kWhole, kDamaged, kUnreadable };

  explicit DumpSet(TimeOf time_of) : time_of_(time_of) {}

  struct Record {
    std::string_view payload;
    const std::string* node;  // whose record it is; empty where there is one machine
  };

  // Takes the records of a file, up to any damage. `trouble()` then says what is wrong with it.
  Result add(const DumpName& file);
  [[nodiscard]] const std::string& trouble() const { return trouble_; }

  // The records, which live as long as the set. Records of the same time, and those of a single
  // file, stay in the order in which they were written.
  [[nodiscard]] std::vector<Record> records();

 private:
  struct Timed {
    int64_t time;
    Record record;
  };
  struct File {
    std::string bytes, node;
  };

  TimeOf time_of_;
  std::deque<File> files_;
  std::vector<Timed> records_;
  std::string trouble_;
};

}  // namespace tavrix::events
