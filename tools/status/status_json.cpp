// SPDX-License-Identifier: LGPL-3.0-or-later
// The document of "tavrixctl --json status"; docs/json/status.schema.json describes it.

#include "tools/status/report.hpp"

namespace tavrix::status {
namespace {

using json::Json;
using json::set_bytes;
using json::set_time;

void set_time(Json& object, const std::string& key, const std::optional<int64_t>& time) {
  if (time) json::set_time(object, key, *time);
}
template <typename Value>
void set(Json& object, const std::string& key, const std::optional<Value>& value) {
  if (value) object[key] = *value;
}

Json list_of(const std::vector<std::string>& texts) {
  Json list = Json::array();
  for (const std::string& text : texts) list.push_back(text);
  return list;
}

Json json_of(const Settings& settings) {
  Json json;
  json["loaded"] = settings.is_loaded;
  set_bytes(json, "file", settings.file);
  json["file_exists"] = settings.has_file;
  set_time(json, "read", settings.read_at);
  json["degraded"] = !settings.mistakes.empty();
  json["mistakes"] = list_of(settings.mistakes);
  json["wrong_service_values"] = list_of(settings.wrong_service_values);
  json["differing"] = list_of(settings.differing);
  json["pattern_findings"] = list_of(settings.complaints);
  if (settings.is_loaded) json["flushing"] = !settings.is_flush_disabled;
  if (settings.is_loaded) json["flush_period_seconds"] = settings.flush_period;
  return json;
}

Json json_of(const Segment& segment) {
  Json json;
  json["exists"] = segment.exists();
  if (!segment.exists()) return json;
  json["bytes"] = segment.bytes;
  json["attached"] = segment.attached;
  set_time(json, "made", segment.created);
  json["creator"] = segment.creator;
  return json;
}

Json json_of(const Header& header) {
  Json json;
  set_bytes(json, "name", header.name);
  set_bytes(json, "version", header.version);
  json["generation"] = header.generation;
  json["timestamp"] = header.timestamp;
  set_time(json, "time", header.timestamp);
  json["folders"] = header.folders;
  json["aces"] = header.entries;
  return json;
}

Json json_of(const Inbox& inbox) {
  Json json;
  set_bytes(json, "folder", inbox.folder);
  json["readable"] = inbox.is_readable;
  set_time(json, "waits_since", inbox.waits_since);
  set_time(json, "in_work_since", inbox.in_work_since);
  json["refused"] = inbox.refused;
  set_time(json, "last_refused", inbox.last_refused);
  if (!inbox.last_reason.empty()) set_bytes(json, "last_reason", inbox.last_reason);
  return json;
}

Json json_of(const KeptMaps& kept) {
  Json json;
  json["readable"] = kept.is_readable;
  json["count"] = kept.count;
  json["bytes"] = kept.bytes;
  set_time(json, "oldest", kept.oldest);
  set_time(json, "held_since", kept.held_since);
  if (kept.held_since) set_bytes(json, "held_reason", kept.held_reason);
  return json;
}

Json json_of(const Map& map) {
  Json json;
  json["semaphores"] = map.has_set;
  set(json, "current", map.current);
  if (map.initialized) json["initialized"] = *map.initialized == 1;
  json["tables"] = {json_of(map.tables[0]), json_of(map.tables[1])};
  if (map.header) json["map"] = json_of(*map.header);
  set(json, "published_table", map.marked);
  json["importing"] = map.is_import_running;
  json["local_copy"] = map.has_copy;
  set(json, "local_copy_equal", map.is_copy_equal);
  json["inbox"] = json_of(map.inbox);
  json["kept"] = json_of(map.kept);
  return json;
}

Json json_of(const Groups& groups) {
  Json json;
  json["exists"] = groups.exists;
  set_time(json, "written", groups.written);
  set(json, "users", groups.users);
  set(json, "reserved_groups", groups.reserved);
  json["errors"] = groups.errors;
  switch (groups.checksum) {
    case Groups::Checksum::kMatches:
      json["checksum"] = "matches";
      break;
    case Groups::Checksum::kDiffers:
      json["checksum"] = "differs";
      break;
    case Groups::Checksum::kMissing:
      json["checksum"] = "missing";
      break;
    case Groups::Checksum::kUnknown:
      break;
  }
  return json;
}

Json json_of(const std::vector<Process>& processes) {
  Json list = Json::array();
  for (const Process& process : processes) {
    Json json;
    json["pid"] = process.pid;
    set_bytes(json, "name", process.name);
    list.push_back(std::move(json));
  }
  return list;
}

Json json_of(const Service& service) {
  Json json;
  json["name"] = service.name;
  json["running"] = !service.processes.empty();
  if (!service.processes.empty()) json["pid"] = service.processes.front().pid;
  set_time(json, "since", service.since);
  set_time(json, "last_work", service.last_work);
  if (!service.last_words.empty()) set_bytes(json, "last_words", service.last_words);
  return json;
}

Json json_of(const Buffer& buffer) {
  Json json;
  json["exists"] = buffer.exists;
  json["sound"] = buffer.is_sound;
  json["bytes"] = buffer.bytes;
  json["used"] = buffer.used;
  json["threshold"] = buffer.threshold;
  json["records"] = buffer.records;
  set_time(json, "oldest", buffer.oldest);
  json["semaphore"] = buffer.has_semaphore;
  if (!buffer.has_semaphore) return json;
  json["semaphore_free"] = buffer.is_free;
  json["last_process"] = buffer.holder;
  json["waiting"] = buffer.waiting;
  return json;
}

Json json_of(const Dumps& dumps) {
  Json json;
  set_bytes(json, "folder", dumps.folder);
  json["readable"] = dumps.is_readable;
  json["count"] = dumps.count;
  json["bytes"] = dumps.bytes;
  set_time(json, "oldest", dumps.oldest);
  json["set_aside"] = dumps.set_aside;
  return json;
}

Json json_of(const Cluster& cluster) {
  Json json;
  json["node"] = cluster.node;
  json["nodes"] = Json::array();
  for (const NodeDumps& dumps : cluster.nodes) {
    json["nodes"].push_back({{"node", dumps.node},
                             {"events", json_of(dumps.events)},
                             {"audits", json_of(dumps.audits)}});
  }
  return json;
}

Json json_of(const History& history) {
  Json json;
  set_bytes(json, "folder", history.folder);
  json["on"] = history.is_on;
  json["waiting"] = history.waiting;
  json["bytes"] = history.bytes;
  set_time(json, "oldest", history.oldest);
  json["refused"] = history.refused;
  set_bytes(json, "database", history.database);
  set(json, "database_bytes", history.database_bytes);
  return json;
}

Json json_of(const Alarm& alarm) {
  Json json;
  json["name"] = alarm.name;
  json["path"] = alarm.path;
  set(json, "raised", alarm.is_raised);
  set_time(json, "since", alarm.since);
  if (!alarm.reason.empty()) set_bytes(json, "reason", alarm.reason);
  return json;
}

Json json_of(const Disk& disk) {
  Json json;
  set_bytes(json, "folder", disk.folder);
  json["purpose"] = disk.purpose;
  json["bytes"] = disk.bytes;
  json["free"] = disk.free;
  json["needed"] = disk.needed;
  json["files"] = disk.files;
  json["files_free"] = disk.files_free;
  return json;
}

Json json_of(const Connections& connections) {
  Json json;
  set(json, "server_processes", connections.count);
  json["earlier_maps"] = Json::array();
  for (const Pinned& pinned : connections.pinned) {
    Json entry;
    entry["bytes"] = pinned.segment.bytes;
    entry["attached"] = pinned.segment.attached;
    set_time(entry, "made", pinned.segment.created);
    if (pinned.holders) entry["processes"] = json_of(*pinned.holders);
    json["earlier_maps"].push_back(std::move(entry));
  }
  return json;
}

Json json_of(const HugePages& pages) {
  Json json = Json::object();
  if (!pages.setting.empty()) json["setting"] = pages.setting;
  if (pages.used) json["used_bytes"] = *pages.used;
  return json;
}

Json json_of(const Versions& versions) {
  Json json;
  json["tools"] = versions.tools;
  if (!versions.library.empty()) json["library"] = versions.library;
  json["module"] = versions.has_module;
  if (!versions.module_samba.empty()) json["module_samba"] = versions.module_samba;
  if (!versions.samba.empty()) json["samba"] = versions.samba;
  return json;
}

Json json_of(const Unread& unread) {
  return {{"topic", unread.topic}, {"what", unread.what}, {"why", unread.why}};
}

template <typename Items>
Json all_of(const Items& items) {
  Json list = Json::array();
  for (const auto& item : items) list.push_back(json_of(item));
  return list;
}

}  // namespace

Json json_of(const std::vector<Finding>& findings) {
  Json list = Json::array();
  for (const Finding& finding : findings) {
    Json json;
    json["level"] = name_of(finding.level);
    json["id"] = finding.id;
    set_bytes(json, "sentence", finding.sentence);
    set_bytes(json, "advice", finding.advice);
    list.push_back(std::move(json));
  }
  return list;
}

Json json_of(const Facts& facts, const std::vector<Finding>& findings) {
  Json json = json::document("status");
  set_time(json, "time", facts.now);
  json["level"] = name_of(worst(findings));
  json["findings"] = json_of(findings);
  json["settings"] = json_of(facts.settings);
  json["map"] = json_of(facts.map);
  json["groups"] = json_of(facts.groups);
  json["services"] = all_of(facts.services);
  json["buffer"] = json_of(facts.buffer);
  json["events"] = json_of(facts.events);
  json["audits"] = json_of(facts.audits);
  if (facts.cluster) json["cluster"] = json_of(*facts.cluster);
  if (facts.history) json["history"] = json_of(*facts.history);
  json["alarms"] = all_of(facts.alarms);
  json["disks"] = all_of(facts.disks);
  json["connections"] = json_of(facts.connections);
  json["huge_pages"] = json_of(facts.huge_pages);
  json["versions"] = json_of(facts.versions);
  json["unread"] = all_of(facts.unread);
  return json;
}

}  // namespace tavrix::status
