// SPDX-License-Identifier: LGPL-3.0-or-later
// The map tables and images, read without changing anything.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "permissions/map/image.hpp"
#include "tools/json/document.hpp"
#include "tools/mapcheck/walk.hpp"
#include "tools/mapload/private_import.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::ctl {

struct TableState {
  int key;
  int shmid = -1;  // -1: there is no such table
  uint64_t bytes = 0;
  int readers = 0;
  int creator = 0;  // its process id
};

struct MapState {
  int set = -1;  // the semaphore set; -1: there is none
  int current = -1;
  int initialized = -1;
  TableState tables[2];
};
MapState map_state();

// Takes the lock of the maps. Complains and returns no descriptor when that fails.
Fd lock_or_complain();
// Prints the messages of a load on standard error.
void tell(const mapload::Report& report);

// An image: the current table, a file, or two files imported for this process alone.
class Image {
 public:
  Image(mapload::SharedMemory imported, std::string origin)
      : origin_(std::move(origin)), imported_(std::move(imported)) {}
  // These two complain and return nothing when there is no image.
  static std::optional<Image> current();
  static std::optional<Image> file(const std::string& path);
  // The file, or the current table when the path is empty. The image is verified first, so that the
  // library may be asked about it.
  static std::optional<Image> sound(const std::string& path);
  // The same for walk_through(). A file is verified first; of the current table, which may be
  // large, the walk checks what it reads.
  static std::optional<Image> to_walk(const std::string& path);

  // An image in memory that somebody else has, and keeps for longer.
  static Image view(std::span<const std::byte> bytes, std::string origin);

  [[nodiscard]] std::span<const std::byte> bytes() const;
  [[nodiscard]] const std::string& origin() const { return origin_; }
  // The kernel's number of the table, by which a reader of several answers sees that the map is
  // another one. Nothing for an image that is no table.
  [[nodiscard]] std::optional<int> table_id() const { return table_id_; }

 private:
  Image() = default;
  std::string origin_;
  mapload::SharedMemory imported_;
  ShmAttachment table_;
  std::size_t table_bytes_ = 0;
  std::optional<int> table_id_;
  std::vector<std::byte> content_;
  std::span<const std::byte> viewed_;
};

// Does work that walks through the image. Complains when the image is broken where the work looks.
int walk_through(const Image& image, const std::function<int(const mapcheck::Walk&)>& work);

// Adds what tells maps apart: "generation", and "table_id" for the current table.
void set_map(json::Json& json, const Image& image, const mapcheck::Walk& walk);
// The header of an image for the documents of --json.
json::Json json_of_header(const tavrix_be_header& header);

}  // namespace tavrix::ctl
