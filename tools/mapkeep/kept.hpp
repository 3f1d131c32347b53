// SPDX-License-Identifier: LGPL-3.0-or-later
// The maps that were in force and are kept: for a way back, for a comparison, and for questions
// about a time that is past.
//
//   /etc/tavrix/maps/N.map       the image, byte for byte
//   /etc/tavrix/maps/N.json      its facts; without this file the map does not count as kept
//   /etc/tavrix/maps/N.groups    the group list map at the time when the map came into force
//   /etc/tavrix/maps/N.changes   what it changed, once somebody has asked
//
// Numbers only grow. The image is a second name of the local copy where the file system has hard
// links: nothing of ours writes into a copy that has content.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/files/checksum.hpp"
#include "tools/json/document.hpp"

namespace tavrix::mapkeep {

// The header of an image, and its content's checksum.
struct ImageFacts {
  std::string name, version;
  uint32_t generation = 0;
  int64_t timestamp = 0;
  uint32_t folders = 0, entries = 0;
  uint64_t bytes = 0;
  files::Digest digest;
};
// `bytes` has at least a header.
[[nodiscard]] ImageFacts facts_of(std::span<const std::byte> bytes, files::Digest digest);
[[nodiscard]] json::Json json_of(const ImageFacts& facts);
// Throws json::Json::exception when a key is missing.
[[nodiscard]] ImageFacts image_facts(const json::Json& json);

// How a map came into force.
struct Origin {
  std::string how;             // one of the words below
  std::string who;             // the operator; empty for a service
  std::optional<uint32_t> of;  // the kept map that came back
};
constexpr const char* kByLoader = "loader";
constexpr const char* kByImport = "import";
constexpr const char* kByRestore = "restore";
constexpr const char* kByRollback = "rollback";
constexpr const char* kByApproval = "approval";
constexpr const char* kByCluster = "cluster";
constexpr const char* kFound = "found";  // it was in force before somebody could keep it

struct KeptMap {
  uint32_t number = 0;
  int64_t since = 0;  // microseconds since 1970
  Origin origin;
  ImageFacts image;
  bool has_groups = false;

  [[nodiscard]] std::string image_path() const { return path("map"); }
  [[nodiscard]] std::string facts_path() const { return path("json"); }
  [[nodiscard]] std::string groups_path() const { return path("groups"); }
  [[nodiscard]] std::string changes_path() const { return path("changes"); }

 private:
  [[nodiscard]] std::string path(const char* end) const;
};

// The oldest first. Sets `error` to an errno when the folder is there and cannot be read.
[[nodiscard]] std::vector<KeptMap> kept_maps(int& error);
[[nodiscard]] std::vector<KeptMap> kept_maps();

// The map in force at a time, in microseconds since 1970: its place in the list; nothing when the
// oldest came later.
[[nodiscard]] std::optional<std::size_t> in_force_at(const std::vector<KeptMap>& maps,
                                                     int64_t time);

// "by the loader", "rolled back to map 3 by anna".
[[nodiscard]] std::string text_of(const Origin& origin);

}  // namespace tavrix::mapkeep
