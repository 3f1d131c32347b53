// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/history_output.hpp"

#include <fmt/format.h>
#include <algorithm>

#include "tools/ctl/output.hpp"
#include "tools/events/operations.hpp"
#include "tools/events/path_pattern.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::ctl {
namespace {

using history::Counts;
using history::Doing;
using history::Event;
using history::Life;
using history::Record;
using history::Report;

constexpr int64_t kSecond = 1'000'000;

// Reads know only their second.
void set_record_time(Json& json, const std::string& key, int64_t time, bool is_read = false) {
  const int64_t part = (time % kSecond + kSecond) % kSecond;
  const auto text = json::rfc3339((time - part) / kSecond,
                                  is_read ? std::nullopt : std::optional(static_cast<int>(part)));
  if (text) json[key] = *text;
}

std::string shown_object(const std::string& path) {
  return shown(std::string(events::shown_path(path)));
}

const char* object_name(const Record& record) { return record.is_folder ? "DIR" : "FILE"; }

const char* what_of(Event event) {
  static constexpr const char* kNames[] = {"made",  "changed",  "read",    "renamed",
                                           "moved", "replaced", "deleted", "deleted"};
  return kNames[static_cast<std::size_t>(event)];
}

const char* key_of(Event event) {
  static constexpr const char* kKeys[] = {"made",    "changed",  "read",    "renamed",
                                          "carried", "replaced", "deleted", "deleted-above"};
  return kKeys[static_cast<std::size_t>(event)];
}

const char* key_of(history::Ending ending) {
  static constexpr const char* kKeys[] = {"alive", "deleted", "replaced", "unknown"};
  return kKeys[static_cast<std::size_t>(ending)];
}

const char* sentence_of(history::Ending ending) {
  static constexpr const char* kTexts[] = {"is there", "is deleted", "is replaced",
                                           "is gone without a record"};
  return kTexts[static_cast<std::size_t>(ending)];
}

// "  (10.0.0.2, on node1)": from where a read came, and which node of a cluster did it.
std::string whereabouts(const Record& record) {
  std::string text = shown(record.address);
  if (!record.node.empty())
    text += fmt::format("{}on {}", text.empty() ? "" : ", ", shown(record.node));
  return text.empty() ? text : fmt::format("  ({})", text);
}

// The details of a step behind its verb.
std::string details_of(const history::Step& step) {
  const Record& record = step.record;
  switch (step.event) {
    case Event::kRenamed:
      return fmt::format("{} -> {}", shown_object(step.path), shown_object(step.new_path));
    case Event::kCarried:
      return fmt::format("{} -> {}  (folder {} -> {})", shown_object(step.path),
                         shown_object(step.new_path), shown_object(record.path),
                         shown_object(record.target));
    case Event::kReplaced:
      return fmt::format("{}  (by {})", shown_object(step.path), shown_object(record.path));
    case Event::kDeletedAbove:
      return fmt::format("{}  (folder {})", shown_object(step.path), shown_object(record.path));
    default:
      return shown_object(step.path);
  }
}

Json counts_json(const Counts& counts) {
  Json json;
  json["records"] = history::sum_of(counts);
  for (std::size_t i = 0; i < history::kDoings; ++i)
    json[history::word_of(static_cast<Doing>(i))] = counts[i];
  return json;
}

// "3 created, 1 deleted"
std::string counts_text(const Counts& counts) {
  std::string text;
  for (std::size_t i = 0; i < history::kDoings; ++i) {
    if (counts[i] == 0) continue;
    text += fmt::format("{}{} {}", text.empty() ? "" : ", ", counts[i],
                        history::word_of(static_cast<Doing>(i)));
  }
  return text.empty() ? "nothing" : text;
}

}  // namespace

std::string csv_value(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) quoted += c == '"' ? "\"\"" : std::string(1, c);
  return quoted + "\"";
}

void HistoryOutput::set_user(Json& json, uint32_t uid) {
  json["uid"] = uid;
  if (const std::string& name = people_.name_of(uid); !name.empty())
    set_bytes(json, "user_name", name);
}

