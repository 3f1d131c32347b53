// SPDX-License-Identifier: LGPL-3.0-or-later
// The map that all nodes must have. Its number only grows: a node never goes back to a lower one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/files/checksum.hpp"
#include "tools/json/document.hpp"

namespace tavrix::cluster {

// The checksums of the files that are handed over together.
struct Sums {
  files::Digest size, data;  // empty when an image came instead
  files::Digest groups;      // of the group list map; empty: none came with the map
  files::Digest settings;    // of the settings file, likewise
  files::Digest image;       // a finished map, as it comes back from the kept ones; mostly empty
  bool operator==(const Sums&) const = default;
};
[[nodiscard]] json::Json json_of(const Sums& sums);
// Throws json::Json::exception when a key is missing, as the other functions of its kind do.
[[nodiscard]] Sums sums_in(const json::Json& json);

// A file that came with a pair. It is the cluster's until another one comes, whatever pairs come
// without one: a node that was away for both gets it too.
struct Companion {
  uint32_t number = 0;  // of the pair; 0: none ever came
  files::Digest digest;
};

struct Committed {
  uint32_t number = 0;  // 0: no map was ever handed to the cluster
  Sums sums;
  uint32_t generation = 0;  // of the image
  int64_t timestamp = 0;    // of the image
  int64_t when = 0;         // seconds since 1970
  std::string by;           // the node that committed it
  Companion groups, settings;
};
[[nodiscard]] json::Json json_of(const Committed& committed);
[[nodiscard]] Committed committed_in(const json::Json& json);

// The number is 0 when there is no such file. Nothing, and with errno set, when it cannot be read;
// a file without a committed map in it counts as such (EBADMSG).
[[nodiscard]] std::optional<Committed> read_committed();
// False with errno. After a power cut the old or the new map is committed.
[[nodiscard]] bool write_committed(const Committed& committed, const std::string& node);

// Replaces a file in the shared tree, by a temporary name that no other node uses.
[[nodiscard]] bool replace_shared(const std::string& path, const json::Json& content,
                                  const std::string& node);
// A file of one JSON object. Nothing, and with errno set, when there is none.
[[nodiscard]] std::optional<json::Json> read_object(const std::string& path);

}  // namespace tavrix::cluster
