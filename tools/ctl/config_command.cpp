// tavrixctl config: the global parameter block.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/settings_file.hpp"
#include "tools/patterns/complaints.hpp"

namespace tavrix::ctl {
namespace {

// The shared block; complains when there is none, or one of another size.
class SharedBlock {
 public:
  SharedBlock() {
    const int shmid = shmget(ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID), 0, 0);
    if (shmid == -1) {
      if (errno == ENOENT) {
        complain("there is no parameter block; \"tavrixctl config load FILE\" makes one");
      } else {
        complain("cannot find the parameter block: {}", std::strerror(errno));
      }
      return;
    }
    struct shmid_ds info {};
    shmctl(shmid, IPC_STAT, &info);
    if (info.shm_segsz != TAVRIX_PARAM_BLOCK_SIZE) {
      complain("the parameter block has {} bytes, not {}: another program's, or another version's",
               info.shm_segsz, TAVRIX_PARAM_BLOCK_SIZE);
      return;
    }
    segment_.reset(shmat(shmid, nullptr, 0));
    if (!segment_) complain("cannot attach the parameter block: {}", std::strerror(errno));
  }
  [[nodiscard]] global_param_s* get() const {
    return segment_ ? static_cast<global_param_s*>(segment_.get()) : nullptr;
  }

 private:
  ShmAttachment segment_;
};

int load(const std::string& path) {
  const SettingsFile file = read_settings_file(path);
  for (const std::string& error : file.errors) complain("{}", error);
  if (!file.errors.empty()) return kFailure;
  send_library_log(LogTo::kStandardError);
  set_debug_level(-1);  // replacing an old block is no failure
  if (create_config_buffer() != 0) {
    complain("cannot create the parameter block: {}", std::strerror(errno));
    return kFailure;
  }
  for (const auto& [setting, value] : file.values) store(*setting, value, global_params);
  for (const std::string& line : patterns::complaints(global_params)) warn(line);
  return kYes;
}

int show(const Options& options, bool explain) {
  const SharedBlock block;
  if (block.get() == nullptr) return kFailure;
  Json json = Json::array();
  for (const Setting& setting : settings()) {
    const std::string value = value_text(setting, block.get());
    if (!options.json) {
      fmt::print("{:<34} {:<7} {}\n", setting.name, type_name(setting.type), shown(value));
      if (explain) fmt::print("    {}\n", setting.meaning);
      continue;
    }
    Json entry;
    entry["name"] = setting.name;
    entry["index"] = static_cast<int>(setting.index);
    entry["type"] = type_name(setting.type);
    if (setting.type == PARAM_VAL_TYPE_STRING) {
      set_bytes(entry, "value", value);
    } else if (setting.type == PARAM_VAL_TYPE_BOOLEAN) {
      entry["value"] = value == "yes";
    } else {
      entry["value"] = block.get()[setting.index].value.intval;
    }
    entry["meaning"] = setting.meaning;
    json.push_back(std::move(entry));
  }
  if (options.json) print(json);
  return kYes;
}

int set(const std::string& name, const std::string& text) {
  const Setting* setting = find_setting(name);
  if (setting == nullptr) {
    complain("{}: no such setting; \"tavrixctl config show\" lists them", name);
    return kFailure;
  }
  std::string reason;
  const auto value = parse_value(*setting, text, reason);
  if (!value) {
    complain("{}: {}", setting->name, reason);
    return kFailure;
  }
  const SharedBlock block;
  if (block.get() == nullptr) return kFailure;
  store(*setting, *value, block.get());
  return kYes;
}

int remove() {
  set_debug_level(-1);
  if (remove_config_buffer() == 0) return kYes;
  complain("there is no parameter block");
  return kFailure;
}

}  // namespace

void add_config_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* config = app.add_subcommand("config", "The settings that all processes share");
  config->require_subcommand(1);

  static std::string file, key, value;
  CLI::App* load_command = config->add_subcommand(
      "load", "Make the parameter block and fill it from an INI file: [VFS] debug level = 0");
  load_command->add_option("FILE", file, "the settings file")->required();
  load_command->callback([&action] { action = [] { return load(file); }; });

  static bool explain = false;
  CLI::App* show_command =
      config->add_subcommand("show", "Print every setting with its type and value");
  show_command->add_flag("--explain", explain, "and what each is for");
  show_command->callback([&] { action = [&options] { return show(options, explain); }; });

  CLI::App* set_command =
      config->add_subcommand("set", "Change one setting; processes see it at their next snapshot");
  set_command->add_option("KEY", key, "\"SECTION:key\", as in \"VFS:debug level\"")->required();
  set_command->add_option("VALUE", value, "the value")->required();
  set_command->callback([&action] { action = [] { return set(key, value); }; });

  config->add_subcommand("remove", "Remove the parameter block")->callback([&action] {
    action = [] { return remove(); };
  });
}

}  // namespace tavrix::ctl
