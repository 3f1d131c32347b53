// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/map_model.hpp"

#include <sys/shm.h>
#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <stdexcept>

#include "perm_map.h"
#include "tests/support/files.hpp"

namespace tavrix::test {
namespace {

constexpr uint32_t kHeaderSize = 176;
constexpr uint32_t kFolderSize = 24;
constexpr uint32_t kNameHead = 12;
constexpr uint32_t kAclHead = 8;
constexpr uint32_t kAceSize = 12;
constexpr uint32_t kListHead = 12;

// --- JSON ---------------------------------------------------------------------------------------

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + "\"";
}

std::string id_map(const std::vector<Ace>& aces) {
  std::string text = "{";
  for (const Ace& ace : aces) {
    if (text.size() > 1) text += ", ";
    text += quoted(std::to_string(ace.id)) + ": " + std::to_string(ace.mask);
  }
  return text + "}";
}

void write_folder(const Folder& folder, std::ostream& out) {
  out << "{\"DIR\": " << quoted(folder.name);
  if (folder.has_acl) {
    out << ", \"ACL\": [{\"NUMUSERS\": " << folder.users.size()
        << "}, {\"NUMGROUPS\": " << folder.groups.size()
        << "}, {\"USERS\": " << id_map(folder.users) << "}, {\"GROUPS\": " << id_map(folder.groups)
        << "}]";
  }
  out << ", \"CHILDREN\": [{\"NUMCHILDREN\": " << folder.children.size() << "}";
  for (const Folder& child : folder.children) {
    out << ",\n";
    write_folder(child, out);
  }
  out << "]}";
}

// --- images -------------------------------------------------------------------------------------

class Image {
 public:
  explicit Image(std::size_t size) : bytes_(size) {}
  template <typename T>
  void put(std::size_t at, T value) {
    std::memcpy(&bytes_.at(at), &value, sizeof value);
  }
  void put_text(std::size_t at, const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) bytes_.at(at + i) = std::byte(text[i]);
  }
  std::vector<std::byte> take() { return std::move(bytes_); }

 private:
  std::vector<std::byte> bytes_;
};

uint32_t name_hash(const std::string& name) {
  uint32_t hash = 0;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) continue;
    hash += static_cast<uint32_t>(std::toupper(byte));
    hash += hash << 10;
    hash ^= hash >> 6;
  }
  hash += hash << 3;
  hash ^= hash >> 11;
  hash += hash << 15;
  return hash;
}

class Builder {
 public:
  Builder(const Folder& root, const MapName& name)
      : counts_(count(root)),
        names_at_(kHeaderSize + kFolderSize * counts_.folders),
        acls_at_(names_at_ + counts_.name_bytes + kNameHead * counts_.folders),
        lists_at_(acls_at_ + kAceSize * counts_.aces + kAclHead * counts_.folders),
        size_(lists_at_ + (kListHead + 4) * counts_.folders),
        image_(size_) {
    // The array around the root reserves a list of one, which the root's own replaces.
    next_folder_ = kFolderSize;
    put_list_head(0, 1);
    next_list_ = kListHead + 4;
    add(root, 0, 0xFFFFFFFEU);
    put_header(name);
  }
  std::vector<std::byte> take() { return image_.take(); }

 private:
  void add(const Folder& folder, uint32_t at, uint32_t parent) {
    const bool is_root = parent == 0xFFFFFFFEU;
    const uint32_t name_at = next_name_;
    put_name(folder.name);
    const uint32_t acl_at = folder.has_acl ? next_acl_ : 0;
    if (folder.has_acl) put_acl(folder);
    const bool is_leaf = folder.children.empty();
    const uint32_t list_at = is_leaf ? 0 : next_list_;
    const auto children = static_cast<uint32_t>(folder.children.size());
    if (!is_leaf) {
      put_list_head(list_at, children);
      next_list_ += kListHead + 4 * children;
    }
    const std::size_t record = kHeaderSize + at;
    image_.put<uint32_t>(record, 0x67896789U);
    image_.put<uint32_t>(record + 4, parent);
    image_.put<uint32_t>(record + 8, name_at);
    image_.put<uint32_t>(record + 12, list_at);
    image_.put<uint32_t>(record + 16, acl_at);
    image_.put<uint32_t>(record + 20, (is_root ? 1U : 0U) | (is_leaf ? 2U : 0U));
    for (uint32_t slot = 0; slot < children; ++slot) {
      const uint32_t child_at = next_folder_;
      next_folder_ += kFolderSize;
      image_.put<uint32_t>(lists_at_ + list_at + kListHead + 4 * slot, child_at);
      image_.put<uint32_t>(lists_at_ + list_at + 8, slot + 1);
      add(folder.children[slot], child_at, at);
    }
  }

  void put_name(const std::string& name) {
    const std::size_t at = names_at_ + next_name_;
    image_.put<uint16_t>(at, static_cast<uint16_t>(name.size()));
    image_.put<uint32_t>(at + 4, 0xABCDABCDU);
    image_.put<uint32_t>(at + 8, name_hash(name));
    image_.put_text(at + kNameHead, name);
    next_name_ += kNameHead + static_cast<uint32_t>(name.size()) + 1;
  }

