// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/judge.hpp"

#include <algorithm>

namespace tavrix::test {
namespace {

constexpr uint32_t kRead = 1;
constexpr uint32_t kAll = 7;
constexpr uint32_t kNavigate = 8;

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool contains(const std::vector<gid_t>& groups, gid_t wanted) {
  return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

std::string first_of(const std::string& path) { return path.substr(0, path.find('/')); }

}  // namespace

std::string parent_of(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

bool is_special_name(const std::string& path) {
  for (const char* start : {".temporaryitems", ".ds_store", "._.ds_store", "._.temporaryitems",
                            ".trash", "shared/.ds_store", "private/.ds_store"}) {
    if (lowered(path).starts_with(start)) return true;
  }
  return path.find(".sb-") != std::string::npos;
}

bool Judge::is_admin() const { return contains(caller_.groups, kAdmins); }
bool Judge::is_standard() const { return !is_admin() && !contains(caller_.groups, kPowerUsers); }

e_file_type Judge::type_of(const std::string& path) const {
  const Disk::Object* found = disk_.find(path);
  if (found == nullptr) return FSTYPE_DOES_NOT_EXIST;
  return found->is_folder ? FSTYPE_FOLDER : FSTYPE_FILE;
}

// The rights of the caller: its own entry, or those of its groups where it has none or may only
// pass through. The right to pass through is never inherited.
uint32_t Judge::mask_on(const std::string& path) const {
  if (type_of(path) == FSTYPE_DOES_NOT_EXIST) return kAll;
  const Governing acl = naive_lookup(map_, path);
  const auto counts = [&](const Governing::Entry& entry) {
    return !acl.inherited || (entry.ace.mask & kNavigate) == 0;
  };
  uint32_t mask = 0;
  for (const auto& entry : acl.entries) {
    if (entry.type != ACE_TYPE_USER || entry.ace.id != caller_.uid || !counts(entry)) continue;
    mask = entry.ace.mask;
    break;
  }
  if (mask != 0 && (mask & kNavigate) == 0) return mask;
  for (const auto& entry : acl.entries) {
    const bool mine = entry.ace.id == caller_.gid || contains(caller_.groups, entry.ace.id);
    if (entry.type == ACE_TYPE_GROUP && mine && counts(entry)) mask |= entry.ace.mask;
  }
  return mask;
}

bool Judge::ruled(e_fsop_type op, const std::string& path, uint32_t self, uint32_t parent) const {
  return rule_says(op, type_of(path), self, parent).granted;
}

bool Judge::in_private(e_fsop_type op, const std::string& path) const {
  const bool is_user_folder = lowered(parent_of(path)) == "private";
  if (is_user_folder && (type_of(path) == FSTYPE_FILE || op == FSOP_CREATE)) return false;
  if (is_user_folder && is_admin()) return ruled(op, path, kRead, kRead);
  const auto name_ends = path.find('/', 8);
  const Disk::Object* user_folder = disk_.find(path.substr(0, name_ends));
  if (user_folder == nullptr) return false;
  if (is_admin()) return ruled(op, path, kAll, kAll);
  if (user_folder->owner != caller_.uid) return false;
  return !is_user_folder || ruled(op, path, kRead, kRead);
}

bool Judge::in_shared(e_fsop_type op, const std::string& path) const {
  const bool is_team = lowered(parent_of(path)) == "shared";
  if (is_team && (type_of(path) == FSTYPE_FILE || op == FSOP_CREATE)) return false;
  if (is_admin()) return ruled(op, path, kAll, kAll);
  return ruled(op, path, mask_on(path), is_team ? kNavigate : mask_on(parent_of(path)));
}

bool Judge::at_the_top(e_fsop_type op, const std::string& path) const {
  if (type_of(path) == FSTYPE_FILE || op == FSOP_CREATE) return false;
  const std::string name = lowered(path);
  return (name == "shared" || name == "private") && ruled(op, path, kRead, kRead);
}

bool Judge::may(e_fsop_type op, const std::string& path) const {
  if (path.empty() || caller_.name == "syncagent") return true;
  if (is_standard() || caller_.name.ends_with("$")) return false;
  if (op == FSOP_OPEN_READ && type_of(path) == FSTYPE_FOLDER) return true;
  const std::string top = lowered(first_of(path));
  const bool deeper = path.find('/') != std::string::npos;
  const bool granted = deeper && top == "private"  ? in_private(op, path)
                       : deeper && top == "shared" ? in_shared(op, path)
                       : deeper                    ? false
                                                   : at_the_top(op, path);
  return granted || is_special_name(path);
}

// Nobody removes or renames the share, its areas and the folders of users; only an administrator
// removes or renames a marked folder.
bool Judge::stays(const std::string& path) const {
  const bool is_agent = caller_.name == "syncagent";
  const bool is_of_the_top = parent_of(path).empty() || parent_of(path) == "Private";
  if (path.empty() || (is_of_the_top && !is_agent)) return !is_special_name(path);
  const Disk::Object* found = disk_.find(path);
  return !is_admin() && path.starts_with("Shared") && found != nullptr && found->is_fixed;
}

bool Judge::may_make(const std::string& path, bool folder) const {
  return may(folder ? FSOP_MKDIR : FSOP_CREATE, path);
}

bool Judge::may_remove(const std::string& path) const {
  if (type_of(path) != FSTYPE_FOLDER) return may(FSOP_OPEN_WRITE, path);
  return !stays(path) && may(FSOP_RMDIR, path);
}

bool Judge::may_rename(const std::string& from, const std::string& to) const {
  const bool folder = type_of(from) == FSTYPE_FOLDER;
  const bool moves = folder && parent_of(from) != parent_of(to);
  if (folder && stays(from)) return false;
  if (type_of(to) != FSTYPE_DOES_NOT_EXIST && !may_remove(to)) return false;
  // A destination that everybody may make does not allow taking the source away.
  const bool to_special = is_special_name(to) && !is_special_name(from);
  if (folder && to_special && !may(FSOP_MOVE_SRC, from)) return false;
  return may(moves ? FSOP_MOVE_SRC : FSOP_OPEN_WRITE, from) &&
         may(moves ? FSOP_MOVE_DEST : FSOP_RENAME_DEST, to);
}

// Writing to a folder means making something in it.
bool Judge::may_change(const std::string& path) const {
  if (type_of(path) != FSTYPE_FOLDER) return may(FSOP_OPEN_WRITE, path);
  if (path.empty()) return caller_.name == "syncagent";
  return may(FSOP_MKDIR, path + "/(new)");
}

}  // namespace tavrix::test
