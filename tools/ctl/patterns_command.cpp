// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl patterns: checks and tests the file of names that everybody may delete.

#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/output.hpp"
#include "tools/patterns/pattern_file.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using patterns::Finding;
using patterns::PatternFile;
using patterns::Severity;

std::optional<PatternFile> open_file(const std::string& path) {
  std::string error;
  auto file = PatternFile::read(path, error);
  if (!file) complain("{}", error);
  return file;
}

Json json_of(const Finding& finding) {
  Json entry;
  entry["severity"] = finding.severity == Severity::kError ? "error" : "warning";
  entry["line"] = finding.line;
  set_bytes(entry, "pattern", finding.pattern);
  entry["text"] = finding.text;
  return entry;
}

int check(const Options& options, const std::string& path) {
  const auto file = open_file(path);
  if (!file) return kFailure;
  const bool is_used = file->matches_everything() == nullptr;
  const auto warnings = file->findings().size() - static_cast<std::size_t>(file->errors());
  if (options.json) {
    Json json = document("patterns-check");
    set_bytes(json, "file", path);
    json["patterns"] = file->patterns().size();
    json["used"] = is_used;
    json["errors"] = file->errors();
    json["warnings"] = warnings;
    json["findings"] = Json::array();
    for (const Finding& finding : file->findings()) json["findings"].push_back(json_of(finding));
    print(json);
  } else {
    for (const Finding& finding : file->findings()) {
      fmt::print("{}\n", shown(line_of(path, finding)));
    }
    fmt::print("{}: {}, {}, {}{}\n", path, text::counted(file->patterns().size(), "pattern"),
               text::counted(file->errors(), "error"), text::counted(warnings, "warning"),
               is_used ? "" : "; the server uses none of them");
  }
  return file->errors() == 0 ? kYes : kNo;
}

int test(const Options& options, const std::string& path, const std::vector<std::string>& names) {
  const auto file = open_file(path);
  if (!file) return kFailure;
  const Finding* everything = file->matches_everything();
  bool all = true;
  Json json = document("patterns-test");
  set_bytes(json, "file", path);
  json["used"] = everything == nullptr;
  json["names"] = Json::array();
  for (const std::string& name : names) {
    const auto* pattern = everything == nullptr ? file->match(name) : nullptr;
    all = all && pattern != nullptr;
    Json entry;
    set_bytes(entry, "name", name);
    entry["matches"] = pattern != nullptr;
    if (pattern != nullptr) {
      entry["line"] = pattern->line;
      set_bytes(entry, "pattern", pattern->text);
    }
    json["names"].push_back(std::move(entry));
    if (options.json) continue;
    if (pattern == nullptr) {
      fmt::print("{}: no\n", shown(name));
    } else {
      fmt::print("{}: yes, line {}: {}\n", shown(name), pattern->line, shown(pattern->text));
    }
  }
  if (options.json) print(json);
  if (everything != nullptr) {
    complain("the server uses no pattern of the file: {}", shown(line_of(path, *everything)));
  }
  return all ? kYes : kNo;
}

void add_patterns_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* patterns =
      app.add_subcommand("patterns", "The patterns of names that everybody may delete");
  patterns->require_subcommand(1);
  static std::string path;
  static std::vector<std::string> names;

  CLI::App* check_command = patterns->add_subcommand(
      "check", "List lines that match everything or do not do what they seem to (exit 1: errors)");
  check_command->add_option("FILE", path, "the patterns, one per line")
      ->required()
      ->type_name("FILE");
  check_command->callback([&] { action = [&options] { return check(options, path); }; });

  CLI::App* test_command = patterns->add_subcommand(
      "test", "Show the pattern that matches each name (exit 1: a name without one)");
  test_command->add_option("FILE", path, "the patterns, one per line")
      ->required()
      ->type_name("FILE");
  test_command->add_option("NAME", names, "names of files")->required();
  test_command->callback([&] { action = [&options] { return test(options, path, names); }; });

  cli::add_examples(*patterns, {{"tavrixctl patterns check /etc/tavrix/exception_patterns",
                                 "look for lines that do not do what they seem to"}});
  cli::add_examples(*check_command,
                    {{"tavrixctl patterns check /etc/tavrix/exception_patterns",
                      "look for lines that do not do what they seem to"},
                     {"tavrixctl --json patterns check /etc/tavrix/exception_patterns",
                      "the same, for a program"}});
  cli::add_examples(*test_command,
                    {{"tavrixctl patterns test /etc/tavrix/exception_patterns '~$plan.docx'",
                      "may everybody delete a file of this name?"},
                     {"tavrixctl --json patterns test /etc/tavrix/exception_patterns a.tmp b",
                      "the same for two names, for a program"}});
}

const Command registered(15, add_patterns_commands);

}  // namespace
}  // namespace tavrix::ctl