  void put_acl(const Folder& folder) {
    std::vector<std::pair<uint32_t, Ace>> entries;
    for (const Ace& ace : folder.users) entries.emplace_back(1U, ace);
    for (const Ace& ace : folder.groups) entries.emplace_back(2U, ace);
    std::reverse(entries.begin(), entries.end());
    std::size_t at = acls_at_ + next_acl_;
    image_.put<uint32_t>(at, 0xCDEFCDEFU);
    image_.put<uint32_t>(at + 4, static_cast<uint32_t>(entries.size()));
    at += kAclHead;
    for (const auto& [type, ace] : entries) {
      image_.put<uint32_t>(at, type);
      image_.put<uint32_t>(at + 4, ace.id);
      image_.put<uint16_t>(at + 8, ace.mask);
      at += kAceSize;
    }
    next_acl_ += kAclHead + kAceSize * static_cast<uint32_t>(entries.size());
  }

  void put_list_head(uint32_t at, uint32_t children) {
    image_.put<uint32_t>(lists_at_ + at, 0x789A789AU);
    image_.put<uint32_t>(lists_at_ + at + 4, children);
  }

  void put_header(const MapName& name) {
    image_.put_text(0, name.name);
    image_.put_text(32, name.version);
    image_.put<uint32_t>(100, name.generation);
    image_.put<int64_t>(104, name.timestamp);
    const uint32_t fields[] = {counts_.folders,
                               counts_.aces,
                               0,
                               kHeaderSize,
                               kFolderSize * counts_.folders,
                               next_folder_,
                               names_at_,
                               acls_at_ - names_at_,
                               next_name_,
                               acls_at_,
                               lists_at_ - acls_at_,
                               next_acl_,
                               lists_at_,
                               size_ - lists_at_,
                               next_list_,
                               0x1EA78EAFU};
    std::size_t at = 112;
    for (const uint32_t field : fields) {
      image_.put(at, field);
      at += 4;
    }
  }

  Counts counts_;
  uint32_t names_at_, acls_at_, lists_at_, size_;
  Image image_;
  uint32_t next_folder_ = 0, next_name_ = 0, next_acl_ = 0, next_list_ = 0;
};

// --- lookup -------------------------------------------------------------------------------------

std::string folded(std::string name) {
  for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

std::string in_other_case(std::string name) {
  for (char& c : name) {
    if (std::isalpha(static_cast<unsigned char>(c)) != 0) c = static_cast<char>(c ^ 0x20);
  }
  return name;
}

const Folder* child_named(const Folder& folder, const std::string& name) {
  const auto found =
      std::find_if(folder.children.begin(), folder.children.end(),
                   [&](const Folder& child) { return folded(child.name) == folded(name); });
  return found == folder.children.end() ? nullptr : &*found;
}

void collect_paths(const Folder& folder, const std::string& prefix, std::vector<std::string>& all) {
  for (const Folder& child : folder.children) {
    const std::string path = prefix.empty() ? child.name : prefix + "/" + child.name;
    all.push_back(path);
    collect_paths(child, path, all);
  }
}

}  // namespace

Counts count(const Folder& root) {
  Counts counts{1, static_cast<uint32_t>(root.users.size() + root.groups.size()),
                static_cast<uint32_t>(root.name.size() + 1)};
  if (!root.has_acl) counts.aces = 0;
  for (const Folder& child : root.children) {
    const Counts below = count(child);
    counts.folders += below.folders;
    counts.aces += below.aces;
    counts.name_bytes += below.name_bytes;
  }
  return counts;
}

std::string size_json(const Counts& counts, const MapName& name) {
  std::ostringstream out;
  out << "{\"MAPNAME\": " << quoted(name.name) << ", \"VERSION\": " << quoted(name.version)
      << ", \"GENERATIONNUM\": " << name.generation << ", \"TIMESTAMP\": " << name.timestamp
      << ", \"TOTALFSELEMS\": " << counts.folders << ", \"TOTALACES\": " << counts.aces
      << ", \"TOTALNAMELEN\": " << counts.name_bytes << "}\n";
  return out.str();
}

std::string data_json(const Folder& root) {
  std::ostringstream out;
  out << "[{\"NUMCHILDREN\": 1},\n";
  write_folder(root, out);
  out << "]\n";
  return out.str();
}

std::vector<std::byte> build_image(const Folder& root, const MapName& name) {
  return Builder(root, name).take();
}

std::vector<std::byte> damaged(const std::vector<std::byte>& image, std::mt19937& random) {
  constexpr std::size_t kFront = 400;
  std::vector<std::byte> result = image;
  for (int changes = static_cast<int>(random() % 8) + 1; changes > 0; --changes) {
    const std::size_t at = random() % 2 == 0 ? random() % kFront : random() % result.size();
    result[at] = static_cast<std::byte>(random());
  }
  return result;
}

