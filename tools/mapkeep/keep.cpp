// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapkeep/keep.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "internal/scoped.hpp"
#include "mkperms_shm.h"
#include "tavrix_getgrouplist.h"
#include "tools/files/durable.hpp"
#include "tools/mapkeep/held.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::mapkeep {
namespace {

namespace fs = std::filesystem;

bool is_lack_of_room(int error) { return error == ENOSPC || error == EDQUOT; }

// The number that a name begins with; 0 for other names.
uint32_t number_of(const std::string& name) {
  uint32_t number = 0;
  std::from_chars(name.data(), name.data() + name.size(), number);
  return number;
}

// The facts go first: without them the map does not count as kept.
void drop(const KeptMap& map) {
  for (const std::string& path :
       {map.facts_path(), map.image_path(), map.groups_path(), map.changes_path()}) {
    static_cast<void>(files::remove(path));
  }
}

// Removes what a death left behind, and returns the highest number that is in use.
uint32_t clear_leftovers(const std::vector<KeptMap>& maps) {
  uint32_t highest = maps.empty() ? 0 : maps.back().number;
  std::error_code none;
  std::vector<fs::path> left;
  for (const auto& entry : fs::directory_iterator(mapload::kKeptFolder, none)) {
    const std::string name = entry.path().filename();
    const uint32_t number = number_of(name);
    highest = std::max(highest, number);
    const bool is_kept = std::any_of(maps.begin(), maps.end(),
                                     [number](const KeptMap& map) { return map.number == number; });
    const bool is_of_death = name.ends_with(".new") || (number > 0 && !is_kept);
    if (is_of_death) left.push_back(entry.path());
  }
  for (const fs::path& path : left) static_cast<void>(files::remove(path));
  clear_held_leftovers();
  return highest;
}

bool make_folder() {
  if (mkdir(mapload::kKeptFolder, 0700) != 0) return errno == EEXIST;
  return files::sync_folder(mapload::kFolder);
}

// Gives a file a second name, or, where that is not possible, makes a second file.
bool link_or_copy(const std::string& from, const std::string& to) {
  if (link(from.c_str(), to.c_str()) == 0) return files::sync_folder_of(to);
  if (errno != EPERM && errno != EOPNOTSUPP && errno != EXDEV && errno != EMLINK) return false;
  const auto content = files::read_whole(from);
  return content && files::replace(to, *content, mapload::kPrivate);
}

// The same group list map as before takes no room.
bool keep_groups(const KeptMap& map, const KeptMap* before) {
  const auto groups = files::read_whole(TAVRIX_GROUPMAP_PATH);
  if (!groups) return false;
  if (before != nullptr && before->has_groups &&
      files::read_whole(before->groups_path()) == groups) {
    return link_or_copy(before->groups_path(), map.groups_path());
  }
  return files::replace(map.groups_path(), *groups, mapload::kPrivate);
}

std::optional<ImageFacts> facts_of_copy(const files::Digest& digest) {
  const Fd file(open(mapload::kLocalCopy, O_RDONLY | O_CLOEXEC));
  struct stat info {};
  std::byte head[sizeof(tavrix_be_header)];
  if (!file || fstat(file.get(), &info) != 0) return std::nullopt;
  if (read(file.get(), head, sizeof head) != static_cast<ssize_t>(sizeof head)) return std::nullopt;
  ImageFacts facts = facts_of(head, digest);
  facts.bytes = static_cast<uint64_t>(info.st_size);
  return facts;
}

json::Json json_of(const KeptMap& map) {
  json::Json json;
  json["number"] = map.number;
  json["since"] = map.since;
  json["how"] = map.origin.how;
  if (!map.origin.who.empty()) json["who"] = map.origin.who;
  if (map.origin.of) json["of"] = *map.origin.of;
  json["groups"] = map.has_groups;
  json["image"] = json_of(map.image);
  return json;
}

// The facts come last: from then on the map is kept.
bool add(const files::Digest& digest, const Origin& origin, const std::vector<KeptMap>& maps) {
  if (!make_folder()) return false;
  KeptMap map;
  map.number = clear_leftovers(maps) + 1;
  map.since = text::now_in_microseconds();
  map.origin = origin;
  const auto facts = facts_of_copy(digest);
  if (!facts || (origin.how == kFound && files::digest_of_file(mapload::kLocalCopy) != digest)) {
    if (facts) errno = EIO;  // a damaged copy is not the map in force
    return false;
  }
  map.image = *facts;
  map.has_groups = keep_groups(map, maps.empty() ? nullptr : &maps.back());
  const auto text = json_of(map).dump(2, ' ', false, json::Json::error_handler_t::replace) + "\n";
  if (link_or_copy(mapload::kLocalCopy, map.image_path()) &&
      files::replace(map.facts_path(), text, mapload::kPrivate)) {
    return true;
  }
  const ErrnoKeeper keep;
  drop(map);
  return false;
}

}  // namespace

bool keep_current(unsigned most, const Origin& origin, mapload::Report& report) {
  const auto mark = mapload::read_mark();
  auto maps = kept_maps();
  const bool is_new = maps.empty() || !mark || maps.back().image.digest != mark->digest;
  bool is_kept = true;
  if (mark && most > 0 && is_new && files::exists(mapload::kLocalCopy)) {
    is_kept = add(mark->digest, origin, maps);
    while (!is_kept && is_lack_of_room(errno) && give_way(report)) {
      maps = kept_maps();
      is_kept = add(mark->digest, origin, maps);
    }
    if (!is_kept) {
      report.push_back(
          {mapload::Weight::kWarning, fmt::format("the map is in force and is not kept: {}: {}",
                                                  mapload::kKeptFolder, std::strerror(errno))});
    }
    maps = kept_maps();
  }
  for (std::size_t i = 0; i + most < maps.size(); ++i) drop(maps[i]);
  return is_kept;
}

bool give_way(mapload::Report& report) {
  const auto maps = kept_maps();
  if (maps.size() < 2) return false;
  const KeptMap& oldest = maps.front();
  drop(oldest);
  report.push_back(
      {mapload::Weight::kWarning, fmt::format("kept map {} of {} went early: the disk has no room",
                                              oldest.number, text::local_time(oldest.since))});
  return true;
}

}  // namespace tavrix::mapkeep
