// SPDX-License-Identifier: LGPL-3.0-or-later
// Folders by a part of their name, among all of a map.
#pragma once

#include <clocale>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mapcheck/walk.hpp"

namespace tavrix::mapbrowse {

// The C library's letters of UTF-8, for this thread while it lives. The machine's locale is not
// asked: a search in a service finds what one on a terminal finds.
class Utf8Letters {
 public:
  Utf8Letters();
  ~Utf8Letters();
  Utf8Letters(const Utf8Letters&) = delete;
  Utf8Letters& operator=(const Utf8Letters&) = delete;

 private:
  locale_t letters_;
  locale_t before_ = nullptr;
};

// A text that names are searched for. The case of letters makes no difference, also of letters
// beyond ASCII.
class Wanted {
 public:
  explicit Wanted(std::string_view text);
  [[nodiscard]] bool is_in(std::string_view name) const;

 private:
  [[nodiscard]] bool is_at(const char* place) const;

  Utf8Letters letters_;
  std::string folded_;
  bool is_ascii_ = true;
  char upper_ = 0, lower_ = 0;  // the first letter of an ASCII text
};

struct Matches {
  std::vector<mapcheck::Walk::Folder> folders;  // the first `limit`, in the order of the map
  uint64_t total = 0;
};

// Looks at the name of every folder but the root: in a large map with several threads, which share
// the folders among them. 0 threads are as many as the processors and the map are worth.
[[nodiscard]] Matches search(const mapcheck::Walk& walk, const Wanted& wanted, std::size_t limit,
                             uint64_t threads = 0);

}  // namespace tavrix::mapbrowse
