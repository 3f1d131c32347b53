// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/request.hpp"

#include <sys/stat.h>

#include "perm_enforcer.h"
#include "tools/explain/operations.hpp"
#include "tools/explain/share_path.hpp"
#include "tools/explain/words.hpp"

namespace tavrix::explain {
namespace {

e_file_type type_at(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return FSTYPE_DOES_NOT_EXIST;
  return S_ISDIR(status.st_mode) ? FSTYPE_FOLDER : FSTYPE_FILE;
}

gid_t reserved_gid(int64_t given, std::optional<uint32_t> in_map, const char* name) {
  if (given >= 0) return static_cast<gid_t>(given);
  if (in_map) return *in_map;
  return machine_group(name).value_or(static_cast<gid_t>(-1));
}

}  // namespace

std::optional<Request> request_for(const std::string& operation, const std::string& path,
                                   const std::string& root) {
  std::string below = share_path(path, root);
  const auto asked = operation_for(operation, type_at(root + "/" + below));
  if (!asked) return std::nullopt;
  Request request;
  request.is_about_new_file = !asked->name_below.empty();
  if (request.is_about_new_file) below += (below.empty() ? "" : "/") + asked->name_below;
  request.question.root = root;
  request.question.path = below.empty() ? root : TAVRIX_TREE "/" + below;
  request.question.op = asked->op;
  return request;
}

void take_reserved_groups(const Groups& groups, int64_t administrators, int64_t power_users) {
  vfs_set_admins_powerusers(reserved_gid(administrators, groups.administrators(), "tavrix-admins"),
                            reserved_gid(power_users, groups.power_users(), "tavrix-powerusers"));
  know_groups(groups.map.reserved);
}

std::string list_of_operations() {
  std::string text;
  for (const auto& names : {words_of_people(), exact_operations()}) {
    text += text.empty() ? "" : "; exactly: ";
    for (const std::string& name : names) text += (&name == names.data() ? "" : ", ") + name;
  }
  return text;
}

}  // namespace tavrix::explain
