// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/requests.hpp"

#include <algorithm>
#include <vector>

namespace tavrix::test {
namespace {

constexpr uint32_t kDirectory = 0x1;
constexpr uint32_t kNonDirectory = 0x40;
constexpr uint32_t kDeleteOnClose = 0x1000;

constexpr uint32_t kDelete = 0x00010000;
constexpr uint32_t kMaximum = 0x02000000;
constexpr uint32_t kGenericAll = 0x10000000;
// Access bits that change something: write and append data, write attributes and extended
// attributes, delete, delete children, change the access list or the owner, and the generic bits
// for these.
constexpr uint32_t kChanging = 0x00000156 | kDelete | 0x000C0000 | 0x40000000 | 0x10000000;

enum Disposition { kSupersede, kOpen, kCreate, kOpenIf, kOverwrite, kOverwriteIf };

// Each right alone, then the masks of real clients.
const std::vector<uint32_t> kMasks{
    0x1,        0x2,        0x4,        0x8,        0x10,       0x20,       0x40,      0x80,
    0x100,      0x10000,    0x20000,    0x40000,    0x80000,    0x100000,   0x1000000, 0x2000000,
    0x10000000, 0x20000000, 0x40000000, 0x80000000, 0x0,        0x120089,   0x120116,  0x1200A9,
    0x12019F,   0x1F01FF,   0x10080,    0x110080,   0x2000080,  0x2010000,  0x2000100, 0x100180,
    0x100081,   0x120196,   0x12000000, 0xC0000000, 0xC0010000, 0x90000000, 0x2010100, 0x160000};

const std::vector<uint32_t> kOptions{0,
                                     0,
                                     0,
                                     kDirectory,
                                     kDirectory,
                                     0x40,
                                     0x40,
                                     0x1000,
                                     0x1000 | kDirectory,
                                     0x1000 | 0x40,
                                     0x4000,
                                     0x4001,
                                     0x200000,
                                     0x200000 | kDirectory,
                                     0x2,
                                     0x800};

// The bodies of an access list without entries, of a link, and of an object's number.
constexpr const char* kNoAccess = "01000480000000000000000000000000140000000200080000000000";
constexpr const char* kReparsePoint = "0c0000a00c0000000000020004000200000000007800780000";
constexpr const char* kObjectId =
    "01010101010101010101010101010101"
    "00000000000000000000000000000000"
    "00000000000000000000000000000000"
    "00000000000000000000000000000000";

// Uses of a handle. They follow only when the create was granted.
std::vector<Json> uses_of(const std::string& path) {
  const std::string sibling =
      with_backslashes(path.empty() ? "Shared/Team/moved" : path + ".moved");
  std::vector<Json> uses{
      {{"do", "write"}},
      {{"do", "read"}},
      {{"do", "flush"}},
      {{"do", "lock"}},
      {{"do", "list"}},
      {{"do", "list"}, {"level", "both ids"}, {"pattern", "*t*"}},
      {{"do", "list"}, {"level", "names"}, {"pattern", "hidden.txt"}},
      {{"do", "query"}, {"level", 18}},
      {{"do", "query"}, {"level", 9}},
      {{"do", "query"}, {"level", 22}},
      {{"do", "query"}, {"level", 15}},
      {{"do", "query"}, {"kind", 3}, {"level", 0}, {"extra", 7}},
      {{"do", "query"}, {"kind", 2}, {"level", 3}},
      {{"do", "query"}, {"kind", 4}, {"level", 32}, {"data", "010100000000000000000000"}},
      {{"do", "set"}, {"level", 4}, {"attributes", 0x22}},
      {{"do", "set"}, {"level", 4}, {"written", 130000000000000000}},
      {{"do", "set"}, {"level", 4}, {"created", 130000000000000000}},
      {{"do", "set"}, {"level", 4}, {"accessed", 130000000000000000}},
      {{"do", "set"}, {"level", 13}},
      {{"do", "set"}, {"level", 64}},
      {{"do", "set"}, {"level", 15}},
      {{"do", "set"}, {"level", 14}, {"value", 3}},
      {{"do", "set"}, {"level", 16}},
      {{"do", "set"}, {"level", 19}, {"value", 65536}},
      {{"do", "set"}, {"level", 20}, {"value", 3}},
      {{"do", "set"}, {"level", 40}, {"to", "SHORT.TXT"}},
      {{"do", "set"}, {"kind", 3}, {"level", 0}, {"extra", 4}, {"data", kNoAccess}},
      {{"do", "ioctl"}, {"code", 0x900C4}, {"data", "01"}},
      {{"do", "ioctl"}, {"code", 0x980C8}, {"data", "00000000000000000400000000000000"}},
      {{"do", "ioctl"}, {"code", 0x900A4}, {"data", kReparsePoint}},
      {{"do", "ioctl"}, {"code", 0x900A8}},
      {{"do", "ioctl"}, {"code", 0x9C040}, {"data", "0100"}},
      {{"do", "ioctl"}, {"code", 0x144064}},
      {{"do", "ioctl"}, {"code", 0x900C0}},
      {{"do", "ioctl"}, {"code", 0x90098}, {"data", kObjectId}}};
  for (const int replace : {0, 1}) {
    for (const char* to :
         {sibling.c_str(), "Shared\\Team\\moved", "Shared\\Team\\other.txt", "Shared\\Team\\Fixed",
          "Shared\\Team\\Empty", "Shared\\Team\\Docs\\moved", "Shared\\Team\\Secret\\moved",
          "Shared\\moved", "Private\\pat\\moved", "moved", "Shared\\Team\\m.sb-d",
          "Shared\\.DS_Store", ".TemporaryItems"}) {
      uses.push_back({{"do", "set"}, {"level", 10}, {"to", to}, {"replace", replace}});
      uses.push_back({{"do", "set"}, {"level", 11}, {"to", to}, {"replace", replace}});
    }
  }
  return uses;
}

}  // namespace

std::string with_backslashes(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

Json random_steps(const std::string& path, std::mt19937& random) {
  const std::vector<Json> uses = uses_of(path);
  // Opening is the most frequent disposition of clients.
  const auto disposition = random() % 3 == 0 ? kOpen : static_cast<Disposition>(random() % 6);
  Json steps = Json::array({{{"do", "create"},
                             {"name", with_backslashes(path)},
                             {"access", kMasks[random() % kMasks.size()]},
                             {"disposition", static_cast<int>(disposition)},
                             {"options", kOptions[random() % kOptions.size()]},
                             {"attributes", random() % 8 == 0 ? 2 : 0}}});
  for (int i = 0; i < 2; ++i) steps.push_back(uses[random() % uses.size()]);
  return steps;
}

Expected expected_of(const Json& create, const Judge& judge, const Disk& disk) {
  std::string path = create["name"];
  std::replace(path.begin(), path.end(), '\\', '/');
  if (path.find(':') != std::string::npos || path.ends_with(".lnk")) return Expected::kEither;
  const uint32_t access = create["access"];
  const uint32_t options = create["options"];
  const int disposition = create["disposition"];
  const Disk::Object* object = disk.find(path);
  const bool makes = disposition != kOpen && disposition != kOverwrite;
  const bool removes = (access & kDelete) != 0 || (options & kDeleteOnClose) != 0;
  const bool enters = judge.may(FSOP_CHDIR, parent_of(path));
  if (object == nullptr) {
    if (!makes) return Expected::kRefuses;
    // Nobody opens an entry of the private area itself for removal.
    const bool everything = (access & (kMaximum | kGenericAll)) != 0;
    if (parent_of(path) == "Private" && (removes || everything)) return Expected::kEither;
    if (!judge.may_make(path, (options & kDirectory) != 0)) return Expected::kRefuses;
    return enters ? Expected::kLikePlain : Expected::kEither;
  }
  const bool empties = disposition == kSupersede || disposition >= kOverwrite;
  const bool changes = empties || removes || (access & kChanging) != 0;
  if (!judge.sees(path)) return Expected::kRefuses;
  if (object->is_folder) {
    const bool only_looks = (access & (kChanging | kMaximum)) == 0 && !removes;
    return only_looks && disposition == kOpen && (options & kNonDirectory) == 0 && enters
               ? Expected::kLikePlain
               : Expected::kEither;
  }
  if (changes && !judge.may_change(path)) return Expected::kRefuses;
  const bool reads = (access & kMaximum) == 0;
  return enters && (judge.may(FSOP_OPEN_READ, path) || !reads) ? Expected::kLikePlain
                                                               : Expected::kEither;
}

}  // namespace tavrix::test
