// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/groupmap/group_map.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <system_error>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tavrix_getgrouplist.h"
#include "tools/files/checksum.hpp"
#include "tools/files/durable.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::groupmap {
namespace {

using mapcheck::Findings;
using mapcheck::Severity;

constexpr const char* kReservedNames[] = {"tavrix-powerusers", "tavrix-admins"};

template <typename Record>
void put(std::string& bytes, std::size_t at, const Record& record) {
  std::memcpy(bytes.data() + at, &record, sizeof record);
}

template <typename Record>
Record get(std::string_view bytes, std::size_t at) {
  Record record;
  std::memcpy(&record, bytes.data() + at, sizeof record);
  return record;
}

class Verifier {
 public:
  explicit Verifier(std::string_view bytes) : bytes_(bytes) {}

  Findings run() {
    if (bytes_.size() < TAVRIX_GROUPMAP_MIN_SIZE ||
        bytes_.size() % TAVRIX_GROUPMAP_ALIGNMENT != 0) {
      error(0, fmt::format("{}: at least {} and whole pages are needed",
                           text::counted(bytes_.size(), "byte"), TAVRIX_GROUPMAP_MIN_SIZE));
      return findings_;
    }
    const auto header = get<mapheader>(bytes_, 0);
    if (check_table("reserved groups", header.roffs, header.rnum, sizeof(ritem))) {
      for (uint64_t i = 0; i < header.rnum; ++i) check_reserved(header.roffs + i * sizeof(ritem));
    }
    if (check_table("users", header.uoffs, header.unum, sizeof(uitem))) {
      for (uint64_t i = 0; i < header.unum; ++i) check_user(header.uoffs + i * sizeof(uitem));
    }
    return findings_;
  }

 private:
  bool check_table(const char* name, uint64_t offset, uint64_t count, std::size_t size) {
    if (offset + count * size <= bytes_.size()) return true;
    error(0, fmt::format("the table of {} ({} at {}) ends beyond the file", name, count, offset));
    return false;
  }

  // The name at an offset; nothing when the file ends before the name does.
  std::optional<std::string_view> name_at(uint64_t offset) {
    if (offset >= bytes_.size()) return std::nullopt;
    const auto end = bytes_.find('\0', offset);
    if (end == std::string_view::npos) return std::nullopt;
    return bytes_.substr(offset, end - offset);
  }

  void check_reserved(uint64_t at) {
    const auto item = get<ritem>(bytes_, at);
    const auto name = name_at(item.noffs);
    if (!name) return error(at, fmt::format("the name at {} ends beyond the file", item.noffs));
    if (name->empty()) error(at, "a reserved group without a name");
    if (item.gid == 0)
      warn(at, fmt::format("\"{}\" has gid 0, which readers take for none", *name));
  }

  void check_user(uint64_t at) {
    const auto item = get<uitem>(bytes_, at);
    const uint64_t limit = bytes_.size() - 1;
    const auto name = name_at(item.noffs);
    if (!name || uint64_t{item.noffs} + item.nlen > limit) {
      return error(at, fmt::format("the name at {} ends beyond the file", item.noffs));
    }
    if (name->empty()) error(at, "a user without a name");
    if (name->size() != item.nlen) {
      error(at, fmt::format("\"{}\" has {}, not {}", *name, text::counted(name->size(), "byte"),
                            uint32_t{item.nlen}));
    }
    // Readers measure the length of the list from the name, but copy it from its own offset.
    if (uint64_t{item.noffs} + uint64_t{item.glen} * 4 > limit) {
      error(at, fmt::format(
                    "{} groups behind the name of \"{}\" end beyond the file: readers would find "
                    "neither this user nor those after it",
                    item.glen, *name));
    }
    if (uint64_t{item.goffs} + uint64_t{item.glen} * 4 > bytes_.size()) {
      error(at, fmt::format("the groups of \"{}\" at {} end beyond the file", *name, item.goffs));
    }
    if (item.goffs % 4 != 0) warn(at, fmt::format("the groups of \"{}\" are not aligned", *name));
    const auto [first, is_new] = seen_.emplace(folded(*name), at);
    if (!is_new) warn(at, fmt::format("\"{}\" appears twice; readers take the first", *name));
  }

  static std::string folded(std::string_view name) {
    std::string text(name);
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
  }

  void error(uint64_t at, std::string text) {
    findings_.add({Severity::kError, "", "", at, std::move(text)});
  }
  void warn(uint64_t at, std::string text) {
    findings_.add({Severity::kWarning, "", "", at, std::move(text)});
  }

