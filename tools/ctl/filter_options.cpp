// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/filter_options.hpp"

#include <vector>

#include "tools/cli/command_line.hpp"
#include "tools/cli/completion.hpp"
#include "tools/ctl/output.hpp"
#include "tools/events/people.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::ctl {
namespace {

bool read_user(const std::string& name, events::RecordFilter& filter) {
  if (name.empty()) return true;
  filter.uid = events::user_id(name);
  if (filter.uid) return true;
  complain("there is no user \"{}\" on this machine; give the number of one that is gone", name);
  return false;
}

bool read_operations(const std::string& words, events::RecordFilter& filter) {
  if (words.empty()) return true;
  filter.operations = events::operations_of(words);
  if (filter.operations) return true;
  const std::string meant = cli::nearest(words, events::operation_words());
  complain("\"{}\" is not an operation; {}", words,
           meant.empty() ? "give " + events::list_of_operation_words() + " or a type such as MKDIR"
                         : fmt::format("did you mean \"{}\"?", meant));
  return false;
}

std::optional<text::Moment> read_time(const std::string& text) {
  const auto moment = text::moment_of(text, text::now_in_microseconds());
  if (!moment) complain("\"{}\" is not a time; give one {}", text, text::kMomentForms);
  return moment;
}

bool read_times(const std::string& since, const std::string& until, events::RecordFilter& filter) {
  if (!since.empty()) {
    const auto moment = read_time(since);
    if (!moment) return false;
    filter.since = moment->first;
  }
  if (!until.empty()) {
    const auto moment = read_time(until);
    if (!moment) return false;
    filter.until = moment->last;
  }
  return true;
}

}  // namespace

void FilterOptions::add_path(CLI::App& command) {
  command
      .add_option("--path", path_,
                  "only in this folder (Shared/Team), by wildcards (*.docx), or with this text "
                  "in the path")
      ->type_name("PATH");
}

void FilterOptions::add_user(CLI::App& command) {
  cli::complete_with(command.add_option("--user", user_, "only by this user, a name or a number")
                         ->type_name("USER"),
                     groupmap::known_users);
}

void FilterOptions::add_operations(CLI::App& command) {
  cli::complete_with(command
                         .add_option("--op", operations_,
                                     "only these operations: " + events::list_of_operation_words() +
                                         ", or a type such as MKDIR; several between commas")
                         ->type_name("OP"),
                     events::operation_words);
}

void FilterOptions::add_times(CLI::App& command) {
  command
      .add_option("--since", since_, "only from this time on, " + std::string(text::kMomentForms))
      ->type_name("TIME");
  command.add_option("--until", until_, "only up to this time; a day counts whole")
      ->type_name("TIME");
}

std::optional<events::RecordFilter> FilterOptions::filter() const {
  events::RecordFilter filter;
  if (!read_user(user_, filter) || !read_operations(operations_, filter) ||
      !read_times(since_, until_, filter)) {
    return std::nullopt;
  }
  if (!path_.empty()) filter.path.emplace(path_);
  return filter;
}

}  // namespace tavrix::ctl
