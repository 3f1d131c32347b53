// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings as operators type and read them: values are parsed, checked, stored and shown by the
// description of each setting in utils/settings_table.hpp.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "eventstore.h"
#include "utils/settings_table.hpp"

namespace tavrix::ctl {

using tavrix::Setting;

inline std::span<const Setting> settings() { return kSettings; }

// Finds a setting by its name, in any case; null when there is none.
const Setting* find_setting(std::string_view name);

// A value: the text of a text, the number of anything else.
struct Value {
  std::string text;
  int32_t number = 0;
};
// Returns nothing, and the reason in `error`, when the text is not a value of the setting.
std::optional<Value> parse_value(const Setting& setting, std::string_view text, std::string& error);

Value shipped_value(const Setting& setting);

void store(const Setting& setting, const Value& value, global_param_s* block);
Value stored_value(const Setting& setting, const global_param_s* block);
std::string value_text(const Setting& setting, const global_param_s* block);
std::string value_text(const Setting& setting, const Value& value);

const char* type_name(e_param_val_type type);

}  // namespace tavrix::ctl
