// SPDX-License-Identifier: LGPL-3.0-or-later
// A settings file is an INI file. Its sections and keys are the names of the settings.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tools/ctl/settings.hpp"

namespace tavrix::ctl {

// A value of a service's own setting that is none. It is no error of the file: the other settings
// are not the service's.
struct WrongValue {
  const Setting* setting;
  std::string text;  // "file:line: key: what is wrong"
};

struct SettingsFile {
  std::vector<std::pair<const Setting*, Value>> values;          // of the block
  std::vector<std::pair<const Setting*, Value>> service_values;  // of the services alone
  std::vector<WrongValue> wrong_service_values;
  std::vector<std::string> errors;  // "file:line: key: what is wrong"
  // This machine as a node of a cluster; empty when it is none. Its dump files go into folders of
  // that name below those of the settings.
  std::string node;
};

// True for the folders of dump files, of which each node of a cluster has its own.
bool is_folder_of_node(const Setting& setting);

// The value that the file gives a setting of the block, or the shipped one. `node` is not in it.
Value value_in(const SettingsFile& file, const Setting& setting);
// A folder of dump files as all nodes know it.
std::string shared_folder(const SettingsFile& file, e_tavrix_global_index index);

// Reads the file and finds every error in it. If there are errors, the values must not be used.
SettingsFile read_settings_file(const std::string& path);

// A copy of the last settings file without a mistake. The services start with it when the file has
// one.
constexpr const char* kSettingsOfBefore = "/etc/tavrix/.tavrix.conf";

}  // namespace tavrix::ctl
