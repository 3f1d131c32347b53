// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sample/sample_tree.hpp"

#include <fmt/format.h>
#include <fmt/os.h>
#include <array>
#include <random>
#include <vector>

namespace tavrix::sample {
namespace {

constexpr uint32_t kFirstGroup = 20000;
constexpr uint64_t kTopFolders = 3;  // "/", "Shared", "Private"

// Names as people give them; some have letters outside ASCII.
constexpr std::array<const char*, 16> kWords = {
    "Projects",  "Finance", "Archive", "Drawings", "Contracts", "Photos",   "Reports",   "Budget",
    "Marketing", "Release", "Support", "Invoices", "Planung",   "Research", "Templates", "Minutes"};

// The folders below Shared are numbered as in a heap: the first child of folder n has the number
// n * fan_out + 1. So the path of a folder follows from its number alone.
std::string name_of(const Shape& shape, uint64_t number) {
  return fmt::format("{} {}", kWords[(number + shape.seed) % kWords.size()], number);
}

class Writer {
 public:
  Writer(const Shape& shape, const std::string& path)
      : shape_(shape),
        count_(shape.folders > kTopFolders ? shape.folders - kTopFolders : 0),
        random_(shape.seed),
        out_(fmt::output_file(path)) {}

  Sums run() {
    out_.print("[{{\"NUMCHILDREN\":1}},\n");
    begin("/", 0, 1);
    out_.print(",\"CHILDREN\":[{{\"NUMCHILDREN\":2}},\n");
    begin("Shared", 0, 1);
    const uint64_t top = std::min<uint64_t>(shape_.fan_out, count_);
    out_.print(",\"CHILDREN\":[{{\"NUMCHILDREN\":{}}}", top);
    for (uint64_t number = 1; number <= top; ++number) team(number);
    out_.print("]}},\n");
    begin("Private", 0, 0);
    out_.print(",\"CHILDREN\":[{{\"NUMCHILDREN\":0}}]}}\n]}}]\n");
    return sums_;
  }

 private:
  void team(uint64_t number) {
    out_.print(",\n");
    // Half of the folders inherit; the others have entries for a few users and a group.
    const bool has_entries = random_() % 2 == 0 || number <= shape_.fan_out;
    begin(name_of(shape_, number), has_entries ? 1 + random_() % 3 : 0, has_entries ? 1 : 0);
    const uint64_t first = number * shape_.fan_out + 1;
    const uint64_t last = std::min(first + shape_.fan_out - 1, count_);
    const uint64_t children = first > count_ ? 0 : last - first + 1;
    out_.print(",\"CHILDREN\":[{{\"NUMCHILDREN\":{}}}", children);
    for (uint64_t child = 0; child < children; ++child) team(first + child);
    out_.print("]}}");
  }

  void begin(const std::string& name, uint64_t users, uint64_t groups) {
    ++sums_.folders;
    sums_.name_bytes += name.size() + 1;
    sums_.aces += users + groups;
    out_.print("{{\"DIR\":\"{}\",\"ACL\":[{{\"NUMUSERS\":{}}},{{\"NUMGROUPS\":{}}},{{\"USERS\":{{",
               name, users, groups);
    const uint64_t some = random_();
    for (uint64_t i = 0; i < users; ++i) {
      out_.print("{}\"{}\":{}", i == 0 ? "" : ",", shape_.first_uid + (some + i) % shape_.users,
                 (some >> i) % 2 == 0 ? 7 : 1);
    }
    out_.print("}}}},{{\"GROUPS\":{{");
    for (uint64_t i = 0; i < groups; ++i) {
      out_.print("{}\"{}\":{}", i == 0 ? "" : ",", kFirstGroup + (some + i) % shape_.groups, 3);
    }
    out_.print("}}}}]");
  }

  Shape shape_;
  uint64_t count_;  // folders below Shared
  std::mt19937 random_;
  fmt::ostream out_;
  Sums sums_;
};

}  // namespace

Sums write_sample(const Shape& shape, const std::string& size_path, const std::string& data_path) {
  const Sums sums = Writer(shape, data_path).run();
  auto out = fmt::output_file(size_path);
  out.print(
      "{{\"MAPNAME\":\"sample\",\"VERSION\":\"1\",\"GENERATIONNUM\":{},\"TIMESTAMP\":1700000000,"
      "\"TOTALFSELEMS\":{},\"TOTALACES\":{},\"TOTALNAMELEN\":{}}}\n",
      shape.seed, sums.folders, sums.aces, sums.name_bytes);
  return sums;
}

std::string sample_path(const Shape& shape, uint64_t number) {
  std::vector<uint64_t> way;
  for (; number > 0; number = (number - 1) / shape.fan_out) way.push_back(number);
  std::string path = "Shared";
  for (auto step = way.rbegin(); step != way.rend(); ++step) path += "/" + name_of(shape, *step);
  return path;
}

}  // namespace tavrix::sample
