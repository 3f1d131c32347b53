// SPDX-License-Identifier: LGPL-3.0-or-later
// The metrics of "tavrixctl status --metrics".

#include <fmt/format.h>
#include <iterator>
#include <utility>

#include "tools/status/report.hpp"

namespace tavrix::status {
namespace {

using Labels = std::vector<std::pair<const char*, std::string>>;

std::string escaped(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    if (c == '\\' || c == '"') safe += '\\';
    if (c == '\n') {
      safe += "\\n";
    } else {
      safe += c;
    }
  }
  return safe;
}

// A metric: its head first, then its samples. A metric without samples is left out.
class Metric {
 public:
  Metric(std::string& text, const char* name, const char* help)
      : text_(text), name_(name), help_(help) {}

  template <typename Number>
  Metric& sample(const Number& value, const Labels& labels = {}) {
    if (!has_head_) {
      text_ += fmt::format("# HELP {0} {1}\n# TYPE {0} gauge\n", name_, help_);
      has_head_ = true;
    }
    std::string inside;
    for (const auto& [label, content] : labels) {
      inside += fmt::format("{}{}=\"{}\"", inside.empty() ? "" : ",", label, escaped(content));
    }
    text_ += inside.empty() ? fmt::format("{} {}\n", name_, value)
                            : fmt::format("{}{{{}}} {}\n", name_, inside, value);
    return *this;
  }
  template <typename Number>
  void sample_if(const std::optional<Number>& value, const Labels& labels = {}) {
    if (value) sample(*value, labels);
  }

 private:
  std::string& text_;
  const char* name_;
  const char* help_;
  bool has_head_ = false;
};

class Metrics {
 public:
  Metrics(const Facts& facts, const std::vector<Finding>& findings)
      : facts_(facts), findings_(findings) {}

  std::string text() {
    judgement();
    settings();
    map();
    groups();
    services();
    buffer();
    dumps();
    history();
    alarms();
    space();
    connections();
    versions();
    return std::move(text_);
  }

 private:
  void judgement() {
    auto status = metric("tavrix_status", "1 for the level of the whole, 0 for the others.");
    for (const Level level : {Level::kWell, Level::kWarning, Level::kCritical}) {
      status.sample(worst(findings_) == level ? 1 : 0, {{"level", name_of(level)}});
    }
    auto problem = metric("tavrix_problem", "1 for each finding of tavrixctl status.");
    for (const Finding& finding : findings_) {
      problem.sample(1, {{"id", finding.id}, {"level", name_of(finding.level)}});
    }
    metric("tavrix_collected_timestamp_seconds", "The time of these metrics.").sample(facts_.now);
    metric("tavrix_unread_parts", "Parts of the state that could not be read.")
        .sample(facts_.unread.size());
  }

  void settings() {
    const Settings& settings = facts_.settings;
    metric("tavrix_settings_loaded", "1 if the settings are loaded.")
        .sample(settings.is_loaded ? 1 : 0);
    metric("tavrix_settings_degraded", "1 if the settings file has a mistake.")
        .sample(settings.mistakes.empty() ? 0 : 1);
    metric("tavrix_settings_read_timestamp_seconds", "The last load of a file without a mistake.")
        .sample_if(settings.read_at);
  }

  void map() {
    const Map& map = facts_.map;
    const Segment* table = map.table();
    metric("tavrix_map_present", "1 if there is a current map.").sample(table == nullptr ? 0 : 1);
    if (table != nullptr) {
      metric("tavrix_map_bytes", "The size of the current map.").sample(table->bytes);
      metric("tavrix_map_made_timestamp_seconds", "The time at which its table was made.")
          .sample(table->created);
      metric("tavrix_map_attachments", "Attachments of the current map.").sample(table->attached);
    }
    if (map.header) {
      metric("tavrix_map_generation", "The generation of the current map.")
          .sample(map.header->generation);
      metric("tavrix_map_folders", "The folders of the current map.").sample(map.header->folders);
      metric("tavrix_map_entries", "The access list entries of the current map.")
          .sample(map.header->entries);
    }
    if (map.is_copy_equal) {
      metric("tavrix_map_copy_equal", "1 if the local copy is the current map.")
          .sample(*map.is_copy_equal ? 1 : 0);
    }
    if (map.kept.is_readable) {
      metric("tavrix_map_kept", "Maps that are kept.").sample(map.kept.count);
      metric("tavrix_map_held", "1 if a map waits for approval.")
          .sample(map.kept.held_since ? 1 : 0);
    }
    if (!map.inbox.is_readable) return;
    metric("tavrix_map_waiting", "1 if a map waits for the loader.")
        .sample(map.inbox.waits_since ? 1 : 0);
    metric("tavrix_map_refused", "Refused maps that are kept.").sample(map.inbox.refused);
    metric("tavrix_map_last_refused_timestamp_seconds", "The time of the last refusal.")
        .sample_if(map.inbox.last_refused);
  }

