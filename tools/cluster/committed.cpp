// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/committed.hpp"

#include <cerrno>

#include "tools/cluster/paths.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::cluster {
namespace {

using json::Json;

constexpr mode_t kMode = 0644;

}  // namespace

Json json_of(const Sums& sums) {
  Json json;
  json["size"] = sums.size;
  json["data"] = sums.data;
  if (!sums.groups.empty()) json["groups"] = sums.groups;
  return json;
}

Sums sums_in(const Json& json) {
  return {json.at("size"), json.at("data"), json.value("groups", std::string())};
}

Json json_of(const Committed& committed) {
  Json json;
  json["number"] = committed.number;
  json["sha256"] = json_of(committed.sums);
  json["generation"] = committed.generation;
  json["timestamp"] = committed.timestamp;
  json["when"] = committed.when;
  json["by"] = committed.by;
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
