// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl doctor: what breaks shares, and what to do.

#include <algorithm>

#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/doctor/checks.hpp"

namespace tavrix::ctl {
namespace {

using doctor::Check;
using doctor::Checks;

void print_text(const Checks& checks) {
  for (const Check& check : checks) {
    fmt::print("{:<9} {}\n", name_of(check.level), shown(check.sentence));
    if (!check.advice.empty()) fmt::print("          -> {}\n", shown(check.advice));
  }
}

void print_json(const Checks& checks) {
  Json json = document("doctor");
  json["level"] = name_of(worst(checks));
  json["checks"] = Json::array();
  for (const Check& check : checks) {
    Json entry;
    entry["id"] = check.id;
    entry["level"] = name_of(check.level);
    set_bytes(entry, "sentence", check.sentence);
    if (!check.advice.empty()) set_bytes(entry, "advice", check.advice);
    json["checks"].push_back(std::move(entry));
  }
  print(json);
}

int examine(const Options& options, const doctor::Places& places) {
  set_debug_level(-1);
  const Checks checks = doctor::check_all(places);
  if (options.json) {
    print_json(checks);
  } else {
    print_text(checks);
  }
  return static_cast<int>(worst(checks));
}

void add_doctor_command(CLI::App& app, Options& options, Action& action) {
  static doctor::Places places;
  CLI::App* command = app.add_subcommand(
      "doctor", "Find what breaks shares (exit 0: nothing, 1: a warning, 2: critical)");
  command->add_option("--smb-conf", places.smb_conf, "the server's settings file")
      ->type_name("FILE");
  command->add_option("--dir", places.inbox, "the folder in which maps are handed over")
      ->type_name("DIR")
      ->capture_default_str();
  cli::add_examples(*command, {{"tavrixctl doctor", "what breaks shares, and what to do"},
                               {"tavrixctl --json doctor", "the same, for a program"}});
  command->callback([&options, &action] {
    options.needs_root = false;
    action = [&options] { return examine(options, places); };
  });
}

const Command registered(6, add_doctor_command);

}  // namespace
}  // namespace tavrix::ctl
