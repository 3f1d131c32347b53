// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/operation_table.hpp"

#include <algorithm>

namespace tavrix::test {
namespace {

bool went_well(const Json& answer) {
  if (answer.contains("error")) return false;
  return std::all_of(answer["steps"].begin(), answer["steps"].end(),
                     [](const Json& step) { return step["status"] == "OK"; });
}

std::string statuses(const Json& answer) {
  if (answer.contains("error")) return answer["error"];
  std::string text = "the server said:";
  for (const Json& step : answer["steps"]) text += " " + std::string(step["status"]);
  return text;
}

// An event as the table writes it: "CREATE Shared/Team/new" for "CREATE FILE
// /tavrix/Shared/Team/new". Changes of times and of content become one line.
Lines short_lines(const std::vector<Event>& events) {
  Lines lines;
  for (const Event& event : events) {
    std::string line = event.what;
    for (const std::string part : {" FILE", " DIR", "/tavrix/", "/tavrix/"}) {
      if (const auto at = line.find(part); at != std::string::npos) line.erase(at, part.size());
    }
    if (lines.empty() || lines.back() != line) lines.push_back(line);
  }
  return lines;
}

std::string joined(const std::vector<Event>& events) {
  std::string text;
  for (const std::string& line : short_lines(events)) text += "; " + line;
  return text;
}

}  // namespace

void Operations::check(const std::vector<Row>& rows) {
  before_ = Disk::now(kShareRoot);
  for (const Row& row : rows) {
    for (const Role& role : roles()) check_cell(row, role);
  }
  EXPECT_EQ(std::string::npos, smbd_log().find("PANIC"));
  EXPECT_EQ(std::string::npos, smbd_log().find("identity left"));
}

void Operations::check_cell(const Row& row, const Role& role) {
  Account account{.caller = role.caller, .map = &map_, .before = before_};
  account.request = {{"as", role.caller->name}, {"steps", row.steps}};
  account.answer = robot().run(account.request);
  account.after = Disk::now(kShareRoot);
  account.events = take_events();
  const bool may = row.who.contains(role.name);
  const bool changed = !changes_between(before_, account.after).empty();
  std::vector<std::string> wrong = complaints_about(account);
  if (may != went_well(account.answer)) wrong.emplace_back(may ? "refused" : "granted");
  if (changed && !may) wrong.emplace_back("the disk changed");
  const Lines expected = may && role.caller != &kSyncAgent ? row.events : Lines{};
  if (short_lines(account.events) != expected) wrong.push_back("events" + joined(account.events));
  std::string text;
  for (const std::string& line : wrong) text += "\n  " + line;
  EXPECT_TRUE(wrong.empty()) << row.operation << ", by the " << role.name << ":" << text << "\n  "
                             << statuses(account.answer);
  if (!changed) return;
  make_tree(kShareRoot);
  before_ = Disk::now(kShareRoot);
}

}  // namespace tavrix::test
