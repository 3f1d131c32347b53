// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/committed.hpp"

#include <cerrno>

#include "tools/cluster/paths.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::cluster {
namespace {

using json::Json;

constexpr mode_t kMode = 0644;

void put(Json& json, const char* name, const Companion& companion) {
  if (companion.number == 0) return;
  json[name]["number"] = companion.number;
  json[name]["sha256"] = companion.digest;
}

Companion companion_in(const Json& json, const char* name) {
  if (!json.contains(name)) return {};
  return {json.at(name).at("number"), json.at(name).at("sha256")};
}

}  // namespace

Json json_of(const Sums& sums) {
  Json json;
  json["size"] = sums.size;
  json["data"] = sums.data;
  if (!sums.groups.empty()) json["groups"] = sums.groups;
  if (!sums.settings.empty()) json["settings"] = sums.settings;
  if (!sums.image.empty()) json["image"] = sums.image;
  return json;
}

Sums sums_in(const Json& json) {
  return {json.at("size"), json.at("data"), json.value("groups", std::string()),
          json.value("settings", std::string()), json.value("image", std::string())};
}

Json json_of(const Committed& committed) {
  Json json;
  json["number"] = committed.number;
  json["sha256"] = json_of(committed.sums);
  json["generation"] = committed.generation;
  json["timestamp"] = committed.timestamp;
  json["when"] = committed.when;
  json["by"] = committed.by;
  put(json, "groups", committed.groups);
  put(json, "settings", committed.settings);
  return json;
}

Committed committed_in(const Json& json) {
  Committed committed;
  committed.number = json.at("number");
  committed.sums = sums_in(json.at("sha256"));
  committed.generation = json.at("generation");
  committed.timestamp = json.at("timestamp");
  committed.when = json.at("when");
  committed.by = json.at("by");
  committed.groups = companion_in(json, "groups");
  committed.settings = companion_in(json, "settings");
  return committed;
}

std::optional<Json> read_object(const std::string& path) {
  const auto text = files::read_whole(path);
  if (!text) return std::nullopt;
  Json json = Json::parse(*text, nullptr, false);
  if (json.is_object()) return json;
  errno = EBADMSG;
  return std::nullopt;
}

bool replace_shared(const std::string& path, const Json& content, const std::string& node) {
  const std::string temporary =
      files::folder_of(path) + "/." + files::name_of(path) + "." + node + ".new";
  return files::replace_by(temporary, path, json::text_of(content) + "\n", kMode);
}

std::optional<Committed> read_committed() {
  const auto json = read_object(kCommitted);
  if (!json && errno == ENOENT) return Committed{};
  if (!json) return std::nullopt;
  try {
    return committed_in(*json);
  } catch (const Json::exception&) {
    errno = EBADMSG;
    return std::nullopt;
  }
}

bool write_committed(const Committed& committed, const std::string& node) {
  return replace_shared(kCommitted, json_of(committed), node);
}

}  // namespace tavrix::cluster
