// SPDX-License-Identifier: LGPL-3.0-or-later
// A judge of what a caller may do: a model that shares nothing with the library but the names of
// operations: the policy's table (rule_table), a naive lookup in the map (map_model), and the areas
// of the tree.
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

  // One operation on one path of the share ("" is the share itself).
  [[nodiscard]] bool may(e_fsop_type op, const std::string& path) const;
  [[nodiscard]] bool sees(const std::string& path) const { return may(FSOP_STAT, path); }

  // Changes that the disk may show afterwards, in the words of the policy.
  [[nodiscard]] bool may_make(const std::string& path, bool folder) const;
  [[nodiscard]] bool may_remove(const std::string& path) const;
  [[nodiscard]] bool may_rename(const std::string& from, const std::string& to) const;
  [[nodiscard]] bool may_rename_to(const std::string& to) const {
    return may(FSOP_RENAME_DEST, to);
  }
  // Content of a file; times, attributes and extended attributes of either.
  [[nodiscard]] bool may_change(const std::string& path) const;

 private:
  const Folder& map_;
  const Caller& caller_;
  const Disk& disk_;

  [[nodiscard]] bool is_admin() const;
  [[nodiscard]] bool is_standard() const;
  [[nodiscard]] e_file_type type_of(const std::string& path) const;
  [[nodiscard]] uint32_t mask_on(const std::string& path) const;
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
