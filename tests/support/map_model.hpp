// SPDX-License-Identifier: LGPL-3.0-or-later
// Permission maps as tests think of them: trees of folders, with a writer of the JSON pair, a
// builder of images and a lookup that share nothing with the library's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "tavrix_perms.h"

namespace tavrix::test {

struct Ace {
  uint32_t id;
  uint16_t mask;
  bool operator==(const Ace&) const = default;
};

struct Folder {
  std::string name;
  bool has_acl = true;  // false: the document leaves the ACL out; an ACL without entries inherits
  std::vector<Ace> users, groups;
  std::vector<Folder> children;
};

struct MapName {
  std::string name = "map";
  std::string version = "1";
  uint32_t generation = 7;
  int64_t timestamp = 1700000000;
};

struct Counts {
  uint32_t folders = 0;
  uint32_t aces = 0;
  uint32_t name_bytes = 0;  // one NUL a name included
};
Counts count(const Folder& root);

std::string size_json(const Counts& counts, const MapName& name = {});
std::string data_json(const Folder& root);

// The image that an import of the two documents has to make.
std::vector<std::byte> build_image(const Folder& root, const MapName& name = {});

// A copy with one to eight random bytes, about half of them where the header and the first records
// are.
std::vector<std::byte> damaged(const std::vector<std::byte>& image, std::mt19937& random);

// The entries that govern a path, as a reader of the image has them: users, then groups, each in
// document order.
struct Governing {
  struct Entry {
    e_ace_type_t type;
    Ace ace;
    bool operator==(const Entry&) const = default;
  };
  std::vector<Entry> entries;
  bool inherited = false;
  bool operator==(const Governing&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Governing& acl);
Governing naive_lookup(const Folder& root, const std::string& path);
// The same, as the library's ACL says it.
Governing governing_of(const tavrix_acl_t& acl);

// A tree of about that many folders: mixed case, extended bytes, deep here and wide there. Children
// of a folder may have names that differ in case only, or not at all, of which a lookup finds the
// first. Names of any bytes, or of UTF-8 only, which is what a document may hold.
enum class Bytes { kAny, kUtf8 };
Folder random_tree(uint32_t seed, uint32_t folders, Bytes bytes = Bytes::kAny);
// Every path of the tree, relative to the root.
std::vector<std::string> paths_of(const Folder& root);

// Makes the image the current map, as a loader does: tables, semaphores, local copy.
void publish(const std::vector<std::byte>& image);
// Writes the pair as /scratch/size.json and /scratch/data.json.
void write_json_pair(const Folder& root, const MapName& name = {});

}  // namespace tavrix::test
