// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl health: may this machine serve clients?

#include <chrono>
#include <optional>

#include "tools/cli/help.hpp"
#include "tools/cluster/health.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/in_time.hpp"
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

// Less than the monitor of CTDB waits, which would say nothing but that it waited.
constexpr std::chrono::seconds kPatience{8};

std::optional<Json> look(const std::string& settings) {
  const InTime answer = in_time(
      kPatience, [&settings] { return json::text_of(json_of(cluster::look_at_health(settings))); });
  switch (answer.end) {
    case InTime::End::kDone:
      return Json::parse(answer.text);
    case InTime::End::kHangs:
      return json_of(cluster::health_without_tree(settings));
    default:
      complain("the look at this machine ended before an answer");
      return std::nullopt;
  }
}

int show(const Options& options, const std::string& settings) {
  set_debug_level(-1);
  const auto health = look(settings);
  if (!health) return kFailure;
  const bool is_healthy = health->at("healthy");
  if (options.json) {
    print(*health);
  } else {
    fmt::print("{}\n", is_healthy
                           ? "healthy"
                           : "not healthy: " + shown(health->at("problem").get<std::string>()));
    for (const Json& note : health->at("notes")) {
      fmt::print("note: {}\n", shown(note.at("sentence").get<std::string>()));
    }
  }
  return is_healthy ? kYes : kNo;
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
