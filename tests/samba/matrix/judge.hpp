// SPDX-License-Identifier: LGPL-3.0-or-later
// An independent model of the policy: says what a caller may do, from the policy's table
// (rule_table), a naive lookup in the map (map_model) and the areas of the tree. It shares only the
// names of operations with the library.
#pragma once

#include <string>

#include "tests/samba/matrix/disk.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/rule_table.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {

class Judge {
 public:
  Judge(const Folder& map, const Caller& caller, const Disk& disk)
      : map_(map), caller_(caller), disk_(disk) {}

  // True if the caller may do the operation on the path; "" is the share itself.
  [[nodiscard]] bool may(e_fsop_type op, const std::string& path) const;
  // The rights of the caller on a path of the map; all of them if there is no such object.
  [[nodiscard]] uint32_t mask_on(const std::string& path) const;
  [[nodiscard]] bool sees(const std::string& path) const { return may(FSOP_STAT, path); }

  // The changes that the disk may show afterwards.
  [[nodiscard]] bool may_make(const std::string& path, bool folder) const;
  [[nodiscard]] bool may_remove(const std::string& path) const;
  [[nodiscard]] bool may_rename(const std::string& from, const std::string& to) const;
  [[nodiscard]] bool may_rename_to(const std::string& to) const {
    return may(FSOP_RENAME_DEST, to);
  }
  // The content of a file, or times, attributes and extended attributes of a file or a folder.
  [[nodiscard]] bool may_change(const std::string& path) const;

 private:
  const Folder& map_;
  const Caller& caller_;
  const Disk& disk_;

  [[nodiscard]] bool is_admin() const;
  [[nodiscard]] bool is_standard() const;
  [[nodiscard]] e_file_type type_of(const std::string& path) const;
  [[nodiscard]] bool ruled(e_fsop_type op, const std::string& path, uint32_t self,
                           uint32_t parent) const;
  [[nodiscard]] bool in_private(e_fsop_type op, const std::string& path) const;
  [[nodiscard]] bool in_shared(e_fsop_type op, const std::string& path) const;
  [[nodiscard]] bool at_the_top(e_fsop_type op, const std::string& path) const;
  [[nodiscard]] bool stays(const std::string& path) const;
};

bool is_special_name(const std::string& path);
std::string parent_of(const std::string& path);

}  // namespace tavrix::test
