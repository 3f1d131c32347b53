// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cli/command_line.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <sstream>

#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"

namespace tavrix::cli {
namespace {

using Words = std::vector<std::string>;

// The number of single characters to insert, remove, replace or exchange with the next one.
std::size_t distance(const std::string& from, const std::string& to) {
  std::vector<std::vector<std::size_t>> cost(from.size() + 1,
                                             std::vector<std::size_t>(to.size() + 1));
  for (std::size_t i = 0; i <= from.size(); ++i) cost[i][0] = i;
  std::iota(cost[0].begin(), cost[0].end(), 0U);
  for (std::size_t i = 1; i <= from.size(); ++i) {
    for (std::size_t j = 1; j <= to.size(); ++j) {
      const std::size_t replaced = cost[i - 1][j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
      cost[i][j] = std::min({replaced, cost[i - 1][j] + 1, cost[i][j - 1] + 1});
      const bool exchanged = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
      if (exchanged) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
    }
  }
  return cost[from.size()][to.size()];
}

std::vector<CLI::App*> commands_of(CLI::App& app) {
  return app.get_subcommands([](CLI::App*) { return true; });
}

Words command_names(CLI::App& app) {
  Words names;
  for (const CLI::App* command : commands_of(app)) names.push_back(command->get_name());
  return names;
}

Words option_names(const CLI::App& app) {
  Words names;
  for (const CLI::App* at = &app; at != nullptr; at = at->get_parent()) {
    for (const CLI::Option* option : at->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

// "tavrixctl map"
std::string full_name(const CLI::App& app) {
  const CLI::App* parent = app.get_parent();
  return parent == nullptr ? app.get_name() : full_name(*parent) + " " + app.get_name();
}

int complain(const Refused& refused, const CLI::App& app, std::string sentence,
             const std::string& meant = "") {
  if (!meant.empty()) sentence += fmt::format("; did you mean \"{}\"?", meant);
  fmt::print(stderr, "{}: {}\n\"{} --help\" says more.\n", full_name(app), sentence,
             full_name(app));
  if (refused) refused(sentence);
  return kWrongUsage;
}

// The command that the words name, as far as they name one. Where commands are expected, all
// options are flags, so each word without a dash is a command's.
struct Chosen {
  CLI::App* app;
  std::string unknown;  // the word that is no command; empty for none
};
Chosen chosen(CLI::App& app, const Words& words) {
  CLI::App* at = &app;
  for (const std::string& word : words) {
    const auto commands = commands_of(*at);
    if (commands.empty()) break;
    if (word.starts_with('-')) continue;
    const auto next = std::ranges::find_if(
        commands, [&word](const CLI::App* command) { return command->get_name() == word; });
    if (next == commands.end()) return {at, word};
    at = *next;
  }
  return {at, {}};
}

bool has_option(const CLI::App& app, const std::string& name) {
  return std::ranges::count(option_names(app), name) != 0;
}

// The command that the words name, whatever stands between its names.
CLI::App& named_by(CLI::App& app, const Words& words) {
  CLI::App* at = &app;
  for (const std::string& word : words) {
    const auto commands = commands_of(*at);
    const auto next = std::ranges::find(commands, word, &CLI::App::get_name);
    if (next != commands.end()) at = *next;
  }
  return *at;
}

// The complaint about an option that stands before the command that it is for; empty if none does.
std::string misplaced(CLI::App& app, const Words& words) {
  CLI::App& command = named_by(app, words);
  CLI::App* at = &app;
  for (const std::string& word : words) {
    if (at == &command) break;
    const std::string name = word.substr(0, word.find('='));
    if (!word.starts_with('-')) {
      at = &named_by(*at, {word});
    } else if (!has_option(*at, name) && has_option(command, name)) {
      return fmt::format("\"{}\" goes behind the command: \"{} {}\"", name, full_name(command),
                         name);
    }
  }
  return {};
}

// "help map import" asks for the same as "map import --help".
void turn_help_around(CLI::App& app, Words& words) {
  if (words.empty() || words[0] != "help" || commands_of(app).empty()) return;
  words.erase(words.begin());
  words.emplace_back("--help");
}

// The texts before, between and behind two marks; empty where the marks are not.
Words between(const std::string& text, const std::string& first, const std::string& second) {
  const auto begin = text.find(first);
  if (begin == std::string::npos) return {};
  const auto end = text.find(second, begin + first.size());
  if (end == std::string::npos) return {};
  return {text.substr(0, begin), text.substr(begin + first.size(), end - begin - first.size()),
          text.substr(end + second.size())};
}

bool is_number(const std::string& word) {
  return word.find_first_not_of("-0123456789") == std::string::npos;
}

std::string number_sentence(const std::string& option, const std::string& value) {
  return fmt::format("{}: \"{}\" is {}", option, value,
                     is_number(value) ? "out of range" : "not a number");
}

// The first of several values, between commas, that is no number; all of them if each is one.
std::string wrong_part(const std::string& values) {
  std::istringstream in(values);
  for (std::string value; std::getline(in, value, ',');) {
    if (!is_number(value)) return value;
  }
  return values;
}

// CLI11's sentences about values, with the option and the value first. All values that are
// converted, and all that have a range, are numbers.
std::string sentence_of(const CLI::ParseError& error) {
  const std::string text = error.what();
  // "Could not convert: --uid = anna"
  if (const Words parts = between(text, "Could not convert: ", " = "); !parts.empty()) {
    return number_sentence(parts[1], wrong_part(parts[2]));
  }
  // "--uid: Value anna not in range 0 to 9"
  if (const Words parts = between(text, ": Value ", " not in range "); !parts.empty()) {
    if (!is_number(parts[1])) return number_sentence(parts[0], parts[1]);
    return fmt::format("{}: {} is not in the range {}", parts[0], parts[1], parts[2]);
  }
  // "--uid: 1 required INT missing"
  if (const Words parts = between(text, ": 1 required ", " missing"); !parts.empty()) {
    return parts[0] + " needs a value";
  }
  for (const char* begin : {"The following argument was not expected: ",
                            "The following arguments were not expected: "}) {
    if (!text.starts_with(begin)) continue;
    return fmt::format("\"{}\" is more than the command takes", text.substr(std::strlen(begin)));
  }
  return text;
}

// A command line that ends where a command is expected gets the help of the command that it names.
int list_commands(const Refused& refused, CLI::App& at) {
  const CLI::App* above = at.get_parent();
  fmt::print(stderr, "{}", at.help(above == nullptr ? "" : full_name(*above)));
  if (refused) refused("a command is missing");
  return kWrongUsage;
}

int explain(const Refused& refused, CLI::App& app, const Words& words,
            const CLI::ParseError& error) {
  CLI::App& at = *chosen(app, words).app;
  for (const std::string& word : app.remaining(true)) {
    if (!word.starts_with('-')) continue;
    const std::string name = word.substr(0, word.find('='));
    return complain(refused, at, fmt::format("there is no option \"{}\"", name),
                    nearest(name, option_names(at)));
  }
  if (!commands_of(at).empty() && app.remaining(true).empty()) return list_commands(refused, at);
  return complain(refused, at, sentence_of(error));
}

int print_completions(CLI::App& app, const Words& words) {
  for (const Candidate& candidate : completions(app, {words.begin() + 1, words.end()})) {
    fmt::print("{}\t{}\n", candidate.word, candidate.explanation);
  }
  return 0;
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& known) {
  std::string best;
  std::size_t least = 1 + word.size() / 3;  // a word that differs more is another one
  for (const std::string& name : known) {
    const std::size_t steps = name.starts_with(word) && word.size() > 1 ? 1 : distance(word, name);
    if (steps > least || (steps == least && !best.empty())) continue;
    least = steps;
    best = name;
  }
  return best;
}

std::optional<int> parse(CLI::App& app, int argc, char** argv, const Refused& refused) {
  app.name(std::filesystem::path(argv[0]).filename());
  app.set_version_flag("--version", app.get_name() + " " TAVRIX_VERSION, "print the version");
  lay_out_help(app);
  Words words(argv + 1, argv + argc);
  if (!words.empty() && words[0] == kCompleteOption) return print_completions(app, words);
  turn_help_around(app, words);
  if (const std::string sentence = misplaced(app, words); !sentence.empty()) {
    return complain(refused, named_by(app, words), sentence);
  }
  if (const Chosen found = chosen(app, words); !found.unknown.empty()) {
    return complain(refused, *found.app, fmt::format("there is no command \"{}\"", found.unknown),
                    nearest(found.unknown, command_names(*found.app)));
  }
  try {
    Words backwards(words.rbegin(), words.rend());  // as CLI11 takes them
    app.parse(backwards);
  } catch (const CLI::Success& asked) {
    return app.exit(asked);
  } catch (const CLI::ParseError& error) {
    return explain(refused, app, words, error);
  }
  return std::nullopt;
}

}  // namespace tavrix::cli