  void groups() {
    metric("tavrix_groups_users", "Users in the group list map.").sample_if(facts_.groups.users);
    metric("tavrix_groups_written_timestamp_seconds", "The time of the group list map.")
        .sample_if(facts_.groups.written);
  }

  void services() {
    auto running = metric("tavrix_service_running", "1 if the service runs.");
    for (const Service& service : facts_.services) {
      running.sample(service.processes.empty() ? 0 : 1, {{"service", service.name}});
    }
    auto work = metric("tavrix_service_last_work_timestamp_seconds", "The service's last work.");
    for (const Service& service : facts_.services) {
      work.sample_if(service.last_work, {{"service", service.name}});
    }
  }

  void buffer() {
    const Buffer& buffer = facts_.buffer;
    metric("tavrix_buffer_bytes", "The size of the staging buffer; 0: there is none.")
        .sample(buffer.bytes);
    metric("tavrix_buffer_used_bytes", "The fill of the staging buffer.").sample(buffer.used);
    metric("tavrix_buffer_threshold_bytes", "The fill at which writers flush.")
        .sample(buffer.threshold);
    metric("tavrix_buffer_records", "Events in the staging buffer.").sample(buffer.records);
    metric("tavrix_buffer_oldest_timestamp_seconds", "The time of the oldest event in the buffer.")
        .sample_if(buffer.oldest);
    metric("tavrix_buffer_waiting_processes", "Processes that wait for the buffer.")
        .sample(buffer.waiting);
  }

  void history() {
    if (!facts_.history || !facts_.history->is_readable) return;
    const History& history = *facts_.history;
    metric("tavrix_history_waiting_files", "Dump files that wait for the historian.")
        .sample(history.waiting);
    metric("tavrix_history_oldest_timestamp_seconds", "The time since which one waits.")
        .sample_if(history.oldest);
    metric("tavrix_history_refused_files", "Files that no flush wrote.").sample(history.refused);
    metric("tavrix_history_database_bytes", "The size of the database of the history.")
        .sample_if(history.database_bytes);
  }

  void dumps() {
    const std::pair<const char*, const Dumps*> both[] = {{"events", &facts_.events},
                                                         {"audits", &facts_.audits}};
    auto files = metric("tavrix_dump_files", "Dump files that wait for the agent.");
    for (const auto& [kind, dumps] : both) {
      if (dumps->is_readable) files.sample(dumps->count, {{"kind", kind}});
    }
    auto bytes = metric("tavrix_dump_bytes", "Bytes of the dump files that wait.");
    for (const auto& [kind, dumps] : both) {
      if (dumps->is_readable) bytes.sample(dumps->bytes, {{"kind", kind}});
    }
    auto oldest =
        metric("tavrix_dump_oldest_timestamp_seconds", "The oldest dump file that waits.");
    for (const auto& [kind, dumps] : both) oldest.sample_if(dumps->oldest, {{"kind", kind}});
  }

  void alarms() {
    auto raised = metric("tavrix_alarm", "1 if the alarm to the agent is raised.");
    for (const Alarm& alarm : facts_.alarms) {
      if (alarm.is_raised) raised.sample(*alarm.is_raised ? 1 : 0, {{"alarm", alarm.name}});
    }
  }

  void space() {
    auto free = metric("tavrix_space_free_bytes", "Free bytes for the purpose.");
    for (const Disk& disk : facts_.disks) {
      if (disk.bytes > 0) free.sample(disk.free, {{"purpose", disk.purpose}});
    }
    auto size = metric("tavrix_space_bytes", "The size of the file system for the purpose.");
    for (const Disk& disk : facts_.disks) {
      if (disk.bytes > 0) size.sample(disk.bytes, {{"purpose", disk.purpose}});
    }
  }

  void connections() {
    metric("tavrix_server_processes", "Server processes that work with the library.")
        .sample_if(facts_.connections.count);
    metric("tavrix_map_pinned", "Earlier maps that somebody has still attached.")
        .sample(facts_.connections.pinned.size());
    if (!facts_.connections.pinned.empty()) {
      metric("tavrix_map_pinned_oldest_timestamp_seconds", "The time of the oldest of them.")
          .sample(facts_.connections.pinned.front().segment.created);
    }
    metric("tavrix_huge_pages_bytes", "Shared memory of the machine in huge pages.")
        .sample_if(facts_.huge_pages.used);
  }

  void versions() {
    const Versions& versions = facts_.versions;
    metric("tavrix_build_info", "1, with the versions as labels.")
        .sample(1, {{"tools", versions.tools},
                    {"library", versions.library},
                    {"module_samba", versions.module_samba},
                    {"samba", versions.samba}});
  }

  Metric metric(const char* name, const char* help) { return {text_, name, help}; }

  const Facts& facts_;
  const std::vector<Finding>& findings_;
  std::string text_;
};

}  // namespace

std::string metrics_of(const Facts& facts, const std::vector<Finding>& findings) {
  return Metrics(facts, findings).text();
}

}  // namespace tavrix::status
