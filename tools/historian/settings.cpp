// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/settings.hpp"

#include "tools/ctl/parameter_block.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::historian {
namespace {

// The block counts, because flushes go by it. Without a block there are no flushes yet.
std::string folder_setting(const ctl::SettingsFile& file, e_tavrix_global_index index) {
  std::string none;
  const auto block = ctl::ParameterBlock::find(none);
  if (block && block->is_filled()) return block->get()[index].value.strval;
  for (const auto& [setting, value] : file.values) {
    if (setting->index == index) return value.text;
  }
  for (const Setting& setting : kSettings) {
    if (setting.index == index) return setting.shipped;
  }
  return {};
}

}  // namespace

Settings read_settings(const std::string& file) {
  const auto own = settings::ServiceSettings::read(file);
  const auto shared = ctl::read_settings_file(file);
  Settings result;
  result.database = own.text("HISTORIAN:database");
  result.group = own.text("HISTORIAN:group");
  result.limits = {own.number("HISTORIAN:keep days"), own.number("HISTORIAN:keep megabytes")};
  result.deletions = {own.number("HISTORIAN:mass deletions"),
                      own.number("HISTORIAN:mass deletions seconds")};
  result.renames = {own.number("HISTORIAN:mass renames"),
                    own.number("HISTORIAN:mass renames seconds")};
  result.staging = folder_setting(shared, PARAM_STAGING_DIR);
  result.auditing = folder_setting(shared, PARAM_AUDITING_DIR);
  if (!shared.node.empty()) {
    result.has_nodes = true;
    result.staging = ctl::shared_folder(shared, PARAM_STAGING_DIR);
    result.auditing = ctl::shared_folder(shared, PARAM_AUDITING_DIR);
  }
  result.warnings = own.warnings("HISTORIAN");
  return result;
}

}  // namespace tavrix::historian