Json HistoryOutput::record(const Record& record) {
  Json json;
  const bool is_read = record.operation == history::kReadOperation;
  set_record_time(json, "time", record.at.time, is_read);
  json["id"] = record.at.id;
  json["type"] = events::operation_name(record.operation);
  json["done"] = history::word_of(history::doing_of(record.operation));
  json["object"] = object_name(record);
  set_bytes(json, "path", record.path);
  if (!record.target.empty()) set_bytes(json, "new_path", record.target);
  set_user(json, record.uid);
  if (!record.user.empty()) set_bytes(json, "user", record.user);
  if (record.pid) json["client_pid"] = *record.pid;
  if (!record.address.empty()) set_bytes(json, "ip_address", record.address);
  if (record.size) json["size"] = *record.size;
  if (!record.node.empty()) set_bytes(json, "node", record.node);
  return json;
}

Json HistoryOutput::page(const char* schema, const history::Page& page) {
  Json json = document(schema);
  json["records"] = Json::array();
  for (const Record& each : page.records) json["records"].push_back(record(each));
  json["more"] = page.next.has_value();
  if (page.next) {
    json["next"] = history::cursor_of(*page.next);
    set_record_time(json, "searched_back_to", page.next->time);
  }
  json["is_cut"] = page.is_cut;
  return json;
}

Json HistoryOutput::lives(const std::string& path, const history::Lives& lives) {
  Json json = document("history-file");
  set_bytes(json, "path", path);
  json["lives"] = Json::array();
  for (const Life& life : lives.lives) {
    Json item;
    set_bytes(item, "last_path", life.last_path);
    item["beginning"] = life.beginning == history::Beginning::kMade ? "made" : "unknown";
    item["ending"] = key_of(life.ending);
    item["steps_left_off"] = life.steps_left_off;
    item["steps"] = Json::array();
    for (const history::Step& step : life.steps) {
      Json entry;
      entry["event"] = key_of(step.event);
      set_bytes(entry, "path", step.path);
      if (!step.new_path.empty()) set_bytes(entry, "new_path", step.new_path);
      entry["record"] = record(step.record);
      item["steps"].push_back(std::move(entry));
    }
    json["lives"].push_back(std::move(item));
  }
  json["more"] = lives.has_more;
  return json;
}

Json HistoryOutput::report(const Report& report) {
  Json json = document("history-report");
  set_record_time(json, "since", report.since);
  set_record_time(json, "until", report.until);
  json["counts"] = counts_json(report.counts);
  json["step"] = report.by_day ? "day" : "hour";
  json["activity"] = Json::array();
  for (const auto& [begin, counts] : report.steps) {
    Json item;
    set_record_time(item, "time", begin, true);
    item.update(counts_json(counts));
    json["activity"].push_back(std::move(item));
  }
  json["users"] = Json::array();
  for (const Report::User& user : report.users) {
    Json item;
    set_user(item, user.uid);
    item.update(counts_json(user.counts));
    json["users"].push_back(std::move(item));
  }
  json["folders"] = Json::array();
  for (const Report::Folder& folder : report.folders) {
    Json item;
    set_bytes(item, "path", folder.path);
    item.update(counts_json(folder.counts));
    json["folders"].push_back(std::move(item));
  }
  json["notices"] = Json::array();
  for (const history::Notice& notice : report.notices) {
    Json item;
    set_record_time(item, "time", notice.time);
    item["kind"] = notice.kind;
    if (notice.uid) set_user(item, *notice.uid);
    if (notice.count) item["count"] = *notice.count;
    set_bytes(item, "text", notice.text);
    json["notices"].push_back(std::move(item));
  }
  return json;
}

