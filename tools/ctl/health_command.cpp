// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl health: may this machine serve clients?

#include "tools/cli/help.hpp"
#include "tools/cluster/health.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::ctl {
namespace {

Json json_of(const cluster::Health& health) {
  Json json = document("health");
  if (!health.node.empty()) json["node"] = health.node;
  json["healthy"] = health.problem().empty();
  if (!health.problem().empty()) set_bytes(json, "problem", health.problem());
  json["checks"] = Json::array();
  for (const cluster::Check& check : health.checks) {
    Json entry = {{"name", check.name}, {"well", check.problem.empty()}};
    if (!check.problem.empty()) set_bytes(entry, "problem", check.problem);
    json["checks"].push_back(std::move(entry));
  }
  json["notes"] = Json::array();
  for (const cluster::Note& note : health.notes) {
    json["notes"].push_back({{"name", note.name}, {"sentence", note.sentence}});
  }
  return json;
}

int show(const Options& options, const std::string& settings) {
  set_debug_level(-1);
  const cluster::Health health = cluster::look_at_health(settings);
  const std::string problem = health.problem();
  if (options.json) {
    print(json_of(health));
  } else {
    fmt::print("{}\n", problem.empty() ? "healthy" : shown("not healthy: " + problem));
    for (const cluster::Note& note : health.notes) fmt::print("note: {}\n", shown(note.sentence));
  }
  return problem.empty() ? kYes : kNo;
}

void add_health_command(CLI::App& app, Options& options, Action& action) {
  static std::string settings = settings::kSettingsFile;
  CLI::App* command = app.add_subcommand("health", "May this machine serve clients? (exit 1: no)");
  command->add_option("--settings", settings, "the settings file")
      ->type_name("FILE")
      ->capture_default_str();
  cli::add_examples(*command, {{"tavrixctl health", "yes, or no with one sentence"},
                               {"tavrixctl --json health", "each check, for a program"}});
  command->callback(
      [&options, &action] { action = [&options] { return show(options, settings); }; });
}

const Command registered(7, add_health_command);

}  // namespace
}  // namespace tavrix::ctl
