// The folder in which the synchronisation agent hands over maps.
//
//   DIR/size.json, DIR/data.json   a pair: written elsewhere on the same file system or under other
//                                  names, then renamed to these, in either order
//   DIR/.work/                     the pair that is being loaded
//   DIR/refused/<time>/            a pair that was not loaded, and reason.txt beside it
#pragma once

#include <optional>
#include <string>

#include "internal/scoped.hpp"

namespace tavrix::loader {

struct Pair {
  std::string size, data;  // paths
};

class Inbox {
 public:
  explicit Inbox(std::string folder);

  // Makes what is missing of the folders. Empty, or what stands in the way.
  std::string prepare() const;
  // A descriptor that can be read when something changed; see changed().
  [[nodiscard]] Fd watch() const;
  static void drain(const Fd& watch);

  // The pair that an earlier run had taken and not finished, if both files are still there; what is
  // left of any other is cleared.
  [[nodiscard]] std::optional<Pair> unfinished() const;
  // Takes a complete pair out of the folder; none when there is none.
  [[nodiscard]] std::optional<Pair> take() const;
  // Sets a pair aside with the reason; returns where.
  std::string refuse(const Pair& pair, const std::string& reason) const;
  // Forgets what is left of a pair that was loaded.
  void finish(const Pair& pair) const;

 private:
  [[nodiscard]] Pair in(const std::string& folder) const;
  // Takes the names of a pair that was taken out of the folder.
  void leave(const Pair& taken) const;
  std::string folder_, work_, refused_;
};

}  // namespace tavrix::loader
