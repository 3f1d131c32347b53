// SPDX-License-Identifier: LGPL-3.0-or-later
// A settings file is an INI file. Its sections and keys are the names of the settings.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/ctl/settings.hpp"

namespace tavrix::ctl {

struct SettingsFile {
  std::vector<std::pair<const Setting*, Value>> values;
  std::vector<std::string> errors;  // "file:line: key: what is wrong"
};

// Reads the file and finds every error in it. If there are errors, the values must not be used.
SettingsFile read_settings_file(const std::string& path);

}  // namespace tavrix::ctl