  std::string_view bytes_;
  std::map<std::string, uint64_t> seen_;
  Findings findings_;
};

std::vector<uint32_t> groups_of(const passwd& user) {
  int count = 65536;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  getgrouplist(user.pw_name, user.pw_gid, groups.data(), &count);
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  return {groups.begin(), groups.end()};
}

constexpr mode_t kReadable = 0644;  // a server process reads it under the identity of any client

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

std::string encode(const GroupMap& map) {
  const std::size_t reserved_at = sizeof(mapheader);
  const std::size_t users_at = reserved_at + sizeof(ritem) * map.reserved.size();
  std::string bytes(users_at + sizeof(uitem) * map.users.size(), '\0');
  put(bytes, 0,
      mapheader{static_cast<uint32_t>(reserved_at), static_cast<uint32_t>(map.reserved.size()),
                static_cast<uint32_t>(users_at), static_cast<uint32_t>(map.users.size())});
  const auto add_name = [&bytes](const std::string& name) {
    const auto at = static_cast<uint32_t>(bytes.size());
    bytes.append(name.c_str(), name.size() + 1);
    return at;
  };
  for (std::size_t i = 0; i < map.reserved.size(); ++i) {
    const uint32_t name = add_name(map.reserved[i].name);
    put(bytes, reserved_at + i * sizeof(ritem), ritem{name, map.reserved[i].gid});
  }
  std::vector<uitem> items;
  for (const User& user : map.users) {
    items.push_back({add_name(user.name), static_cast<uint32_t>(user.name.size()), 0,
                     static_cast<uint32_t>(user.gids.size())});
  }
  // All lists come after all names, because readers measure a list from the name.
  bytes.resize((bytes.size() + 3) / 4 * 4);
  for (std::size_t i = 0; i < map.users.size(); ++i) {
    items[i].goffs = static_cast<uint32_t>(bytes.size());
    put(bytes, users_at + i * sizeof(uitem), items[i]);
    bytes.append(reinterpret_cast<const char*>(map.users[i].gids.data()),
                 map.users[i].gids.size() * 4);
  }
  const std::size_t page = TAVRIX_GROUPMAP_ALIGNMENT;
  // The size has one byte to spare, because readers want the last list to end before the last byte.
  bytes.resize(
      std::max<std::size_t>(TAVRIX_GROUPMAP_MIN_SIZE, (bytes.size() + page) / page * page));
  if (bytes.size() > std::numeric_limits<uint32_t>::max())
    throw std::length_error("the map has more than 4 GiB");
  return bytes;
}

Findings verify(std::string_view bytes) { return Verifier(bytes).run(); }

std::optional<GroupMap> decode(std::string_view bytes) {
  if (verify(bytes).errors() > 0) return std::nullopt;
  GroupMap map;
  const auto header = get<mapheader>(bytes, 0);
  for (uint32_t i = 0; i < header.rnum; ++i) {
    const auto item = get<ritem>(bytes, header.roffs + i * sizeof(ritem));
    map.reserved.push_back({bytes.data() + item.noffs, item.gid});
  }
  for (uint32_t i = 0; i < header.unum; ++i) {
    const auto item = get<uitem>(bytes, header.uoffs + i * sizeof(uitem));
    User user{bytes.data() + item.noffs, std::vector<uint32_t>(item.glen)};
    if (item.glen > 0)
      std::memcpy(user.gids.data(), bytes.data() + item.goffs, std::size_t{item.glen} * 4);
    map.users.push_back(std::move(user));
  }
  return map;
}

std::vector<std::string> known_users() {
  std::ifstream in(TAVRIX_GROUPMAP_PATH, std::ios::binary);
  const auto map = decode(std::string{std::istreambuf_iterator<char>(in), {}});
  std::vector<std::string> names;
  if (!map) return names;
  for (const User& user : map->users) names.push_back(user.name);
  return names;
}

GroupMap from_system() {
  GroupMap map;
  for (const char* name : kReservedNames) {
    const group* entry = getgrnam(name);
    if (entry != nullptr) map.reserved.push_back({name, entry->gr_gid});
  }
  std::vector<std::string> names;
  setpwent();
  while (const passwd* entry = getpwent()) names.emplace_back(entry->pw_name);
  endpwent();
  for (const std::string& name : names) {
    const passwd* entry = getpwnam(name.c_str());
    if (entry != nullptr) map.users.push_back({name, groups_of(*entry)});
  }
  return map;
}

void write_file(const std::string& path, const std::string& bytes) {
  // Both checksums are valid until the new file is in place, so one fits after a power cut.
  const files::Digest digest = files::digest_of(std::string_view(bytes));
  std::vector<files::Digest> both = {digest};
  if (const auto old = files::digest_of_file(path)) both.push_back(*old);
  if (!files::write_checksums(path, both, kReadable)) fail(files::checksum_path(path));
  if (!files::replace(path, bytes, kReadable)) fail(path);
  if (!files::write_checksums(path, {digest}, kReadable)) fail(files::checksum_path(path));
}

void check_checksum(const std::string& path, std::string_view bytes, Findings& findings) {
  switch (files::compare_checksum(path, files::digest_of(bytes))) {
    case files::Checksum::kMatches:
      return;
    case files::Checksum::kMissing:
      findings.add({Severity::kWarning, "", "", 0,
                    fmt::format("there is no {}", files::checksum_path(path))});
      return;
    case files::Checksum::kDiffers:
      findings.add({Severity::kError, "", "", 0,
                    fmt::format("the file does not match {}: it is damaged, or was replaced "
                                "without it",
                                files::checksum_path(path))});
  }
}

}  // namespace tavrix::groupmap
