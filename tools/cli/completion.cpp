// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cli/completion.hpp"

#include <algorithm>
#include <map>

#include "tools/cli/help.hpp"

namespace tavrix::cli {
namespace {

using Words = std::vector<std::string>;

// Bash makes three words of "--file=map".
constexpr const char* kEqualSign = "=";

std::map<const CLI::Option*, Values>& values_by_option() {
  static std::map<const CLI::Option*, Values> values;
  return values;
}

std::vector<CLI::App*> commands_of(CLI::App& app) {
  return app.get_subcommands([](CLI::App*) { return true; });
}

// Reads the words before the one to complete.
class Reader {
 public:
  explicit Reader(CLI::App& app) : at_(&app) {}

  void read(const std::string& word) {
    if (pending_ != nullptr && word == kEqualSign) return;
    if (pending_ != nullptr && !(takes_none() && word.starts_with('-'))) {
      pending_ = nullptr;
      return;
    }
    pending_ = nullptr;
    if (word == "--" && !only_arguments_) {
      only_arguments_ = true;
    } else if (!only_arguments_ && word.size() > 1 && word.starts_with('-')) {
      read_option(word);
    } else if (!read_command(word)) {
      ++arguments_;
    }
  }

  [[nodiscard]] std::vector<Candidate> candidates(const std::string& begin) const {
    std::vector<Candidate> found;
    if (pending_ != nullptr) {
      found = values_of(*pending_);
      if (!takes_none()) return found;
    }
    if (begin.starts_with('-') && !only_arguments_) {
      add_options(found);
    } else if (const auto commands = commands_of(*at_); !commands.empty()) {
      for (const CLI::App* command : commands) {
        found.push_back({command->get_name(), command->get_description()});
      }
      if (at_->get_parent() == nullptr && !is_help_) {
        found.push_back({"help", "print the help of a command"});
      }
    } else if (const CLI::Option* argument = next_argument(); argument != nullptr) {
      const auto values = values_of(*argument);
      found.insert(found.end(), values.begin(), values.end());
    }
    return found;
  }

 private:
  // True if the option may stand without a value.
  [[nodiscard]] bool takes_none() const { return pending_->get_expected_min() == 0; }

  void read_option(const std::string& word) {
    if (word.find('=') != std::string::npos) return;
    for (const CLI::App* app = at_; app != nullptr; app = app->get_parent()) {
      for (const CLI::Option* option : app->get_options()) {
        const bool is_it = word.starts_with("--") ? option->check_lname(word.substr(2))
                                                  : option->check_sname(word.substr(1));
        if (!is_it || option->get_positional()) continue;
        used_.push_back(option);
        if (option->get_type_size() != 0) pending_ = option;
        return;
      }
    }
  }

  bool read_command(const std::string& word) {
    const auto commands = commands_of(*at_);
    if (commands.empty()) return is_help_;
    if (at_->get_parent() == nullptr && word == "help") return is_help_ = true;
    for (CLI::App* command : commands) {
      if (command->get_name() == word) at_ = command;
    }
    return true;
  }

  void add_options(std::vector<Candidate>& found) const {
    for (const CLI::App* app = at_; app != nullptr; app = app->get_parent()) {
      for (const CLI::Option* option : app->get_options()) {
        const bool is_used = std::ranges::find(used_, option) != used_.end();
        const bool is_inherited_help =
            app != at_ && (option == app->get_help_ptr() || option->check_lname("version"));
        if (option->get_positional() || option->get_lnames().empty() || is_used ||
            is_inherited_help || option->get_group().empty()) {
          continue;
        }
        found.push_back({"--" + option->get_lnames().front(), option->get_description()});
      }
    }
  }

  // The argument that comes next; the last one if that takes more words than one.
  [[nodiscard]] const CLI::Option* next_argument() const {
    if (is_help_) return nullptr;
    const CLI::Option* last = nullptr;
    std::size_t place = 0;
    for (const CLI::Option* option : at_->get_options()) {
      if (!option->get_positional()) continue;
      if (place++ == arguments_) return option;
      last = option;
    }
    return last != nullptr && last->get_expected_max() > 1 ? last : nullptr;
  }

  static std::vector<Candidate> values_of(const CLI::Option& option) {
    const auto values = values_by_option().find(&option);
    std::vector<Candidate> found;
    if (values != values_by_option().end()) {
      for (const std::string& value : values->second()) found.push_back({value, ""});
    } else if (value_name(option) == "FILE") {
      found.push_back({kFiles, ""});
    } else if (value_name(option) == "DIR") {
      found.push_back({":folders", ""});
    }
    return found;
  }

  CLI::App* at_;
  const CLI::Option* pending_ = nullptr;  // an option that waits for its value
  std::vector<const CLI::Option*> used_;
  std::size_t arguments_ = 0;
  bool only_arguments_ = false;  // behind "--"
  bool is_help_ = false;         // "help" came first
};

}  // namespace

void complete_with(CLI::Option* option, Values values) {
  values_by_option()[option] = std::move(values);
}

std::vector<Candidate> completions(CLI::App& app, const Words& words) {
  const std::string begin = words.empty() || words.back() == kEqualSign ? "" : words.back();
  Reader reader(app);
  for (std::size_t i = 0; i + 1 < words.size(); ++i) reader.read(words[i]);
  std::vector<Candidate> found = reader.candidates(begin);
  std::erase_if(found, [&begin](const Candidate& candidate) {
    return !candidate.word.starts_with(':') && !candidate.word.starts_with(begin);
  });
  return found;
}

}  // namespace tavrix::cli
