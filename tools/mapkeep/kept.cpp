// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapkeep/kept.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "mkperms_shm.h"
#include "tools/files/durable.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::mapkeep {
namespace {

namespace fs = std::filesystem;

std::string text_in(const char* field, std::size_t size) { return {field, strnlen(field, size)}; }

// Nothing when the file is no whole document: the map was not kept to the end.
std::optional<KeptMap> read_facts(const std::string& path) {
  const auto text = files::read_whole(path);
  if (!text) return std::nullopt;
  try {
    const auto json = json::Json::parse(*text);
    KeptMap map;
    map.number = json.at("number");
    map.since = json.at("since");
    map.origin.how = json.at("how");
    map.origin.who = json.value("who", "");
    if (json.contains("of")) map.origin.of = json["of"].get<uint32_t>();
    map.has_groups = json.at("groups");
    map.image = image_facts(json.at("image"));
    return map;
  } catch (const json::Json::exception&) {
    return std::nullopt;
  }
}

}  // namespace

ImageFacts facts_of(std::span<const std::byte> bytes, files::Digest digest) {
  tavrix_be_header header{};
  std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  return {text_in(header.mapname, sizeof header.mapname),
          text_in(header.version, sizeof header.version),
          header.generationnum,
          header.timestamp,
          header.total_fselems,
          header.total_aces,
          bytes.size(),
          std::move(digest)};
}

json::Json json_of(const ImageFacts& facts) {
  json::Json json;
  json::set_bytes(json, "name", facts.name);
  json::set_bytes(json, "version", facts.version);
  json["generation"] = facts.generation;
  json["timestamp"] = facts.timestamp;
  json::set_time(json, "time", facts.timestamp);
  json["folders"] = facts.folders;
  json["aces"] = facts.entries;
  json["bytes"] = facts.bytes;
  json["sha256"] = facts.digest;
  return json;
}

ImageFacts image_facts(const json::Json& json) {
  return {json.at("name"),    json.at("version"), json.at("generation"), json.at("timestamp"),
          json.at("folders"), json.at("aces"),    json.at("bytes"),      json.at("sha256")};
}

std::string KeptMap::path(const char* end) const {
  return fmt::format("{}/{}.{}", mapload::kKeptFolder, number, end);
}

std::vector<KeptMap> kept_maps(int& error) {
  std::vector<KeptMap> maps;
  std::error_code failure;
  for (const auto& entry : fs::directory_iterator(mapload::kKeptFolder, failure)) {
    const std::string name = entry.path().filename();
    uint32_t number = 0;
    const auto [end, wrong] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (wrong != std::errc{} || std::string_view(end) != ".json") continue;
    auto map = read_facts(entry.path());
    if (map && map->number == number && files::exists(map->image_path())) {
      maps.push_back(std::move(*map));
    }
  }
  error = failure.value() == ENOENT ? 0 : failure.value();
  std::sort(maps.begin(), maps.end(),
            [](const KeptMap& a, const KeptMap& b) { return a.number < b.number; });
  return maps;
}

std::vector<KeptMap> kept_maps() {
  int none = 0;
  return kept_maps(none);
}

std::optional<std::size_t> in_force_at(const std::vector<KeptMap>& maps, int64_t time) {
  // By number, not by time: a clock that was put back must not hide a later map.
  for (std::size_t i = maps.size(); i > 0; --i) {
    if (maps[i - 1].since <= time) return i - 1;
  }
  return std::nullopt;
}

std::string text_of(const Origin& origin) {
  const std::string who = origin.who.empty() ? "" : " by " + origin.who;
  if (origin.how == kByLoader) return "by the loader";
  if (origin.how == kByCluster) return "by the cluster";
  if (origin.how == kByImport) return "imported" + who;
  if (origin.how == kByRestore) return "restored" + who;
  if (origin.how == kByApproval) return "approved" + who;
  if (origin.how == kFound) return "found in force";
  return fmt::format("rolled back to map {}{}", origin.of.value_or(0), who);
}

}  // namespace tavrix::mapkeep
