// SPDX-License-Identifier: LGPL-3.0-or-later
// The maps of the cluster as this node has them: the one in force, and finished images of those
// that may come into force.
//
//   kPreparedFolder/current.json           the map of the cluster that this node published last
//   kPreparedFolder/NUMBER.map, .json      a finished image, and its checksums; without the second
//                                          file the first does not count
#pragma once

#include <optional>
#include <string>

#include "tools/cluster/committed.hpp"
#include "tools/cluster/proposal.hpp"

namespace tavrix::clusterd {

// The map in force on this node. Its number is 0 when it is none of the cluster: another map came
// into force here since, or none is.
struct OwnMap {
  uint32_t number = 0;
  uint32_t generation = 0;  // of any map in force; 0 without one
};
[[nodiscard]] OwnMap own_map();
// The map of the cluster that this node published last; nothing when it never did.
[[nodiscard]] std::optional<cluster::Committed> last_published();
// Notes that a map of the cluster with this image is in force here. False with errno.
[[nodiscard]] bool note_own_map(const cluster::Committed& map, const files::Digest& image);

// A finished image, with the facts that a node's answer has.
struct Prepared {
  std::string path;
  files::Digest image;
  uint32_t generation = 0;
  int64_t timestamp = 0;
};
// Nothing when this node has no image of these files.
[[nodiscard]] std::optional<Prepared> find_prepared(uint32_t number, const cluster::Sums& sums);
// Stores an image. Nothing, and with errno set, when that fails.
[[nodiscard]] std::optional<Prepared> store_prepared(uint32_t number, const cluster::Sums& sums,
                                                     std::span<const std::byte> image);
// The highest number of which there is an image; 0 without one.
[[nodiscard]] uint32_t highest_prepared();
// Removes images up to that number, and what deaths left behind.
void forget_prepared(uint32_t up_to);

}  // namespace tavrix::clusterd
