// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/settings/service_settings.hpp"

#include <fmt/format.h>
#include <strings.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "tools/ctl/settings_file.hpp"

namespace tavrix::settings {
namespace {

bool is_in(const Setting& setting, std::string_view section) {
  const std::string_view name = setting.name;
  return name.size() > section.size() && name[section.size()] == ':' &&
         strncasecmp(name.data(), section.data(), section.size()) == 0;
}

}  // namespace

const Setting* find_service_setting(std::string_view name) {
  const auto found = std::find_if(
      std::begin(kServiceSettings), std::end(kServiceSettings), [name](const Setting& setting) {
        const std::string_view own = setting.name;
        return own.size() == name.size() && strncasecmp(own.data(), name.data(), own.size()) == 0;
      });
  return found == std::end(kServiceSettings) ? nullptr : found;
}

ServiceSettings ServiceSettings::read(const std::string& path) {
  ServiceSettings result;
  ctl::SettingsFile file;
  const bool is_missing = access(path.c_str(), F_OK) != 0 && errno == ENOENT;
  if (!is_missing) file = ctl::read_settings_file(path);
  if (!file.errors.empty()) {
    result.wrong_values_.emplace_back(nullptr, file.errors.front());
    file = ctl::read_settings_file(ctl::kSettingsOfBefore);
    // Without a file of before the shipped values count.
    if (!file.errors.empty()) file = {};
  }
  for (const ctl::WrongValue& wrong : file.wrong_service_values) {
    result.wrong_values_.emplace_back(
        wrong.setting,
        fmt::format("{}; the shipped value {} holds", wrong.text, wrong.setting->shipped));
  }
  for (const Setting& setting : kServiceSettings) {
    const auto given =
        std::find_if(file.service_values.begin(), file.service_values.end(),
                     [&setting](const auto& entry) { return entry.first == &setting; });
    result.values_.emplace_back(
        &setting, given == file.service_values.end() ? ctl::shipped_value(setting) : given->second);
  }
  return result;
}

const ctl::Value& ServiceSettings::value(std::string_view name) const {
  const Setting* wanted = find_service_setting(name);
  for (const auto& [setting, value] : values_) {
    if (setting == wanted) return value;
  }
  throw std::logic_error(fmt::format("there is no setting \"{}\" of a service", name));
}

std::vector<std::string> ServiceSettings::warnings(std::string_view section) const {
  std::vector<std::string> lines;
  for (const auto& [setting, line] : wrong_values_) {
    if (setting == nullptr || is_in(*setting, section)) lines.push_back(line);
  }
  return lines;
}

}  // namespace tavrix::settings