std::ostream& operator<<(std::ostream& out, const Governing& acl) {
  out << (acl.inherited ? "inherited" : "explicit");
  for (const auto& entry : acl.entries) {
    out << (entry.type == ACE_TYPE_USER ? " uid " : " gid ") << entry.ace.id << ":"
        << entry.ace.mask;
  }
  return out;
}

Governing naive_lookup(const Folder& root, const std::string& path) {
  std::vector<const Folder*> way{&root};
  bool complete = true;
  std::istringstream components(path);
  for (std::string name; complete && std::getline(components, name, '/');) {
    if (name.empty()) continue;
    const Folder* child = child_named(*way.back(), name);
    complete = child != nullptr;
    if (complete) way.push_back(child);
  }
  Governing result;
  result.inherited = !complete;
  while (way.size() > 1 && way.back()->users.empty() && way.back()->groups.empty()) {
    way.pop_back();
    result.inherited = true;
  }
  for (const Ace& ace : way.back()->users) result.entries.push_back({ACE_TYPE_USER, ace});
  for (const Ace& ace : way.back()->groups) result.entries.push_back({ACE_TYPE_GROUP, ace});
  if (result.entries.empty()) result.inherited = false;  // only entries can say so
  return result;
}

Governing governing_of(const tavrix_acl_t& acl) {
  Governing result;
  for (auto* elem = acl.ace_list_head.first_elem; elem != nullptr; elem = elem->next_elem) {
    const auto& ace = *reinterpret_cast<const tavrix_ace_s*>(elem);
    result.entries.push_back(
        {ace.trustee_type, {ace.trustee.uid, static_cast<uint16_t>(ace.perm_mask)}});
    if (ace.ace_type == TAVRIX_ACE_INHERITED) result.inherited = true;
  }
  return result;
}

Folder random_tree(uint32_t seed, uint32_t folders, Bytes bytes) {
  std::mt19937 random(seed);
  const auto up_to = [&random](uint32_t bound) { return static_cast<uint32_t>(random() % bound); };
  static const std::vector<std::string> kParts = {"a", "Be", "cON", "D", "\xc3\xa4",     "\xc3\x9f",
                                                  " ", ".",  "-x",  "0", "\xe2\x82\xac", "\xff"};
  const std::size_t parts = kParts.size() - (bytes == Bytes::kUtf8 ? 1 : 0);
  const auto name = [&](uint32_t number) {
    std::string text;
    for (uint32_t i = up_to(4); i > 0; --i) text += kParts[up_to(static_cast<uint32_t>(parts))];
    return text + std::to_string(number);
  };
  const auto aces = [&](uint32_t most) {
    std::vector<Ace> list;
    for (uint32_t i = up_to(most + 1); i > 0; --i) {
      list.push_back({1000 + up_to(50), static_cast<uint16_t>(up_to(32))});
    }
    return list;
  };
  // Parents first, as indexes; then the tree from the leaves up.
  std::vector<uint32_t> parents(folders);
  std::vector<Folder> flat(folders);
  for (uint32_t i = 0; i < folders; ++i) {
    flat[i].name = i == 0 ? "/" : name(i);
    if (up_to(3) != 0) flat[i].users = aces(3);
    if (up_to(3) == 0) flat[i].groups = aces(3);
    if (i == 0) continue;
    switch (up_to(4)) {
      case 0:
        parents[i] = i - 1;
        break;  // deep
      case 1:
        parents[i] = 0;
        break;  // wide
      default:
        parents[i] = up_to(i);
        break;
    }
  }
  // Some names differ from an earlier sibling's in case only; a lookup finds the earlier one.
  for (uint32_t i = 2; i < folders; ++i) {
    if (up_to(8) != 0) continue;
    const uint32_t other = 1 + up_to(i - 1);
    if (parents[other] == parents[i]) flat[i].name = in_other_case(flat[other].name);
  }
  for (uint32_t i = folders - 1; i > 0; --i) {
    auto& siblings = flat[parents[i]].children;
    siblings.insert(siblings.begin(), std::move(flat[i]));
  }
  return std::move(flat[0]);
}

std::vector<std::string> paths_of(const Folder& root) {
  std::vector<std::string> all;
  collect_paths(root, "", all);
  return all;
}

void publish(const std::vector<std::byte>& image) {
  if (init_perm_map_semaphore() < 0) throw std::runtime_error("no semaphores");
  const int current = get_current_perm_table_index_for_fill();
  int shmid = -1;
  void* table = create_perm_map_shm(get_next_perm_table_key(current),
                                    static_cast<unsigned int>(image.size()), &shmid);
  if (table == nullptr) throw std::runtime_error("no table");
  std::memcpy(table, image.data(), image.size());
  shmdt(table);
  write_file("/etc/tavrix/.permbe_map",
             std::string(reinterpret_cast<const char*>(image.data()), image.size()));
  if (swap_maps(static_cast<unsigned int>(current)) < 0) throw std::runtime_error("no swap");
  map_initialized(1);
}

void write_json_pair(const Folder& root, const MapName& name) {
  write_file("/scratch/size.json", size_json(count(root), name));
  write_file("/scratch/data.json", data_json(root));
}

}  // namespace tavrix::test
