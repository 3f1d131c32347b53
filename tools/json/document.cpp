// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/json/document.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <ctime>

namespace tavrix::json {
namespace {

constexpr int kVersion = 1;

bool is_utf8(std::string_view bytes) {
  try {
    static_cast<void>(Json(bytes).dump());
    return true;
  } catch (const Json::exception&) {
    return false;
  }
}

std::string base64(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    unsigned group = 0;
    const std::size_t have = std::min<std::size_t>(3, bytes.size() - at);
    for (std::size_t i = 0; i < 3; ++i) {
      group = group << 8 | (i < have ? static_cast<unsigned char>(bytes[at + i]) : 0U);
    }
    for (std::size_t i = 0; i < 4; ++i) {
      text += i <= have ? kAlphabet[group >> (18 - 6 * i) & 63] : '=';
    }
  }
  return text;
}

}  // namespace

Json document(std::string_view name) {
  Json json;
  json["schema"] = fmt::format("tavrix.{}/{}", name, kVersion);
  return json;
}

std::string text_of(const Json& json, int indent) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

void print(const Json& json) { fmt::print("{}\n", text_of(json, 2)); }
void print_line(const Json& json) { fmt::print("{}\n", text_of(json)); }

void set_bytes(Json& object, const std::string& key, std::string_view bytes) {
  object[key] = bytes;
  if (!is_utf8(bytes)) object[key + "_base64"] = base64(bytes);
}

std::optional<std::string> rfc3339(int64_t seconds, std::optional<int> microseconds) {
  const auto when = static_cast<time_t>(seconds);
  tm parts{};
  if (gmtime_r(&when, &parts) == nullptr) return std::nullopt;
  const int64_t year = int64_t{parts.tm_year} + 1900;
  if (year < 0 || year > 9999) return std::nullopt;
  std::string text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", year, parts.tm_mon + 1,
                                 parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  if (microseconds) text += fmt::format(".{:06}", *microseconds);
  return text + "Z";
}

void set_time(Json& object, const std::string& key, int64_t seconds) {
  if (const auto text = rfc3339(seconds)) object[key] = *text;
}

}  // namespace tavrix::json
