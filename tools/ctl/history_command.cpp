// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl history: who did it, and when. Asks the database that tavrix-historian writes.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <optional>
#include <string>

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/cli/pager.hpp"
#include "tools/cli/progress.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/filter_options.hpp"
#include "tools/ctl/history_output.hpp"
#include "tools/ctl/output.hpp"
#include "tools/events/path_pattern.hpp"
#include "tools/files/durable.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/history/database.hpp"
#include "tools/history/report_page.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::ctl {
namespace {

constexpr std::size_t kPage = 200;
constexpr std::size_t kNoEnd = std::numeric_limits<std::size_t>::max();

// The database, and what every command here takes.
struct Source {
  std::string file;
  bool csv = false;

  void add_to(CLI::App& command) {
    command.add_option("--database", file, "the history, instead of the one of the settings")
        ->type_name("FILE");
    command.add_flag("--csv", csv, "print comma-separated values");
  }
  // Null after a sentence.
  [[nodiscard]] history::Database open() {
    if (file.empty()) {
      const auto settings = settings::ServiceSettings::read(settings::kSettingsFile);
      file = settings.text("HISTORIAN:database");
    }
    history::Problem problem;
    history::Database database = history::open_to_read(file, problem);
    if (database == nullptr) complain(std::string_view(problem.sentence));
    return database;
  }
  int fail(sqlite3* database) const {
    complain(std::string_view(history::problem_of(database, file).sentence));
    return kFailure;
  }
};

struct SearchArguments {
  Source source;
  FilterOptions filter;
  std::string after;
  std::size_t limit = 0;  // 0: a page as JSON, everything for people
  int patience = 0;
  bool reads = false;
};

std::optional<history::Search> search_of(const SearchArguments& arguments) {
  auto filter = arguments.filter.filter();
  if (!filter) return std::nullopt;
  history::Search search;
  search.filter = std::move(*filter);
  search.reads = arguments.reads;
  if (arguments.patience > 0) search.patience = std::chrono::milliseconds(arguments.patience);
  if (arguments.after.empty()) return search;
  search.after = history::position_of(arguments.after);
  if (search.after) return search;
  complain("\"{}\" is not the \"next\" of a page", arguments.after);
  return std::nullopt;
}

int print_page(sqlite3* database, const SearchArguments& arguments, history::Search search,
               const char* schema) {
  search.limit = arguments.limit == 0 ? kPage : arguments.limit;
  const auto page = history::search(database, search);
  if (!page) return arguments.source.fail(database);
  HistoryOutput output;
  print(output.page(schema, *page));
  return page->records.empty() ? kNo : kYes;
}

// Page after page, each as soon as it is found.
int print_all(sqlite3* database, const SearchArguments& arguments, history::Search search) {
  const cli::Pager pager(!arguments.source.csv);
  HistoryOutput output;
  std::size_t left = arguments.limit == 0 ? kNoEnd : arguments.limit;
  bool is_found = false;
  if (arguments.source.csv) HistoryOutput::print_csv_head();
  while (left > 0) {
    search.limit = std::min(left, kPage);
    const auto page = history::search(database, search);
    if (!page) return arguments.source.fail(database);
    for (const history::Record& record : page->records) {
      if (arguments.source.csv) {
        output.print_csv(record);
      } else {
        output.print_line(record);
      }
    }
    std::fflush(stdout);
    is_found |= !page->records.empty();
    left -= page->records.size();
    if (page->is_cut) {
      std::fflush(stdout);
      warn(fmt::format("the search went back to {}; --after {} goes on",
                       text::local_time(page->next->time), history::cursor_of(*page->next)));
    }
    if (!page->next || page->is_cut) break;
    search.after = page->next;
  }
  if (!is_found && !arguments.source.csv) fmt::print("nothing is recorded of this\n");
  return is_found ? kYes : kNo;
}

int search_history(const Options& options, SearchArguments& arguments, const char* schema) {
  const auto search = search_of(arguments);
  if (!search) return kFailure;
  const auto database = arguments.source.open();
  if (database == nullptr) return kFailure;
  if (options.json) return print_page(database.get(), arguments, *search, schema);
  return print_all(database.get(), arguments, *search);
}

struct FileArguments {
  Source source;
  std::string path;
  std::size_t limit = kPage;
  bool reads = false, all = false;
};

void print_lives(HistoryOutput& output, const history::Lives& lives) {
  const cli::Pager pager(true);
  bool is_first = true;
  for (const history::Life& life : lives.lives) {
    if (!is_first) fmt::print("\n");
    is_first = false;
    output.print_life(life);
  }
  if (lives.has_more) fmt::print("\nOlder objects had this name too; --all shows them.\n");
}

int show_file(const Options& options, FileArguments& arguments) {
  const auto database = arguments.source.open();
  if (database == nullptr) return kFailure;
  history::LifeQuestion question;
  question.path = events::server_path(arguments.path);
  question.reads = arguments.reads;
  question.all = arguments.all;
  question.most_changes = arguments.limit;
  const auto lives = history::lives_of(database.get(), question);
  if (!lives) return arguments.source.fail(database.get());
  HistoryOutput output;
  if (options.json) {
    print(output.lives(question.path, *lives));
  } else if (arguments.source.csv) {
    HistoryOutput::print_csv_head();
    for (const history::Life& life : lives->lives) {
      for (const history::Step& step : life.steps) output.print_csv(step.record);
    }
  } else if (lives->lives.empty()) {
    fmt::print("nothing is recorded of {}\n", shown(events::shown_path(question.path)));
  } else {
    print_lives(output, *lives);
  }
  return lives->lives.empty() ? kNo : kYes;
}

struct ReportArguments {
  Source source;
  FilterOptions times;
  std::string page;
  std::size_t limit = 10;
};

// The last seven days, unless the operator names others.
std::optional<history::ReportQuestion> question_of(const ReportArguments& arguments) {
  constexpr int64_t kWeek = 7LL * 86400 * 1'000'000;
  const auto filter = arguments.times.filter();
  if (!filter) return std::nullopt;
  const int64_t until = filter->until.value_or(text::now_in_microseconds());
  const int64_t since = filter->since.value_or(until - kWeek);
  if (since <= until) return history::ReportQuestion{since, until, arguments.limit, {}};
  complain("the time begins after its end");
  return std::nullopt;
}

int make_report(const Options& options, ReportArguments& arguments) {
  auto question = question_of(arguments);
  if (!question) return kFailure;
  const auto database = arguments.source.open();
  if (database == nullptr) return kFailure;
  cli::ProgressBar bar(!options.no_progress);
  question->progress = [&bar](uint64_t done, uint64_t total) { bar.show("counting", done, total); };
  const auto report = history::report_on(database.get(), *question);
  bar.clear();
  if (!report) return arguments.source.fail(database.get());
  HistoryOutput output;
  if (!arguments.page.empty()) {
    // The page tells of people: nobody else needs to read it.
    const std::string text = history::report_page(*report, output.people());
    if (!files::replace(arguments.page, text, 0600)) {
      complain("{}: {}", arguments.page, std::strerror(errno));
      return kFailure;
    }
  }
  if (options.json) {
    print(output.report(*report));
  } else if (arguments.source.csv) {
    HistoryOutput::print_csv_report(*report);
  } else if (arguments.page.empty()) {
    const cli::Pager pager(true);
    output.print_report(*report);
  } else {
    fmt::print("{}: {}\n", arguments.page,
               text::counted(history::sum_of(report->counts), "record"));
  }
  return kYes;
}

// --- the command line ----------------------------------------------------------------------------

void add_paging(CLI::App& command, SearchArguments& arguments) {
  command.add_flag("--reads", arguments.reads, "audited reads too");
  command
      .add_option("--limit", arguments.limit,
                  "so many records at most; without it 200 as JSON, else all")
      ->check(CLI::Range(1, 100000));
  command.add_option("--after", arguments.after, "go on behind a page: its \"next\"")
      ->type_name("NEXT");
  command
      .add_option("--patience", arguments.patience,
                  "end a page after so many milliseconds, full or not")
      ->check(CLI::Range(1, 3600000));
  arguments.source.add_to(command);
}

// The group of the settings may read the history, so it needs no root.
template <typename Work>
void on_choice(CLI::App& command, Options& options, Action& action, Work work) {
  command.callback([&options, &action, work] {
    options.needs_root = false;
    action = work;
  });
}

void add_search(CLI::App& history, Options& options, Action& action) {
  static SearchArguments arguments;
  CLI::App* command =
      history.add_subcommand("search", "Print records, newest first (exit 1: there is none)");
  arguments.filter.add_path(*command);
  arguments.filter.add_user(*command);
  arguments.filter.add_operations(*command);
  arguments.filter.add_times(*command);
  add_paging(*command, arguments);
  on_choice(*command, options, action,
            [&options] { return search_history(options, arguments, "history-search"); });
  cli::add_examples(
      *command,
      {{"tavrixctl history search --path Shared/Team --op delete --since 7d",
        "who deleted something there in the last week?"},
       {"tavrixctl history search --path '*.docx' --user anna", "what did anna do to documents?"},
       {"tavrixctl history search --path plan --reads --since yesterday",
        "who changed or read a file with this text in its path?"},
       {"tavrixctl --json history search --limit 50", "the newest page, for a program"}});
}

void add_user(CLI::App& history, Options& options, Action& action) {
  static SearchArguments arguments;
  CLI::App* command = history.add_subcommand(
      "user", "Print the records of a user, newest first (exit 1: there is none)");
  cli::complete_with(
      command->add_option("USER", arguments.filter.user_, "a name or a number")->required(),
      groupmap::known_users);
  arguments.filter.add_path(*command);
  arguments.filter.add_operations(*command);
  arguments.filter.add_times(*command);
  add_paging(*command, arguments);
  on_choice(*command, options, action,
            [&options] { return search_history(options, arguments, "history-user"); });
  cli::add_examples(*command, {{"tavrixctl history user anna --since yesterday",
                                "what did anna do since yesterday?"},
                               {"tavrixctl history user 1005 --op delete --csv",
                                "the deletions of an account, for a spreadsheet"},
                               {"tavrixctl --json history user anna", "for a program"}});
}

void add_file(CLI::App& history, Options& options, Action& action) {
  static FileArguments arguments;
  CLI::App* command = history.add_subcommand(
      "file", "Print the life of a file or a folder, through renames (exit 1: no record)");
  command->add_option("PATH", arguments.path, "any name that it has or ever had")->required();
  command->add_flag("--all", arguments.all, "every object that had the name, not only the last");
  command->add_flag("--reads", arguments.reads, "audited reads too");
  command->add_option("--limit", arguments.limit, "so many changes and reads of a life at most")
      ->check(CLI::Range(0, 1000000))
      ->capture_default_str();
  arguments.source.add_to(*command);
  on_choice(*command, options, action, [&options] { return show_file(options, arguments); });
  cli::add_examples(
      *command,
      {{"tavrixctl history file Shared/Team/plan.txt", "who made, renamed, changed, deleted it?"},
       {"tavrixctl history file --all --reads Shared/Team/plan.txt",
        "every file of that name, and who read it"},
       {"tavrixctl --json history file Shared/Team/plan.txt", "for a program"}});
}

void add_report(CLI::App& history, Options& options, Action& action) {
  static ReportArguments arguments;
  CLI::App* command = history.add_subcommand(
      "report", "Count what happened: by hour, by user and by folder; the last week by default");
  arguments.times.add_times(*command);
  command->add_option("--html", arguments.page, "write a page with pictures")->type_name("FILE");
  command->add_option("--limit", arguments.limit, "so many users and folders at most")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  arguments.source.add_to(*command);
  on_choice(*command, options, action, [&options] { return make_report(options, arguments); });
  cli::add_examples(*command,
                    {{"tavrixctl history report", "the last week"},
                     {"tavrixctl history report --since 30d --html /root/report.html",
                      "the last month, as a page"},
                     {"tavrixctl --json history report --since yesterday", "for a program"}});
}

void add_history_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* history = app.add_subcommand("history", "Who did it, and when");
  history->require_subcommand(1);
  add_search(*history, options, action);
  add_file(*history, options, action);
  add_user(*history, options, action);
  add_report(*history, options, action);
  cli::add_examples(*history,
                    {{"tavrixctl history file Shared/Team/plan.txt", "who deleted it, and when?"},
                     {"tavrixctl history search --user anna --since 2h", "what did anna do?"}});
}

const Command registered(55, add_history_commands);

}  // namespace
}  // namespace tavrix::ctl
