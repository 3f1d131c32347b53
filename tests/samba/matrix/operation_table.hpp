// SPDX-License-Identifier: LGPL-3.0-or-later
// The table "operation x caller": a row has an operation, the callers who may, the requests of a
// client, and the events that follow. Every other caller is refused: the disk stays as it was and
// nothing is recorded.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "tests/samba/matrix/account.hpp"
#include "tests/samba/matrix/world.hpp"

namespace tavrix::test {

using Roles = std::set<std::string>;

namespace who {
inline const Roles kNobody{};
inline const Roles kAdministrator{
    "administrator"};  // a fixed folder stays for the agent's account too
inline const Roles kAdmins{"administrator", "reserved"};
inline const Roles kDeleters{"administrator", "writer", "reserved"};
inline const Roles kWriters{"administrator", "writer", "editor", "reserved"};
inline const Roles kReaders{"administrator", "writer", "editor", "reader", "reserved"};
inline const Roles kViewers{"administrator", "writer", "editor", "reader", "viewer", "reserved"};
inline const Roles kPassers{"administrator", "writer",    "editor",  "reader",
                            "viewer",        "navigator", "reserved"};
inline const Roles kUsers{"administrator", "owner",     "writer",   "editor",  "reader",
                          "viewer",        "navigator", "stranger", "reserved"};
inline const Roles kAll{"administrator", "owner",    "writer",   "editor",   "reader", "viewer",
                        "navigator",     "stranger", "standard", "reserved", "guest"};
inline const Roles kOwner{"administrator", "owner", "reserved"};
}  // namespace who

struct Row {
  const char* operation;
  Roles who;
  Json steps;
  Lines events;  // below the share, of whoever may
};

inline Json create(const char* name, uint32_t access, int disposition = 1, uint32_t options = 0) {
  return {{"do", "create"},
          {"name", name},
          {"access", access},
          {"disposition", disposition},
          {"options", options}};
}
inline Json set(int level, Json more = Json::object()) {
  more["do"] = "set";
  more["level"] = level;
  return more;
}
inline Json ioctl(uint32_t code, const std::string& data = {}) {
  return {{"do", "ioctl"}, {"code", code}, {"data", data}};
}
inline Json rename_to(const char* name, int replace = 0) {
  return set(10, {{"to", name}, {"replace", replace}});
}
inline const Json kClose{{"do", "close"}};
inline const Json kList{{"do", "list"}};
inline const Json kWrite{{"do", "write"}};
inline const Json kRemove = set(13);

inline constexpr uint32_t kReadData = 0x120089;
inline constexpr uint32_t kWriteData = 0x120116;
inline constexpr uint32_t kReadAndWrite = 0x12019F;
inline constexpr uint32_t kDelete = 0x110080;
inline constexpr uint32_t kLook = 0x100080;
inline constexpr uint32_t kSetAttributes = 0x100100;
inline constexpr uint32_t kFolder = 1;
inline constexpr uint32_t kNoFolder = 0x40;

class Operations : public MatrixWorld {
 protected:
  // Runs every row as every caller.
  void check(const std::vector<Row>& rows);

 private:
  Folder map_ = matrix_map();
  Disk before_;
  void check_cell(const Row& row, const Role& role);
};

}  // namespace tavrix::test
