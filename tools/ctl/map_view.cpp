// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_view.hpp"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "perm_map.h"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/load.hpp"

namespace tavrix::ctl {
namespace {

TableState table_state(int key) {
  TableState state{.key = key};
  state.shmid = shmget(key, 0, 0);
  struct shmid_ds info {};
  if (state.shmid == -1 || shmctl(state.shmid, IPC_STAT, &info) == -1) return state;
  state.bytes = info.shm_segsz;
  state.readers = static_cast<int>(info.shm_nattch);
  state.creator = info.shm_cpid;
  return state;
}

void complain_broken(const Image& image) {
  complain_as(code::kMapBroken, "{}: the image is broken; \"tavrixctl map verify{}\" shows why",
              image.origin(), image.table_id() ? "" : " " + image.origin());
}
std::string text_of(const char* field, std::size_t size) { return {field, strnlen(field, size)}; }

}  // namespace

MapState map_state() {
  MapState state;
  state.tables[0] = table_state(TAVRIX_PERM_TABLE0_KEY);
  state.tables[1] = table_state(TAVRIX_PERM_TABLE1_KEY);
  state.set = semget(ftok(TAVRIX_PERM_MAP_SEM_KEY_PATH, TAVRIX_PERM_MAP_SEM_KEY_ID), 0, 0);
  if (state.set == -1) return state;
  state.current = semctl(state.set, 0, GETVAL);
  state.initialized = semctl(state.set, 1, GETVAL);
  return state;
}

Fd lock_or_complain() {
  Fd lock = mapload::lock_maps();
  if (!lock) complain("cannot take the lock of the maps: {}", std::strerror(errno));
  return lock;
}

void tell(const mapload::Report& report) {
  for (const mapload::Said& said : report) complain("{}", said.text);
}

std::optional<Image> Image::current() {
  const MapState state = map_state();
  if (state.set == -1) {
    complain_as(code::kNoMap,
                "there is no map: the semaphores are missing; \"tavrixctl map import\" makes them");
    return std::nullopt;
  }
  if (state.current != 0 && state.current != 1) {
    complain("the semaphores name table {}; there are only 0 and 1", state.current);
    return std::nullopt;
  }
  const TableState& table = state.tables[state.current];
  if (table.shmid == -1) {
    complain_as(
        code::kNoMap,
        "there is no map: table {} is missing; \"tavrixctl map import\" or \"map restore\" makes "
        "one",
        state.current);
    return std::nullopt;
  }
  Image image;
  image.origin_ = fmt::format("table {}", state.current);
  image.table_.reset(shmat(table.shmid, nullptr, SHM_RDONLY));
  if (!image.table_) {
    complain("cannot attach table {}: {}", state.current, std::strerror(errno));
    return std::nullopt;
  }
  image.table_bytes_ = table.bytes;
  image.table_id_ = table.shmid;
  return image;
}

std::optional<Image> Image::file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    complain("{}: {}", path, std::strerror(errno));
    return std::nullopt;
  }
  Image image;
  image.origin_ = path;
  // A file that tells its size is read in one piece, without a second copy of a large image.
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (!error) {
    image.content_.resize(size);
    in.read(reinterpret_cast<char*>(image.content_.data()), static_cast<std::streamsize>(size));
    image.content_.resize(static_cast<std::size_t>(in.gcount()));
    return image;
  }
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  image.content_.resize(content.size());
  if (!content.empty()) std::memcpy(image.content_.data(), content.data(), content.size());
  return image;
}

std::optional<Image> Image::sound(const std::string& path) {
  auto image = path.empty() ? current() : file(path);
  if (image && mapcheck::verify(image->bytes()).errors() > 0) {
    complain_broken(*image);
    return std::nullopt;
  }
  return image;
}

std::optional<Image> Image::to_walk(const std::string& path) {
  return path.empty() ? current() : sound(path);
}

Image Image::view(std::span<const std::byte> bytes, std::string origin) {
  Image image;
  image.origin_ = std::move(origin);
  image.viewed_ = bytes;
  return image;
}

std::span<const std::byte> Image::bytes() const {
  if (!viewed_.empty()) return viewed_;
  if (imported_) return imported_.bytes();
  if (table_) return {static_cast<const std::byte*>(table_.get()), table_bytes_};
  return content_;
}

int walk_through(const Image& image, const std::function<int(const mapcheck::Walk&)>& work) {
  try {
    return work(mapcheck::Walk(image.bytes()));
  } catch (const mapcheck::Broken&) {
    complain_broken(image);
    return kFailure;
  }
}

void set_map(json::Json& json, const Image& image, const mapcheck::Walk& walk) {
  json["generation"] = uint32_t{walk.header().generationnum};
  if (image.table_id()) json["table_id"] = *image.table_id();
}

Json json_of_header(const tavrix_be_header& header) {
  Json json;
  set_bytes(json, "name", text_of(header.mapname, sizeof header.mapname));
  set_bytes(json, "version", text_of(header.version, sizeof header.version));
  json["generation"] = uint32_t{header.generationnum};
  json["timestamp"] = int64_t{header.timestamp};
  json::set_time(json, "time", header.timestamp);
  json["folders"] = uint32_t{header.total_fselems};
  json["aces"] = uint32_t{header.total_aces};
  return json;
}

}  // namespace tavrix::ctl
