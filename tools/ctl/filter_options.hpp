// SPDX-License-Identifier: LGPL-3.0-or-later
// The options by which an operator chooses records: --path, --user, --op, --since, --until.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>

#include "tools/events/record_filter.hpp"

namespace tavrix::ctl {

class FilterOptions {
 public:
  void add_path(CLI::App& command);
  void add_user(CLI::App& command);
  void add_operations(CLI::App& command);
  void add_times(CLI::App& command);

  // The filter; nothing after a sentence about a value that has no meaning. A user of "" is none.
  [[nodiscard]] std::optional<events::RecordFilter> filter() const;
  [[nodiscard]] const std::string& user() const { return user_; }

  std::string user_;  // an argument of a command may fill it

 private:
  std::string path_, operations_, since_, until_;
};

}  // namespace tavrix::ctl
