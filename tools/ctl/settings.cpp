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

constexpr Setting kSettings[] = {
    {PARAM_DEFAULT_USER_ID, "VFS:default user", kInt, 0, kMost, "uid for files without an owner"},
    {PARAM_DEFAULT_GROUP_ID, "VFS:default group", kInt, 0, kMost, "gid for files without a group"},
    {PARAM_REGEX_FILE_NAME, "VFS:exception pattern file", kText, 0, 0,
     "file of patterns of files that may always be deleted"},
    {PARAM_DISABLE_SWEEPER_FLUSH, "SWEEPER:disable sweeper flush", kSwitch, 0, 1,
     "the sweeper leaves the staging buffer alone"},
    {PARAM_STAGING_BUFFER_SIZE, "SWEEPER:staging buffer size", kInt, 1024, kMost,
     "bytes of the shared staging buffer"},
    {PARAM_FLUSH_PERIOD, "SWEEPER:flush period", kInt, 1, 86400, "seconds between two flushes"},
    {PARAM_STAGING_DIR, "SWEEPER:staging dir", kText, 0, 0, "folder of the dump files of events"},
    {PARAM_FLUSH_FILL_THRESHOLD, "SWEEPER:flush fill threshold pct", kInt, 1, 100,
     "per cent of the buffer at which a writer flushes it"},
    {PARAM_SOCKET_BACKLOG, "MESSENGER:socket backlog", kInt, 0, 65535, "connections that may wait"},
    {PARAM_SOCKET_MESSAGE_SIZE, "MESSENGER:socket message size", kInt, 0, kMost,
     "bytes of the longest message"},
    {PARAM_SOCKET_PATH, "MESSENGER:socket path", kText, 0, 0, "the messenger's socket"},
    {PARAM_CHECK_REGEX_UNLINK, "VFS:check regex unlink", kInt, 0, 1,
     "files that match a pattern may be deleted without a right"},
    {PARAM_DEBUG_LEVEL, "VFS:debug level", kInt, -1, 10, "-1 is silent, 0 errors, 10 everything"},
    {PARAM_ENABLE_FORBIDDEN_RMDIR, "VFS:enable forbidden rmdir", kSwitch, 0, 1,
     "folders that must stay may be removed"},
    {PARAM_AUDITING_DIR, "SWEEPER:auditing dir", kText, 0, 0, "folder of the dump files of audits"},
    {PARAM_AUDITING_BUFFER_SIZE, "SWEEPER:auditing buffer size", kInt, 1024, kMost,
     "bytes of a server process's audit buffer"},
    {PARAM_AUDITING_FLUSH_INTERVAL, "SWEEPER:auditing flush interval", kInt, 0, 86400,
     "seconds after which audits are flushed"},
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
