// SPDX-License-Identifier: LGPL-3.0-or-later
// Records, lives and reports of the history: for people, as JSON and as CSV.
#pragma once

#include <string>

#include "tools/events/people.hpp"
#include "tools/history/life.hpp"
#include "tools/history/report.hpp"
#include "tools/history/search.hpp"
#include "tools/json/document.hpp"

namespace tavrix::ctl {

class HistoryOutput {
 public:
  // A page as a document of the command with that name.
  [[nodiscard]] json::Json page(const char* schema, const history::Page& page);
  [[nodiscard]] json::Json lives(const std::string& path, const history::Lives& lives);
  [[nodiscard]] json::Json report(const history::Report& report);

  void print_line(const history::Record& record);
  void print_life(const history::Life& life);
  void print_report(const history::Report& report);

  static void print_csv_head();
  void print_csv(const history::Record& record);
  static void print_csv_report(const history::Report& report);

  events::People& people() { return people_; }

 private:
  json::Json record(const history::Record& record);
  void set_user(json::Json& json, uint32_t uid);

  events::People people_;
};

// A value of CSV, in quotes where it needs them.
[[nodiscard]] std::string csv_value(const std::string& text);

}  // namespace tavrix::ctl
