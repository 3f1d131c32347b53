// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/settings.hpp"

#include <fmt/format.h>
#include <strings.h>
#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace tavrix::ctl {
namespace {

constexpr int64_t kMost = std::numeric_limits<int32_t>::max();
constexpr auto kInt = PARAM_VAL_TYPE_INT;
constexpr auto kText = PARAM_VAL_TYPE_STRING;
constexpr auto kSwitch = PARAM_VAL_TYPE_BOOLEAN;

// The meanings are what "config show --explain" prints: what the value does, and who reads it.
constexpr Setting kSettings[] = {
    {PARAM_DEFAULT_USER_ID, "VFS:default user", kInt, 0, kMost, "65534",
     "uid that owns what clients make; 0: the client's own"},
    {PARAM_DEFAULT_GROUP_ID, "VFS:default group", kInt, 0, kMost, "65534",
     "gid that owns what clients make; 0: the client's own"},
    {PARAM_REGEX_FILE_NAME, "VFS:exception pattern file", kText, 0, 0,
     "/etc/tavrix/exception_patterns",
     "patterns, a line each, of names of files that everybody may delete, where \"check regex "
     "unlink\" is 1; an empty line matches every name"},
    {PARAM_DISABLE_SWEEPER_FLUSH, "SWEEPER:disable sweeper flush", kSwitch, 0, 1, "no",
     "yes: the sweeper flushes only when it ends; events wait until a client goes"},
    {PARAM_STAGING_BUFFER_SIZE, "SWEEPER:staging buffer size", kInt, 1024, kMost, "1048576",
     "bytes of the shared staging buffer; a change waits until no connection works with the old "
     "size"},
    {PARAM_FLUSH_PERIOD, "SWEEPER:flush period", kInt, 1, 86400, "5",
     "seconds between two flushes by the sweeper"},
    {PARAM_STAGING_DIR, "SWEEPER:staging dir", kText, 0, 0, "/tavrix/.conf/staging",
     "existing folder of the dump files of events; 200 bytes at most"},
    {PARAM_FLUSH_FILL_THRESHOLD, "SWEEPER:flush fill threshold pct", kInt, 1, 100, "80",
     "per cent of the staging buffer past which events wait for a flush, and of an audit buffer at "
     "which it is written out; 100 counts as 80 and as 50"},
    {PARAM_SOCKET_BACKLOG, "MESSENGER:socket backlog", kInt, 0, 65535, "16",
     "connections that may wait at the messenger, which is a program of the appliance's own"},
    {PARAM_SOCKET_MESSAGE_SIZE, "MESSENGER:socket message size", kInt, 0, kMost, "4096",
     "bytes of the messenger's longest message"},
    {PARAM_SOCKET_PATH, "MESSENGER:socket path", kText, 0, 0, "/run/tavrix/messenger.sock",
     "the messenger's socket"},
    {PARAM_CHECK_REGEX_UNLINK, "VFS:check regex unlink", kInt, 0, 1, "1",
     "1: a file that matches a pattern may be deleted without the right to write it; 0: the "
     "patterns are not read"},
    {PARAM_DEBUG_LEVEL, "VFS:debug level", kInt, -1, 10, "0",
     "what the library logs; -1: nothing, errors neither; 0: errors, and a line for each "
     "connection "
     "and change; 10: everything"},
    {PARAM_ENABLE_FORBIDDEN_RMDIR, "VFS:enable forbidden rmdir", kSwitch, 0, 1, "no",
     "chooses what the removal of a folder logs at debug levels 1 and 10; allows nobody anything"},
    {PARAM_AUDITING_DIR, "SWEEPER:auditing dir", kText, 0, 0, "/tavrix/.conf/auditing",
     "existing folder of the dump files of audits; 200 bytes at most"},
    {PARAM_AUDITING_BUFFER_SIZE, "SWEEPER:auditing buffer size", kInt, 1024, kMost, "65536",
     "bytes of a server process's audit buffer, made when its client connects"},
    {PARAM_AUDITING_FLUSH_INTERVAL, "SWEEPER:auditing flush interval", kInt, 0, 86400, "60",
     "seconds after which the next audit record writes the earlier ones out"},
};

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

std::span<const Setting> settings() { return kSettings; }

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

std::string value_text(const Setting& setting, const global_param_s* block) {
  const auto& value = block[setting.index].value;
  switch (setting.type) {
    case PARAM_VAL_TYPE_STRING:
      return {value.strval, strnlen(value.strval, sizeof value.strval)};
    case PARAM_VAL_TYPE_BOOLEAN:
      return value.intval != 0 ? "yes" : "no";
    default:
      return std::to_string(value.intval);
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
