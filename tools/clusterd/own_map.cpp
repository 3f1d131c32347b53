// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/own_map.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "mkperms_shm.h"
#include "tools/cluster/paths.hpp"
#include "tools/files/durable.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/tables.hpp"

namespace tavrix::clusterd {
namespace {

namespace fs = std::filesystem;
using cluster::read_object;
using json::Json;

const std::string kFolder = cluster::kPreparedFolder;
const std::string kRecord = cluster::kPublished;

std::string path_of(uint32_t number, const char* end) {
  return fmt::format("{}/{}.{}", kFolder, number, end);
}

bool make_folder() {
  if (mkdir(kFolder.c_str(), 0700) != 0) return errno == EEXIST;
  return files::sync_folder_of(kFolder);
}

bool put(const std::string& path, const Json& json) {
  return files::replace(path, json::text_of(json) + "\n", mapload::kPrivate);
}

// The mark of the published map, if its table is the current one.
std::optional<mapload::Mark> mark_in_force() {
  auto mark = mapload::read_mark();
  if (!mark) return std::nullopt;
  const mapload::Tables tables = mapload::look_at_tables();
  const bool is_in_force = tables.error == 0 && tables.current == mark->table &&
                           mark->is(mark->table, tables.table[mark->table]) &&
                           files::exists(mapload::kLocalCopy);
  return is_in_force ? mark : std::nullopt;
}

uint32_t number_of(const std::string& name) {
  uint32_t number = 0;
  std::from_chars(name.data(), name.data() + name.size(), number);
  return number;
}

template <typename Each>
void for_each_file(Each each) {
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(kFolder, none)) {
    each(entry.path().filename().string(), entry.path().string());
  }
}

}  // namespace

OwnMap own_map() {
  const auto mark = mark_in_force();
  if (!mark) return {};
  OwnMap own{0, mark->generation};
  const auto record = read_object(kRecord);
  if (!record || record->value("image", std::string()) != mark->digest) return own;
  own.number = record->value("number", 0U);
  return own;
}

std::optional<cluster::Committed> last_published() {
  const auto record = read_object(kRecord);
  if (!record) return std::nullopt;
  try {
    return cluster::committed_in(*record);
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

bool note_own_map(const cluster::Committed& map, const files::Digest& image) {
  Json json = cluster::json_of(map);
  json["image"] = image;
  return make_folder() && put(kRecord, json);
}

std::optional<Prepared> find_prepared(uint32_t number, const cluster::Sums& sums) {
  const auto json = read_object(path_of(number, "json"));
  if (!json) return std::nullopt;
  try {
    if (cluster::sums_in(json->at("sha256")) != sums) return std::nullopt;
    Prepared prepared{path_of(number, "map"), json->at("image"), json->at("generation"),
                      json->at("timestamp")};
    if (!files::exists(prepared.path)) return std::nullopt;
    return prepared;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

// The facts come last: with them the image counts.
std::optional<Prepared> store_prepared(uint32_t number, const cluster::Sums& sums,
                                       std::span<const std::byte> image) {
  tavrix_be_header header{};
  std::memcpy(&header, image.data(), std::min(image.size(), sizeof header));
  const Prepared prepared{path_of(number, "map"), files::digest_of(image), header.generationnum,
                          header.timestamp};
  Json json;
  json["sha256"] = cluster::json_of(sums);
  json["image"] = prepared.image;
  json["generation"] = prepared.generation;
  json["timestamp"] = prepared.timestamp;
  const std::string_view bytes(reinterpret_cast<const char*>(image.data()), image.size());
  if (!make_folder() || !files::remove(path_of(number, "json")) ||
      !files::replace(prepared.path, bytes, mapload::kPrivate) ||
      !put(path_of(number, "json"), json)) {
    return std::nullopt;
  }
  return prepared;
}

uint32_t highest_prepared() {
  uint32_t highest = 0;
  for_each_file([&](const std::string& name, const std::string&) {
    if (name.ends_with(".json")) highest = std::max(highest, number_of(name));
  });
  return highest;
}

void forget_prepared(uint32_t up_to) {
  std::vector<std::string> old;
  for_each_file([&](const std::string& name, const std::string& path) {
    const uint32_t number = number_of(name);
    const bool is_old = number > 0 && number <= up_to;
    if (is_old || name.ends_with(".new")) old.push_back(path);
  });
  for (const std::string& path : old) static_cast<void>(files::remove(path));
}

}  // namespace tavrix::clusterd
