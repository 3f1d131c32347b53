// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings that operators know by name: the entries of the global parameter block.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "eventstore.h"

namespace tavrix::ctl {

struct Setting {
  e_tavrix_global_index index;
  const char* name;  // "SECTION:key"
  e_param_val_type type;
  int64_t least, most;  // numbers
  const char* shipped;  // the value where nobody gives one; packaging/tavrix.conf has the same
  const char* meaning;
};

std::span<const Setting> settings();

// By name, whatever its case; null when there is none.
const Setting* find_setting(std::string_view name);

// A value in its type; nothing and the reason when the text is none.
struct Value {
  std::string text;
  int32_t number = 0;
};
std::optional<Value> parse_value(const Setting& setting, std::string_view text, std::string& error);

Value shipped_value(const Setting& setting);

void store(const Setting& setting, const Value& value, global_param_s* block);
std::string value_text(const Setting& setting, const global_param_s* block);

const char* type_name(e_param_val_type type);

}  // namespace tavrix::ctl
