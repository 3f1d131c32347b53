// SPDX-License-Identifier: LGPL-3.0-or-later
// A pair on its way to all nodes, in a folder of its own:
//
//   kMapsFolder/NUMBER/size.json, data.json   the pair
//   kMapsFolder/NUMBER/image                  a finished map instead, as it comes back
//   kMapsFolder/NUMBER/groupmap               the group list map that came with it, if one did
//   kMapsFolder/NUMBER/tavrix.conf            the settings that came with it, if they did
//   kMapsFolder/NUMBER/proposal.json          who put it up, when, and the checksums of the files
//   kMapsFolder/NUMBER/prepared/NODE          that node has it as a finished image, or refuses it
//   kMapsFolder/NUMBER/refused.json           it becomes current nowhere, and why
//
// A folder is made under another name and gets its number by a rename, so a folder with a number is
// whole. Numbers are given under a lock, and a rename onto a folder that is there fails.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "tools/cluster/committed.hpp"

namespace tavrix::cluster {

// Files that may come with a pair, in its folder.
constexpr const char* kGroupsName = "groupmap";
constexpr const char* kSettingsName = "tavrix.conf";
// A file that comes instead of a pair.
constexpr const char* kImageName = "image";

struct Proposal {
  uint32_t number = 0;
  Sums sums;
  std::string node;  // whose loader put it up
  int64_t when = 0;  // seconds since 1970
  bool is_refused = false;

  [[nodiscard]] std::string size_path() const { return path("size.json"); }
  [[nodiscard]] std::string data_path() const { return path("data.json"); }
  [[nodiscard]] std::string groups_path() const { return path(kGroupsName); }
  [[nodiscard]] std::string settings_path() const { return path(kSettingsName); }
  [[nodiscard]] std::string image_path() const { return path(kImageName); }
  [[nodiscard]] std::string path(const std::string& name) const;
};
// In the order of their numbers. Nothing, and with errno set, when the folder cannot be read.
[[nodiscard]] std::optional<std::vector<Proposal>> proposals();

// A node's answer about a proposal.
struct Answer {
  std::string node;
  std::string refusal;  // empty: the node is ready
  files::Digest image;
  uint32_t generation = 0;
  int64_t timestamp = 0;
};
[[nodiscard]] bool write_answer(const Proposal& proposal, const Answer& answer);
[[nodiscard]] std::vector<Answer> answers(const Proposal& proposal);

// Both fail with errno.
[[nodiscard]] bool refuse(const Proposal& proposal, const std::string& why,
                          const std::string& node);
// Removes the folder; what a death leaves of it is removed by clear_removed().
[[nodiscard]] bool remove_proposal(uint32_t number);
void clear_removed();

// Files that are handed over together, by their paths: a pair or an image, and what comes with it.
// Empty ones do not come.
struct Files {
  std::string size, data, groups, settings, image;
};

// The last number that was given; 0 before the first. Nothing, and with errno set, when the folder
// cannot be read.
[[nodiscard]] std::optional<uint32_t> last_number();

// Puts files up as a proposal, in two steps, because the caller notes between them that the first
// is done. `slot` is the inbox that they come from: only one process at a time works for a slot.
class HandOver {
 public:
  HandOver(const std::string& slot, std::string node);

  // Copies the files under a name that is no number yet. Fails, with errno set, also where the
  // shared tree is not mounted: the files would lie under it, out of everybody's sight.
  [[nodiscard]] bool stage(const Files& files) const;
  // True until the staged files have their number.
  [[nodiscard]] bool is_staged() const;
  // Gives the staged files their number. Nothing, with errno set, when that fails. With `behind`
  // it fails when that is not the last number that was given (EAGAIN).
  [[nodiscard]] std::optional<uint32_t> give_number(std::optional<uint32_t> behind = {}) const;

 private:
  std::string folder_, node_;
};

// A lock that the nodes share; none with errno, EWOULDBLOCK when another process has it and this
// one does not wait. It goes with the process.
enum class Wait { kYes, kNo };
[[nodiscard]] Fd lock_shared(const std::string& path, Wait wait);

// Makes the folders in which the nodes meet. False with errno, also where the tree is not mounted.
[[nodiscard]] bool make_shared_folders();

}  // namespace tavrix::cluster