void HistoryOutput::print_line(const Record& record) {
  const char* folder = record.is_folder ? "/" : "";
  std::string line = fmt::format(
      "{}  {:<12}  {:<7}  {}{}", text::local_time(record.at.time), shown(people_.shown(record.uid)),
      history::word_of(history::doing_of(record.operation)), shown_object(record.path), folder);
  if (!record.target.empty()) line += fmt::format(" -> {}{}", shown_object(record.target), folder);
  fmt::print("{}{}\n", line, whereabouts(record));
}

void HistoryOutput::print_life(const Life& life) {
  fmt::print("{} {}\n", shown_object(life.last_path), sentence_of(life.ending));
  if (life.beginning == history::Beginning::kUnknown)
    fmt::print("  (no record tells of its beginning)\n");
  if (life.steps_left_off > 0)
    fmt::print("  ({} left off; --limit shows more)\n",
               text::counted(life.steps_left_off, "older change"));
  for (const history::Step& step : life.steps) {
    fmt::print("  {}  {:<12}  {:<7}  {}{}\n", text::local_time(step.record.at.time),
               shown(people_.shown(step.record.uid)), what_of(step.event), details_of(step),
               whereabouts(step.record));
  }
}

void HistoryOutput::print_report(const Report& report) {
  fmt::print("{} to {}: {}\n", text::local_time(report.since), text::local_time(report.until),
             text::counted(history::sum_of(report.counts), "record"));
  if (history::sum_of(report.counts) > 0) fmt::print("  {}\n", counts_text(report.counts));
  uint64_t most = 1;
  for (const auto& [begin, counts] : report.steps) most = std::max(most, history::sum_of(counts));
  fmt::print("\nby {}:\n", report.by_day ? "day" : "hour");
  constexpr uint64_t kColumns = 40;
  for (const auto& [begin, counts] : report.steps) {
    const uint64_t sum = history::sum_of(counts);
    if (sum == 0) continue;
    const uint64_t length = std::max<uint64_t>(1, sum * kColumns / most);
    fmt::print("  {}  {:>8}  {}\n", text::local_time(begin).substr(0, report.by_day ? 10 : 16), sum,
               std::string(length, '#'));
  }
  fmt::print("\nmost active users:\n");
  for (const Report::User& user : report.users) {
    fmt::print("  {:<12}  {:>8}  {}\n", shown(people_.shown(user.uid)),
               history::sum_of(user.counts), counts_text(user.counts));
  }
  fmt::print("\nmost active folders:\n");
  for (const Report::Folder& folder : report.folders) {
    fmt::print("  {:>8}  {}\n", history::sum_of(folder.counts), shown_object(folder.path));
  }
  if (report.notices.empty()) return;
  fmt::print("\nnotices:\n");
  for (const history::Notice& notice : report.notices)
    fmt::print("  {}  {}\n", text::local_time(notice.time), shown(notice.text));
}

void HistoryOutput::print_csv_head() {
  fmt::print("time,user,uid,done,type,object,path,new_path,address,size,node\n");
}

void HistoryOutput::print_csv(const Record& record) {
  const bool is_read = record.operation == history::kReadOperation;
  Json time;
  set_record_time(time, "time", record.at.time, is_read);
  fmt::print("{},{},{},{},{},{},{},{},{},{},{}\n", time.value("time", ""),
             csv_value(people_.name_of(record.uid)), record.uid,
             history::word_of(history::doing_of(record.operation)),
             events::operation_name(record.operation), object_name(record), csv_value(record.path),
             csv_value(record.target), csv_value(record.address),
             record.size ? std::to_string(*record.size) : "", csv_value(record.node));
}

void HistoryOutput::print_csv_report(const Report& report) {
  std::string head = report.by_day ? "day" : "hour";
  for (std::size_t i = 0; i < history::kDoings; ++i)
    head += std::string(",") + history::word_of(static_cast<Doing>(i));
  fmt::print("{}\n", head);
  for (const auto& [begin, counts] : report.steps) {
    std::string line = json::rfc3339(begin / kSecond).value_or("");
    for (const uint64_t count : counts) line += "," + std::to_string(count);
    fmt::print("{}\n", line);
  }
}

}  // namespace tavrix::ctl
