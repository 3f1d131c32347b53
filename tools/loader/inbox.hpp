// SPDX-License-Identifier: LGPL-3.0-or-later
// The folder in which the synchronisation agent hands over maps.
//
//   DIR/size.json, DIR/data.json   a pair: written elsewhere on the same file system or under other
//                                  names, then renamed to these, in either order
//   DIR/.work/                     the pair that is being loaded; it stays until its map is current
//   DIR/refused/<time>/            a pair that was not loaded, and reason.txt beside it
#pragma once

#include <sys/stat.h>
#include <optional>
#include <string>

#include "internal/scoped.hpp"

namespace tavrix::loader {

struct Pair {
  std::string size, data;  // paths
};

class Inbox {
 public:
  // Keeps that many refused pairs, the newest; 0: all.
  Inbox(std::string folder, unsigned keep_refused);

  // Makes what is missing of the folders. Empty, or what stands in the way.
  std::string prepare() const;
  // A descriptor that can be read when something changed; see drain().
  [[nodiscard]] Fd watch() const;
  static void drain(const Fd& watch);

  // The pair that an earlier run had taken and not finished, if both files are still there; what is
  // left of any other is cleared.
  [[nodiscard]] std::optional<Pair> unfinished();
  // Takes a complete pair out of the folder; none when there is none. `complaint` says why one that
  // is there cannot be taken.
  [[nodiscard]] std::optional<Pair> take(std::string& complaint);
  // Sets the pair in work aside with the reason. Where; empty, and errno, when there is no room for
  // it: then it is in work still.
  std::string refuse(const Pair& pair, const std::string& reason) const;
  // Forgets what is left of a pair that was loaded.
  void finish(const Pair& pair) const;

 private:
  // A file by its content, as far as a look tells; its times change with its names.
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec changed{};
    bool operator==(const Identity& other) const;
  };
  static Identity identity_of(const std::string& path);
  [[nodiscard]] Pair in(const std::string& folder) const;
  // Takes the names of a pair that was taken out of the folder. false when one stays.
  [[nodiscard]] bool leave(const Pair& taken);
  void prune() const;

  std::string folder_, work_, refused_;
  unsigned keep_refused_;
  // A pair whose names cannot be taken away: it is loaded once, not again and again.
  std::optional<Identity> stuck_;
};

}  // namespace tavrix::loader
