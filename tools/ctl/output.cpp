// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/output.hpp"

#include <grp.h>
#include <pwd.h>
#include <cstdio>
#include <iterator>
#include <vector>

#include "tools/service/journal.hpp"

namespace tavrix::ctl {
namespace {

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

template <typename Entry, typename Lookup>
std::string name_by_id(Lookup lookup, char* Entry::*name) {
  std::vector<char> buffer(65536);
  Entry entry{};
  Entry* found = nullptr;
  if (lookup(&entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return {};
  return found->*name;
}

}  // namespace

void complain(std::string_view text) {
  service::say(service::Tone::kError, "tavrixctl: " + std::string(text));
}

void warn(std::string_view text) {
  service::say(service::Tone::kWarning, "tavrixctl: " + std::string(text));
}

void print(const Json& json) {
  const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace);
  fmt::print("{}\n", text);
}

void set_bytes(Json& object, const std::string& key, std::string_view bytes) {
  object[key] = bytes;
  if (!is_utf8(bytes)) object[key + "_base64"] = base64(bytes);
}

std::string shown(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      fmt::format_to(std::back_inserter(text), "\\x{:02x}", byte);
    } else {
      text += c;
    }
  }
  return text;
}

std::string human_bytes(uint64_t bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(kUnits)) {
    value /= 1024;
    ++unit;
  }
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, kUnits[unit]);
}

std::string user_name(uint32_t uid) {
  return name_by_id<passwd>(
      [uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return getpwuid_r(uid, entry, buffer, size, found);
      },
      &passwd::pw_name);
}

std::string group_name(uint32_t gid) {
  return name_by_id<group>(
      [gid](group* entry, char* buffer, std::size_t size, group** found) {
        return getgrgid_r(gid, entry, buffer, size, found);
      },
      &group::gr_name);
}

std::string rights(uint32_t mask) {
  static constexpr const char* kNames[] = {"read", "write", "delete", "navigate", "view"};
  std::string text;
  for (std::size_t bit = 0; bit < std::size(kNames); ++bit) {
    if ((mask >> bit & 1U) == 0) continue;
    if (!text.empty()) text += ' ';
    text += kNames[bit];
  }
  if (mask > 31) text += fmt::format(" (and bits {:#x})", mask & ~31U);
  return text.empty() ? "-" : text;
}

void print_findings(const mapcheck::Findings& findings) {
  for (const auto& finding : findings.kept()) {
    std::string place = finding.file;
    if (!finding.where.empty()) place += (place.empty() ? "" : ", ") + shown(finding.where);
    fmt::print("{}: {}{}byte {}: {}\n",
               finding.severity == mapcheck::Severity::kError ? "error" : "warning", place,
               place.empty() ? "" : ", ", finding.offset, shown(finding.text));
  }
  const uint64_t total = findings.errors() + findings.warnings();
  if (total > findings.kept().size()) {
    fmt::print("... and {} more\n", total - findings.kept().size());
  }
}

Json json_of(const mapcheck::Findings& findings) {
  Json list = Json::array();
  for (const auto& finding : findings.kept()) {
    Json entry;
    entry["severity"] = finding.severity == mapcheck::Severity::kError ? "error" : "warning";
    if (!finding.file.empty()) entry["file"] = finding.file;
    if (!finding.where.empty()) set_bytes(entry, "path", finding.where);
    entry["offset"] = finding.offset;
    set_bytes(entry, "text", finding.text);
    list.push_back(std::move(entry));
  }
  Json result;
  result["errors"] = findings.errors();
  result["warnings"] = findings.warnings();
  result["findings"] = std::move(list);
  return result;
}

}  // namespace tavrix::ctl
