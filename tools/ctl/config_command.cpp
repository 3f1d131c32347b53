// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl config: the global parameter block.

#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tavrix_vfs_utils.h"
#include "tools/cli/command_line.hpp"
#include "tools/cli/completion.hpp"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/confirm.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/parameter_block.hpp"
#include "tools/patterns/complaints.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/sweeper/buffer_size.hpp"

namespace tavrix::ctl {
namespace {

std::optional<ParameterBlock> shared_block() {
  std::string problem;
  auto block = ParameterBlock::find(problem);
  if (!block) complain_as(code::kNoSettings, "{}", problem);
  return block;
}

// Puts the size of the staging buffer into the block, or says why it has to wait. Waiting is no
// failure: the other settings are in force, and connections go on with the old size.
int offer_buffer_size(int32_t bytes, const ParameterBlock& block) {
  set_debug_level(-1);
  // The library works on the segment with the settings of this process, so it takes the new ones.
  if (read_tavrix_config() != 0) return kFailure;
  set_debug_level(-1);
  std::string why_not;
  if (!sweeper::offer_buffer_size(bytes, block.get(), why_not)) complain("{}", why_not);
  return kYes;
}

int load(const std::string& path) {
  const SettingsFile file = read_settings_file(path);
  for (const std::string& error : file.errors) complain("{}", error);
  if (!file.errors.empty()) return kFailure;
  for (const WrongValue& wrong : file.wrong_service_values) warn(wrong.text);
  std::string problem;
  const auto block = ParameterBlock::find_or_make(problem);
  if (!block) {
    complain("{}", problem);
    return kFailure;
  }
  fill(file, block->get());
  for (const std::string& line : patterns::complaints(block->get())) warn(line);
  if (!keep_copy(path)) complain("{}: {}", kSettingsOfBefore, std::strerror(errno));
  return offer_buffer_size(buffer_size_in(file), *block);
}

void print_setting(const Setting& setting, const Value& value, bool explain) {
  fmt::print("{:<34} {:<7} {}\n", setting.name, type_name(setting.type),
             shown(value_text(setting, value)));
  if (explain) fmt::print("    {}\n", setting.meaning);
}

void set_value(Json& entry, const Setting& setting, const Value& value) {
  entry["type"] = type_name(setting.type);
  if (setting.type == PARAM_VAL_TYPE_STRING) {
    set_bytes(entry, "value", value.text);
  } else if (setting.type == PARAM_VAL_TYPE_BOOLEAN) {
    entry["value"] = value.number != 0;
  } else {
    entry["value"] = value.number;
  }
  entry["meaning"] = setting.meaning;
}

// The settings of the block, then those that one service reads from the file itself.
int show(const Options& options, bool explain) {
  const auto block = shared_block();
  if (!block) return kFailure;
  const auto of_services = settings::ServiceSettings::read(settings::kSettingsFile);
  Json json = document("config-show");
  json["settings"] = Json::array();
  for (const Setting& setting : ctl::settings()) {
    const Value value = stored_value(setting, block->get());
    if (!options.json) print_setting(setting, value, explain);
    Json entry = {{"name", setting.name}, {"index", static_cast<int>(setting.index)}};
    set_value(entry, setting, value);
    json["settings"].push_back(std::move(entry));
  }
  json["service_settings"] = Json::array();
  for (const Setting& setting : settings::kServiceSettings) {
    const Value& value = of_services.value(setting.name);
    if (!options.json) print_setting(setting, value, explain);
    Json entry = {{"name", setting.name}};
    set_value(entry, setting, value);
    json["service_settings"].push_back(std::move(entry));
  }
  if (options.json) print(json);
  return kYes;
}

std::vector<std::string> setting_names() {
  std::vector<std::string> names;
  for (const Setting& setting : ctl::settings()) names.emplace_back(setting.name);
  return names;
}

int set(const std::string& name, const std::string& text) {
  const Setting* setting = find_setting(name);
  if (settings::find_service_setting(name) != nullptr) {
    complain("{}: only its service reads it, from {}; change it there, then reload the service",
             settings::find_service_setting(name)->name, settings::kSettingsFile);
    return kFailure;
  }
  if (setting == nullptr) {
    const std::string meant = cli::nearest(name, setting_names());
    complain("{}: no such setting; {}\"tavrixctl config show\" lists them", name,
             meant.empty() ? "" : fmt::format("did you mean \"{}\"? ", meant));
    return kFailure;
  }
  std::string reason;
  const auto value = parse_value(*setting, text, reason);
  if (!value) {
    complain("{}: {}", setting->name, reason);
    return kFailure;
  }
  const auto block = shared_block();
  if (!block) return kFailure;
  if (setting->index == PARAM_STAGING_BUFFER_SIZE) return offer_buffer_size(value->number, *block);
  store(*setting, *value, block->get());
  return kYes;
}

int remove(const Confirmation& confirmation) {
  if (const auto refusal = confirmation.refusal(
          "Nobody can connect without the settings. Remove the parameter block?");
      refusal) {
    return *refusal;
  }
  set_debug_level(-1);
  if (remove_config_buffer() == 0) return kYes;
  complain_as(code::kNoSettings, "there is no parameter block");
  return kFailure;
}

void add_config_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* config = app.add_subcommand("config", "The settings that all processes share");
  config->require_subcommand(1);

  static std::string file, key, value;
  CLI::App* load_command = config->add_subcommand(
      "load", "Fill the parameter block from an INI file, and make the block if there is none");
  load_command->add_option("FILE", file, "the settings file")->required()->type_name("FILE");
  load_command->callback([&action] { action = [] { return load(file); }; });

  static bool explain = false;
  CLI::App* show_command =
      config->add_subcommand("show", "Print every setting with its type and value");
  show_command->add_flag("--explain", explain, "also print what each is for");
  show_command->callback([&] { action = [&options] { return show(options, explain); }; });

  CLI::App* set_command =
      config->add_subcommand("set", "Change one setting; processes see it at their next snapshot");
  CLI::Option* key_option =
      set_command->add_option("KEY", key, "\"SECTION:key\", as in \"VFS:debug level\"")->required();
  set_command->add_option("VALUE", value, "the value")->required();
  cli::complete_with(key_option, setting_names);
  set_command->callback([&action] { action = [] { return set(key, value); }; });

  static Confirmation confirmation;
  CLI::App* remove_command = config->add_subcommand("remove", "Remove the parameter block");
  confirmation.add_to(*remove_command);
  remove_command->callback([&action] { action = [] { return remove(confirmation); }; });

  cli::add_examples(*config, {{"tavrixctl config show", "the settings in force"},
                              {"tavrixctl config set 'VFS:debug level' 3", "log more"}});
  cli::add_examples(*load_command, {{"tavrixctl config load /etc/tavrix/tavrix.conf",
                                     "put the settings of the file in force"}});
  cli::add_examples(*show_command,
                    {{"tavrixctl config show --explain", "each setting, and what it is for"},
                     {"tavrixctl --json config show", "the settings, for a program"}});
  cli::add_examples(*set_command, {{"tavrixctl config set 'VFS:debug level' 3",
                                    "log more, until the settings are loaded again"}});
  cli::add_examples(*remove_command,
                    {{"tavrixctl config remove", "asks first"},
                     {"tavrixctl config remove --yes", "in a script, where nobody can answer"}});
}

const Command registered(10, add_config_commands);

}  // namespace
}  // namespace tavrix::ctl
