// SPDX-License-Identifier: LGPL-3.0-or-later
// Records by which a name comes to mean another object.
#pragma once

#include <sqlite3.h>
#include <optional>
#include <string>

#include "tools/history/record.hpp"

namespace tavrix::history {

struct TurnOfName {
  // The record is about the name itself, or about a folder above it.
  enum class Kind {
    kMade,     // an object was made under the name
    kLeft,     // the object of the name was renamed away
    kArrived,  // an object was renamed to the name
    kDeleted,
  };
  Kind kind;
  bool is_above;
  Record record;
  std::string
      rest;  // the name behind the folder of the record; empty if it is about the name itself

  // The name with the folder renamed: the object's before an arrival, and behind a leaving.
  [[nodiscard]] std::string path_before() const { return record.path + rest; }
  [[nodiscard]] std::string path_behind() const { return record.target + rest; }
};

// Looks turns up, a few steps in an index for each folder on the way to the name.
class Turns {
 public:
  explicit Turns(sqlite3* database);

  // The last turn before a position, and the first one at it or behind it. Nothing if there is
  // none, and on a failure.
  [[nodiscard]] std::optional<TurnOfName> last_before(const std::string& name, const Position& at);
  [[nodiscard]] std::optional<TurnOfName> first_from(const std::string& name, const Position& at);
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  using Kind = TurnOfName::Kind;
  std::optional<TurnOfName> nearest(const std::string& name, Position at, bool is_backwards);
  std::optional<Record> one(Statement& statement, std::string_view path, const Position& at,
                            const Position& limit);

  Statement path_before_, target_before_, path_from_, target_from_;
  bool failed_ = false;
};

}  // namespace tavrix::history
