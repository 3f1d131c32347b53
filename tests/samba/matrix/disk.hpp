// SPDX-License-Identifier: LGPL-3.0-or-later
// Everything on the disk that a client could change (names, kinds, content, times, attributes), and
// the differences between two moments.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tavrix::test {

class Disk {
 public:
  struct Object {
    ino_t number = 0;
    bool is_folder = false;  // a link to one is one
    bool is_fixed = false;
    uid_t owner = 0;
    uint64_t links = 1;
    std::string stamp;     // who changed it last, as the library notes
    std::string content;   // of a file; of a link its target
    std::string leads_to;  // of a link into the tree: the path behind it
    std::string looks;    // times, attributes and extended attributes, without the library's stamps
    int64_t written = 0;  // the time of the last change of content
  };
  static Disk now(const std::string& root);

  [[nodiscard]] const Object* find(const std::string& path) const;
  [[nodiscard]] const std::map<std::string, Object>& objects() const { return objects_; }

 private:
  std::map<std::string, Object> objects_;
};

struct Change {
  enum Kind {
    kAppeared,
    kVanished,
    kRenamed,
    kWritten,
    kLooksChanged,
    kFolderStamped,  // its time says that entries changed, and none did
  } kind;
  std::string path;
  std::string to;  // of a renamed one
  bool operator==(const Change&) const = default;
};
std::string text_of(const Change& change);

// The differences of two states of the disk. Objects below a renamed folder are not listed again,
// and a folder's time may change with its entries.
std::vector<Change> changes_between(const Disk& before, const Disk& after);

}  // namespace tavrix::test
