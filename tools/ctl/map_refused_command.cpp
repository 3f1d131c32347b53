// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map refused: the pairs that the loader set aside, and why.

#include <cerrno>
#include <cstring>

#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/output.hpp"
#include "tools/loader/refused_pairs.hpp"
#include "tools/status/facts.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::ctl {
namespace {

using loader::RefusedPair;
using loader::RefusedPairs;

constexpr int64_t kMicroseconds = 1'000'000;

struct Wish {
  std::string inbox = status::Places{}.inbox;
  uint32_t limit = 20;
};

std::string reason_of(const RefusedPair& pair) {
  return pair.reason.empty() ? "the reason was not stored" : pair.reason;
}

Json json_of(const RefusedPair& pair) {
  Json json;
  set_bytes(json, "folder", pair.folder);
  if (pair.time) json::set_time(json, "time", *pair.time);
  set_bytes(json, "reason", reason_of(pair));
  json["files"] = Json::array();
  for (const auto& [name, bytes] : pair.files) {
    json["files"].push_back({{"name", name}, {"bytes", bytes}});
  }
  if (pair.findings) {
    for (const char* key : {"errors", "warnings", "findings"}) json[key] = (*pair.findings)[key];
  } else if (!pair.details.empty()) {
    std::string details;
    for (const std::string& line : pair.details) details += line + "\n";
    set_bytes(json, "details", details);
  }
  return json;
}

void print_text(const RefusedPair& pair) {
  std::string files;
  for (const auto& [name, bytes] : pair.files) {
    files += fmt::format("{}{}, {}", files.empty() ? "" : "; ", name, human_bytes(bytes));
  }
  fmt::print("{}: {}\n  {}{}{}\n",
             pair.time ? text::local_time(*pair.time * kMicroseconds) : "at an unknown time",
             shown(reason_of(pair)), shown(pair.folder), files.empty() ? "" : ": ", files);
  for (const std::string& line : pair.details) fmt::print("  {}\n", shown(line));
}

void print_text(const RefusedPairs& pairs) {
  if (pairs.count == 0) fmt::print("no map was refused\n");
  for (const RefusedPair& pair : pairs.newest) print_text(pair);
  if (pairs.count > pairs.newest.size()) {
    fmt::print("{} in all; --limit shows more\n", text::counted(pairs.count, "refused pair"));
  }
}

int refused(const Options& options, const Wish& wish) {
  const auto pairs = loader::refused_pairs(wish.inbox, wish.limit);
  if (!pairs) {
    complain("{}: {}; give the loader's folder with --dir", loader::refused_folder(wish.inbox),
             std::strerror(errno));
    return kFailure;
  }
  if (!options.json) {
    print_text(*pairs);
    return kYes;
  }
  Json json = document("map-refused");
  json["count"] = pairs->count;
  json["more"] = pairs->count > pairs->newest.size();
  json["pairs"] = Json::array();
  for (const RefusedPair& pair : pairs->newest) json["pairs"].push_back(json_of(pair));
  print(json);
  return kYes;
}

}  // namespace

void add_map_refused_command(CLI::App& map, Options& options, Action& action) {
  static Wish wish;
  CLI::App* command =
      map.add_subcommand("refused", "The pairs of files that the loader set aside, and why");
  command->add_option("--limit", wish.limit, "the most pairs to print, the newest first")
      ->check(CLI::Range(1U, 1000U))
      ->capture_default_str();
  command->add_option("--dir", wish.inbox, "the folder in which maps are handed over")
      ->type_name("DIR")
      ->capture_default_str();
  command->callback([&] { action = [&options] { return refused(options, wish); }; });
  cli::add_examples(*command,
                    {{"tavrixctl map refused", "what did the agent hand over that is wrong?"},
                     {"tavrixctl --json map refused --limit 1", "the last one, for a program"}});
}

}  // namespace tavrix::ctl
