// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cli/help.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <map>
#include <sstream>

namespace tavrix::cli {
namespace {

constexpr std::size_t kColumn = 26;  // of the explanations
constexpr std::size_t kColumns = 80;

std::map<const CLI::App*, std::vector<Example>>& examples_by_command() {
  static std::map<const CLI::App*, std::vector<Example>> examples;
  return examples;
}

// "0 to 10000" of an option whose type is described as "INT:INT in [0 - 10000]".
std::string range_of(const CLI::Option& option) {
  const std::string type = option.get_type_name();
  const auto begin = type.find(" in [");
  const auto end = type.find(']');
  if (begin == std::string::npos || end == std::string::npos) return {};
  std::string range = type.substr(begin + 5, end - begin - 5);
  if (const auto dash = range.find(" - "); dash != std::string::npos)
    range.replace(dash, 3, " to ");
  return range;
}

// The text in lines of that width; the formatter indents them.
std::string wrapped(const std::string& text, std::size_t width = kColumns - kColumn) {
  std::string lines;
  std::size_t column = 0;
  std::istringstream in(text);
  for (std::string word; in >> word;) {
    if (column > 0 && column + 1 + word.size() > width) {
      lines += '\n';
      column = 0;
    } else if (column > 0) {
      lines += ' ';
      ++column;
    }
    lines += word;
    column += word.size();
  }
  return lines;
}

std::string names_of(const std::set<CLI::Option*>& options) {
  std::string names;
  for (const CLI::Option* option : options) {
    names += (names.empty() ? "" : ", ") + option->get_name();
  }
  return names;
}

// The notes in brackets behind the description.
std::string notes_of(const CLI::Option& option) {
  std::vector<std::string> notes;
  if (const std::string range = range_of(option); !range.empty()) notes.push_back(range);
  if (option.get_type_size() != 0 && !option.get_default_str().empty()) {
    notes.push_back("default " + option.get_default_str());
  }
  if (option.get_required() && option.nonpositional()) notes.emplace_back("required");
  if (!option.get_needs().empty()) notes.push_back("with " + names_of(option.get_needs()));
  if (!option.get_excludes().empty())
    notes.push_back("not with " + names_of(option.get_excludes()));
  std::string text;
  for (const std::string& note : notes) text += (text.empty() ? "" : "; ") + note;
  return text.empty() ? "" : " (" + text + ")";
}

class Layout : public CLI::Formatter {
 public:
  Layout() {
    column_width(kColumn);
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
  }

  std::string make_option_opts(const CLI::Option* option) const override {
    if (option->get_positional()) return {};
    const std::string name = value_name(*option);
    if (name.empty()) return {};
    return option->get_expected_min() == 0 ? " [" + name + "]" : " " + name;
  }

  std::string make_option_desc(const CLI::Option* option) const override {
    return wrapped(option->get_description() + notes_of(*option));
  }

  std::string make_subcommand(const CLI::App* command) const override {
    std::ostringstream line;
    CLI::detail::format_help(line, command->get_name(), wrapped(command->get_description()),
                             kColumn);
    return line.str();
  }

  std::string make_description(const CLI::App* app) const override {
    return wrapped(app->get_description(), kColumns) + "\n\n";
  }

  // A command with none below it shows the options of the commands above it, which it takes too.
  std::string make_subcommands(const CLI::App* app, CLI::AppFormatMode mode) const override {
    std::string text = CLI::Formatter::make_subcommands(app, mode);
    if (!text.empty() || app->get_parent() == nullptr) return text;
    for (const CLI::App* above = app->get_parent(); above != nullptr; above = above->get_parent()) {
      for (const CLI::Option* option : above->get_options()) {
        const bool is_shown = option != above->get_help_ptr() && !option->get_group().empty() &&
                              !option->check_lname("version");
        if (is_shown) text += make_option(option, false);
      }
    }
    return text.empty() ? text : "\nOptions of all commands:\n" + text;
  }

  std::string make_footer(const CLI::App* app) const override {
    std::string text;
    const auto found = examples_by_command().find(app);
    if (found != examples_by_command().end()) {
      text = "Examples:\n";
      for (const Example& example : found->second) {
        text += fmt::format("  {}\n      {}\n", example.line, example.purpose);
      }
    }
    const std::string footer = CLI::Formatter::make_footer(app);
    return text + (text.empty() || footer.empty() ? "" : "\n") + footer;
  }
};

void lay_out(CLI::App& app, const std::shared_ptr<Layout>& layout) {
  app.formatter(layout);
  app.set_help_flag("-h,--help", "print this help");
  for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
    if (command->get_footer().empty()) command->footer(app.get_footer());
    if (command->get_group() == "Subcommands") command->group("Commands");
    lay_out(*command, layout);
  }
}

}  // namespace

void add_examples(CLI::App& command, const std::vector<Example>& examples) {
  examples_by_command()[&command] = examples;
}

void lay_out_help(CLI::App& app) { lay_out(app, std::make_shared<Layout>()); }

std::string value_name(const CLI::Option& option) {
  if (option.get_type_size() == 0) return {};
  const std::string type = option.get_type_name();
  const std::string name = type.substr(0, type.find(':'));
  return name == "INT" || name == "UINT" ? "N" : name;
}

}  // namespace tavrix::cli
