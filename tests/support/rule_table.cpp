// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/rule_table.hpp"

#include <array>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace tavrix::test {
namespace {

// operations | object | rights on the object | rights on its parent | when granted | when refused
//
// A row serves one operation on one kind of object; "any" serves every kind, "missing" every kind
// but file and folder. "read", "write" and "delete" must all be there; "see" is one of read,
// navigate and viewer only; "-" asks for nothing; "abort" ends the process.
constexpr std::string_view kPolicy = R"(
CREATE MKDIR              | any     | -    | read write        | Allow for Read/Write on parent | Deny due to no Read/Write on parent
OPEN_CHATTR               | any     | -    | -                 | |
CHMOD CHOWN SET_ACL       | any     | abort| -                 | |
GET_ACL READ_LINK CONNECT | any     | abort| -                 | |
STATVFS SEEKDIR REWINDDIR | any     | abort| -                 | |
TELLDIR REALPATH          | any     | abort| -                 | |
GETNTACL FGETNTACL        | any     | abort| -                 | |
OPEN_READ UNLINK          | folder  | -    | -                 | Allow op for any permission |
OPEN_WRITE                | folder  | -    | -                 | FSOP_OPEN_WRITE allowed for any user as otherwise it preventsdrive being mapped |
OPENDIR READDIR CHDIR     | folder  | see  | -                 | Allow for Nav on self | Deny due to no NAV on self
RENAME_SRC MOVE_SRC       | folder  | read | read write delete | Allow for Read/Write/Delete on parent and Read on self | Deny due to no Read/Write/Delete on parent or Read on self
RENAME_DEST MOVE_DEST     | folder  | read | read write        | Allow for Read/Write on parent and Read on self | Deny due to no Read/Write on parent or Read on self
STAT LSTAT                | folder  | see  | see               | Allow for NAV on self and NAV on parent | Deny due to no NAV on both self and parent
RMDIR                     | folder  | -    | read write delete | Allowed for Read/Write/Delete on parent | Deny due to no Read/Write/Delete on parent op=21
OPEN_READ STAT LSTAT      | file    | -    | read              | Allow for Read on parent | Deny due to no Read on parent
OPEN_WRITE RENAME_SRC     | file    | -    | read write        | Allow for Read/Write on parent | Deny due to no Read/Write on parent
RENAME_DEST MOVE_DEST     | file    | -    | read write        | Allow for Read/Write on parent | Deny due to no Read/Write on parent
OPENDIR READDIR           | file    | -    | -                 | Allow op for any permission |
RMDIR CHDIR               | file    | -    | -                 | Allow op for any permission |
UNLINK MOVE_SRC           | file    | -    | read write delete | Allow for Read/Write/Delete on parent | Deny due to no Read/Write/Delete on parent
OPEN_WRITE RENAME_DEST    | missing | -    | read write        | Allow for Read/Write on parent | Deny due to no Read/Write on parent
MOVE_DEST                 | missing | -    | read write        | Allow for Read/Write on parent | Deny due to no Read/Write on parent
OPEN_READ OPENDIR READDIR | missing | -    | -                 | Allow for non-existent file |
UNLINK RENAME_SRC         | missing | -    | -                 | Allow for non-existent file |
MOVE_SRC STAT LSTAT       | missing | -    | -                 | Allow for non-existent file |
RMDIR CHDIR               | missing | -    | -                 | Allow for non-existent file |
)";

constexpr std::array<const char*, 30> kNames = {
    "",          "CREATE",  "OPEN_READ",  "OPEN_WRITE",  "OPEN_CHATTR", "OPENDIR",
    "READDIR",   "UNLINK",  "RENAME_SRC", "RENAME_DEST", "MOVE_SRC",    "MOVE_DEST",
    "CHMOD",     "CHOWN",   "SET_ACL",    "GET_ACL",     "STAT",        "LSTAT",
    "READ_LINK", "CONNECT", "MKDIR",      "RMDIR",       "STATVFS",     "SEEKDIR",
    "REWINDDIR", "TELLDIR", "CHDIR",      "REALPATH",    "GETNTACL",    "FGETNTACL"};

struct Row {
  std::string operations, object, self, parent, granted, refused;
};

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<Row> read_policy() {
  std::vector<Row> rows;
  std::istringstream lines{std::string(kPolicy)};
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    std::istringstream cells(line);
    std::array<std::string, 6> cell;
    for (auto& text : cell) {
      std::getline(cells, text, '|');
      text = trimmed(text);
    }
    rows.push_back({cell[0], cell[1], cell[2], cell[3], cell[4], cell[5]});
  }
  return rows;
}

bool lists(const std::string& words, const std::string& wanted) {
  std::istringstream in(words);
  for (std::string word; in >> word;) {
    if (word == wanted) return true;
  }
  return false;
}

bool has_rights(uint32_t mask, const std::string& words) {
  const bool read = mask % 2 == 1;
  const bool write = mask / 2 % 2 == 1;
  const bool remove = mask / 4 % 2 == 1;
  const bool navigate = mask / 8 % 2 == 1;
  const bool view = mask / 16 % 2 == 1;
  std::istringstream in(words);
  for (std::string word; in >> word;) {
    if (word == "read" && !read) return false;
    if (word == "write" && !write) return false;
    if (word == "delete" && !remove) return false;
    if (word == "see" && !(read || navigate || view)) return false;
  }
  return true;
}

// Each operation on each kind of object must be in the table exactly once.
const Row& row_for(const std::string& operation, const std::string& object) {
  static const std::vector<Row> rows = read_policy();
  static std::map<std::pair<std::string, std::string>, const Row*> known;
  const Row*& found = known[{operation, object}];
  if (found != nullptr) return *found;
  for (const Row& row : rows) {
    if (!lists(row.operations, operation)) continue;
    if (row.object != "any" && row.object != object) continue;
    if (found != nullptr) throw std::logic_error(operation + " has two rules for " + object);
    found = &row;
  }
  if (found == nullptr) throw std::logic_error(operation + " has no rule for " + object);
  return *found;
}

std::vector<e_fsop_type> operations(bool with_rule, bool without_rule) {
  std::vector<e_fsop_type> found;
  for (int op = 1; op <= 29; ++op) {
    const bool aborts = row_for(kNames.at(static_cast<std::size_t>(op)), "file").self == "abort";
    if (aborts ? without_rule : with_rule) found.push_back(static_cast<e_fsop_type>(op));
  }
  return found;
}

}  // namespace

RuleAnswer rule_says(e_fsop_type op, e_file_type type, uint32_t self, uint32_t parent) {
  const Row& row = row_for(name_of(op), type == FSTYPE_FILE     ? "file"
                                        : type == FSTYPE_FOLDER ? "folder"
                                                                : "missing");
  if (row.self == "abort") return {.aborts = true, .granted = false, .message = {}};
  const bool granted = has_rights(self, row.self) && has_rights(parent, row.parent);
  return {.aborts = false, .granted = granted, .message = granted ? row.granted : row.refused};
}

std::vector<e_fsop_type> all_operations() { return operations(true, true); }
std::vector<e_fsop_type> operations_with_a_rule() { return operations(true, false); }
std::vector<e_fsop_type> operations_without_a_rule() { return operations(false, true); }

std::string name_of(e_fsop_type op) {
  return op >= 1 && op <= 29 ? kNames.at(static_cast<std::size_t>(op)) : std::to_string(op);
}

}  // namespace tavrix::test
