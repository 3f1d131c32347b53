// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/settings_for_all.hpp"

#include "tools/ctl/settings_file.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::cluster {

std::string mistake_in_settings(const std::string& path) {
  const ctl::SettingsFile file = ctl::read_settings_file(path);
  if (!file.errors.empty()) return file.errors.front();
  if (!file.wrong_service_values.empty()) return file.wrong_service_values.front().text;
  if (!settings::ServiceSettings::read(path).is_on("CLUSTER:enabled")) {
    return path + ": CLUSTER:enabled is not yes";
  }
  return {};
}

}  // namespace tavrix::cluster
