// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/output.hpp"

#include <grp.h>
#include <pwd.h>
#include <cstdio>
#include <iterator>
#include <vector>

#include "tools/service/journal.hpp"
#include "tools/status/sentences.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/shown.hpp"

namespace tavrix::ctl {
namespace {

template <typename Entry, typename Lookup>
std::string name_by_id(Lookup lookup, char* Entry::*name) {
  std::vector<char> buffer(65536);
  Entry entry{};
  Entry* found = nullptr;
  if (lookup(&entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return {};
  return found->*name;
}

}  // namespace

void print(const Json& json) {
  note_document();
  json::print(json);
}

void print_line(const Json& json) {
  note_line();
  json::print_line(json);
}

void complain_as(const char* code, std::string_view text) {
  note_error(code, std::string(text));
  service::say(service::Tone::kError, "tavrixctl: " + std::string(text));
}

void complain(std::string_view text) { complain_as(code::kFailed, text); }

void warn(std::string_view text) {
  service::say(service::Tone::kWarning, "tavrixctl: " + std::string(text));
}

std::string shown(std::string_view bytes) { return text::shown(bytes); }

std::string human_bytes(uint64_t bytes) { return status::size_text(bytes); }

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

std::string counts(const mapcheck::Findings& findings) {
  return text::counted(findings.errors(), "error") + ", " +
         text::counted(findings.warnings(), "warning");
}

void set_findings(Json& object, const mapcheck::Findings& findings) {
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
  object["errors"] = findings.errors();
  object["warnings"] = findings.warnings();
  object["findings"] = std::move(list);
}

}  // namespace tavrix::ctl
