// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapkeep/held.hpp"

#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include "internal/scoped.hpp"
#include "tools/files/durable.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::mapkeep {
namespace {

std::string in_folder(const char* name) { return std::string(mapload::kKeptFolder) + "/" + name; }

json::Json json_of(const HeldMap& map) {
  json::Json json;
  json["since"] = map.since;
  json["reason"] = map.reason;
  json["base"] = map.base;
  if (map.counts) json["counts"] = json_of(*map.counts);
  json["pair"] = map.pair;
  json["image"] = json_of(map.image);
  return json;
}

std::vector<std::string> content_paths() {
  return {HeldMap::image_path(), HeldMap::text_path(), HeldMap::diff_path()};
}

void remove_staged() {
  for (const std::string& path : content_paths()) static_cast<void>(files::remove(staged(path)));
}

void remove_files() {
  static_cast<void>(files::remove(HeldMap::facts_path()));
  for (const std::string& path : content_paths()) static_cast<void>(files::remove(path));
  remove_staged();
}

// The files of the difference may be missing: it can still be asked for.
bool name_staged() {
  for (const std::string& path : content_paths()) {
    static_cast<void>(files::remove(path));
    if (rename(staged(path).c_str(), path.c_str()) != 0 && errno != ENOENT) return false;
  }
  return true;
}

}  // namespace

json::Json json_of(const Counts& counts) {
  json::Json json;
  json["folders"] = counts.folders;
  json["removed"] = counts.removed;
  json["added"] = counts.added;
  json["moved"] = counts.moved;
  json["changed"] = counts.changed;
  if (counts.touched) json["users_touched"] = *counts.touched;
  if (counts.touched) json["users"] = counts.users;
  return json;
}

Counts counts_in(const json::Json& json) {
  Counts counts;
  counts.folders = json.at("folders");
  counts.removed = json.at("removed");
  counts.added = json.at("added");
  counts.moved = json.at("moved");
  counts.changed = json.at("changed");
  if (json.contains("users_touched")) counts.touched = json["users_touched"].get<uint64_t>();
  counts.users = json.value("users", uint64_t{0});
  return counts;
}

std::string staged(const std::string& path) { return path + ".next"; }

std::string HeldMap::image_path() { return in_folder("held.map"); }
std::string HeldMap::text_path() { return in_folder("held.txt"); }
std::string HeldMap::diff_path() { return in_folder("held.diff.json"); }
std::string HeldMap::facts_path() { return in_folder("held.json"); }

std::optional<HeldMap> held_map() {
  const auto text = files::read_whole(HeldMap::facts_path());
  if (!text) return std::nullopt;
  try {
    const auto json = json::Json::parse(*text);
    HeldMap map;
    map.since = json.at("since");
    map.reason = json.at("reason");
    map.base = json.at("base");
    if (json.contains("counts")) map.counts = counts_in(json["counts"]);
    map.pair = json.at("pair");
    map.image = image_facts(json.at("image"));
    return map;
  } catch (const json::Json::exception&) {
    return std::nullopt;
  }
}

bool is_map_held() { return files::exists(HeldMap::facts_path()); }

bool hold(const HeldMap& map, std::span<const std::byte> image) {
  const std::string_view content(reinterpret_cast<const char*>(image.data()), image.size());
  if (!files::replace(staged(HeldMap::image_path()), content, mapload::kPrivate)) {
    const ErrnoKeeper keep;
    remove_staged();
    return false;
  }
  const auto text = json_of(map).dump(2, ' ', false, json::Json::error_handler_t::replace) + "\n";
  // Facts of an earlier held map must not stand beside this image for a moment.
  const bool is_held = files::remove(HeldMap::facts_path()) &&
                       files::sync_folder(mapload::kKeptFolder) && name_staged() &&
                       files::replace(HeldMap::facts_path(), text, mapload::kPrivate);
  if (is_held) return true;
  const ErrnoKeeper keep;
  remove_files();
  return false;
}

bool drop_held() {
  const auto map = held_map();
  if (!is_map_held()) return false;
  remove_files();
  static_cast<void>(files::sync_folder(mapload::kKeptFolder));
  std::error_code none;
  if (map && !map->pair.empty()) std::filesystem::remove_all(map->pair, none);
  return true;
}

void clear_held_leftovers() {
  remove_staged();
  if (!is_map_held()) remove_files();
}

}  // namespace tavrix::mapkeep
