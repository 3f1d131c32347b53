// SPDX-License-Identifier: LGPL-3.0-or-later
// The folder in which the synchronisation agent hands over maps.
//
//   DIR/size.json, DIR/data.json   a pair: written elsewhere on the same file system or under other
//                                  names, then renamed to these, in either order
//   DIR/groupmap                   on a node of a cluster, before the pair: the group list map that
//                                  goes to all nodes with it
//   DIR/tavrix.conf                likewise: settings for all nodes
//   DIR/.work/                     the pair that is being loaded, until its map is current or it is
//                                  put up for all nodes; "starts", which counts the runs that began
//                                  to load it; "staged": it is whole in the shared tree
//   DIR/refused/<time>/            a pair that was not loaded, and why; see refused_pairs.hpp
//   DIR/held/                      the pair of a map that waits until an operator approves it
#pragma once

#include <sys/stat.h>
#include <optional>
#include <string>

#include "internal/scoped.hpp"
#include "tools/loader/refused_pairs.hpp"

namespace tavrix::loader {

struct Pair {
  std::string size, data;  // paths
  // The paths of files that may have come with the pair, on a node of a cluster.
  std::string groups, settings;
};

class Inbox {
 public:
  // Keeps the newest `keep_refused` refused pairs; 0 keeps all. `takes_companions`: a group list
  // map and settings may come with a pair.
  Inbox(std::string folder, unsigned keep_refused, bool takes_companions = false);

  // Makes the folders that are missing. Returns an empty text, or why one cannot be made.
  std::string prepare() const;
  // Returns a descriptor that becomes readable when a file is put into the folder; drain() empties
  // it.
  [[nodiscard]] Fd watch() const;
  static void drain(const Fd& watch);

  // Returns the pair that an earlier run took and did not finish, if both files are still there.
  // Removes what else an earlier run left in the work folder.
  [[nodiscard]] std::optional<Pair> unfinished();
  // Takes a complete pair out of the folder. Returns none when there is no pair or when it cannot
  // be taken. `complaint` says why a pair cannot be taken, or why its names stay in the folder.
  [[nodiscard]] std::optional<Pair> take(std::string& complaint);
  // Counts, on the disk, that a run of the loader begins to load the pair in work. Returns how many
  // runs began before it and did not end; 0 when that cannot be known.
  unsigned note_start() const;
  // Forgets that count: the run ends by itself and leaves the pair to the next one.
  void forget_starts() const;
  // Sets the pair aside with the reason and returns the folder where it lies. Returns an empty text
  // and sets errno when it cannot be set aside; then it stays in the work folder.
  std::string refuse(const Pair& pair, const Refusal& refusal) const;
  // Puts the pair of a held map where it is not loaded again, in the place of an earlier one.
  void hold(const Pair& pair) const;
  [[nodiscard]] const std::string& held_folder() const { return held_; }
  // Notes, on the disk, that the pair in work is staged for all nodes. False with errno.
  [[nodiscard]] bool note_staged() const;
  [[nodiscard]] bool was_staged() const;
  // Removes what is left of a pair that was loaded.
  void finish(const Pair& pair) const;

 private:
  // Identifies a file and its content. Uses the time of the last write, because the time of the
  // last change moves with every name that comes or goes.
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};
    bool operator==(const Identity& other) const;
  };
  static Identity identity_of(const std::string& path);
  [[nodiscard]] Pair in(const std::string& folder) const;
  // Removes the names of a taken pair from the folder. Returns false when one stays.
  [[nodiscard]] bool leave(const Pair& taken);
  [[nodiscard]] bool take_companions(const Pair& from, const Pair& to) const;
  void prune() const;

  std::string folder_, work_, refused_, held_;
  unsigned keep_refused_;
  bool takes_companions_;
  // The data file of a pair whose names cannot be removed from the folder: such a pair is loaded
  // once, not again and again.
  std::optional<Identity> stuck_;
};

}  // namespace tavrix::loader
