// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/settings.hpp"

#include <fmt/format.h>
#include <strings.h>
#include <algorithm>
#include <charconv>
#include <cstring>

namespace tavrix::ctl {
namespace {

bool equal(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<Value> parse_switch(std::string_view text, std::string& error) {
  for (const char* yes : {"true", "yes", "on", "1"}) {
    if (equal(text, yes)) return Value{{}, 1};
  }
  for (const char* no : {"false", "no", "off", "0"}) {
    if (equal(text, no)) return Value{{}, 0};
  }
  error = fmt::format("\"{}\" is neither yes nor no", text);
  return std::nullopt;
}

std::optional<Value> parse_number(const Setting& setting, std::string_view text,
                                  std::string& error) {
  int64_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure == std::errc::result_out_of_range) {
    error = fmt::format("{} is out of range: {} to {}", text, setting.least, setting.most);
    return std::nullopt;
  }
  if (failure != std::errc{} || end != text.data() + text.size()) {
    error = fmt::format("\"{}\" is not a number", text);
    return std::nullopt;
  }
  const std::string_view digits = text.substr(text.front() == '-' ? 1 : 0);
  if (digits.size() > 1 && digits.front() == '0') {
    error = fmt::format("{}: a leading zero would make some readers take it for octal", text);
    return std::nullopt;
  }
  if (number < setting.least || number > setting.most) {
    error = fmt::format("{} is out of range: {} to {}", number, setting.least, setting.most);
    return std::nullopt;
  }
  return Value{{}, static_cast<int32_t>(number)};
}

}  // namespace

const Setting* find_setting(std::string_view name) {
  const auto found =
      std::find_if(std::begin(kSettings), std::end(kSettings),
                   [name](const Setting& setting) { return equal(setting.name, name); });
  return found == std::end(kSettings) ? nullptr : found;
}

std::optional<Value> parse_value(const Setting& setting, std::string_view text,
                                 std::string& error) {
  switch (setting.type) {
    case PARAM_VAL_TYPE_BOOLEAN:
      return parse_switch(text, error);
    case PARAM_VAL_TYPE_INT:
      return parse_number(setting, text, error);
    default:
      if (text.size() >= TAVRIX_PARAM_STRVAL_SIZE) {
        error = fmt::format("the text has {} bytes; {} is the most", text.size(),
                            TAVRIX_PARAM_STRVAL_SIZE - 1);
        return std::nullopt;
      }
      return Value{std::string(text), 0};
  }
}

Value shipped_value(const Setting& setting) {
  std::string error;
  return parse_value(setting, setting.shipped, error).value();
}

void store(const Setting& setting, const Value& value, global_param_s* block) {
  auto& place = block[setting.index].value;
  if (setting.type == PARAM_VAL_TYPE_STRING) {
    std::memset(place.strval, 0, sizeof place.strval);
    std::memcpy(place.strval, value.text.data(), value.text.size());
  } else {
    place.intval = value.number;
  }
}

Value stored_value(const Setting& setting, const global_param_s* block) {
  const auto& value = block[setting.index].value;
  if (setting.type != PARAM_VAL_TYPE_STRING) return {{}, value.intval};
  return {{value.strval, strnlen(value.strval, sizeof value.strval)}, 0};
}

std::string value_text(const Setting& setting, const global_param_s* block) {
  return value_text(setting, stored_value(setting, block));
}

std::string value_text(const Setting& setting, const Value& value) {
  switch (setting.type) {
    case PARAM_VAL_TYPE_STRING:
      return value.text;
    case PARAM_VAL_TYPE_BOOLEAN:
      return value.number != 0 ? "yes" : "no";
    default:
      return std::to_string(value.number);
  }
}

const char* type_name(e_param_val_type type) {
  switch (type) {
    case PARAM_VAL_TYPE_INT:
      return "number";
    case PARAM_VAL_TYPE_BOOLEAN:
      return "yes/no";
    case PARAM_VAL_TYPE_STRING:
      return "text";
    default:
      return "-";
  }
}

}  // namespace tavrix::ctl
