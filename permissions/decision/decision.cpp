// SPDX-License-Identifier: LGPL-3.0-or-later
// The decision: a verdict for one operation on one path by one caller.

#include <sys/stat.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_enforcer.h"
#include "permissions/decision/caller.hpp"
#include "permissions/decision/decision.hpp"
#include "permissions/map/held_table.hpp"
#include "permissions/map/image_lookup.hpp"
#include "tavrix_utils.h"
#include "utils/root_scope.hpp"

namespace tavrix {
namespace {

// A path begins with the tree and a slash. The decision removes that many bytes without looking at
// them, whatever the share root is: module and library have agreed on the number.
constexpr std::size_t kTreePrefix = std::string_view(TAVRIX_TREE "/").size();
static_assert(kTreePrefix == 8);

constexpr uint32_t kReadOnly = TAVRIX_PERM_MASK_RDONLY;
constexpr uint32_t kEverything = TAVRIX_PERM_MASK_RDWRDEL;

constexpr std::string_view kPrivatePrefix = "private/";
constexpr std::string_view kSharedPrefix = "shared/";

const char* shown(const char* text) { return text != nullptr ? text : "NULL"; }
const char* shown(const CString& text) { return text != nullptr ? text.get() : ""; }

// "root/path", with only the first `length` bytes of the path.
CString join(const char* root, const char* path, std::size_t length) {
  const std::size_t root_length = std::strlen(root);
  CString joined(static_cast<char*>(std::malloc(root_length + 1 + length + 1)));
  if (joined == nullptr) return joined;
  char* end = static_cast<char*>(std::memcpy(joined.get(), root, root_length)) + root_length;
  *end++ = '/';
  std::memcpy(end, path, length);
  end[length] = '\0';
  return joined;
}

bool begins_with(const char* path, std::string_view prefix) {
  return _paths_match_len(path, prefix.data(), prefix.size()) != 0;
}

bool is_missing(int error) { return error == ENOENT || error == ESRCH || error == ENOTDIR; }

using Verdict = e_vfs_enforce_perms;
using Ruling = std::optional<Verdict>;  // none: the next step rules
constexpr Ruling kGoOn = std::nullopt;

// The working values of one decision, and its steps in their order. The first step that returns a
// verdict ends the decision. Servers use the one without an observer, which is compiled without a
// trace of it.
template <bool kIsObserved>
class Decision {
 public:
  Decision(const char* share_root, const char* in_path, e_fsop_type op, process_trustees_s& caller,
           int force_path_type, int& is_nav, Observer* observer) noexcept
      : share_root_(share_root),
        in_path_(in_path),
        op_(op),
        caller_(caller),
        force_path_type_(force_path_type),
        is_nav_(is_nav),
        observer_(observer) {}

  Verdict run() {
    const Verdict verdict = decide();
    TAVRIX_LOG(2,
               "ENFORCE_PERMS Returning verdict={%d} share_root=(%s) in_path=(%s) real_path=[%s]",
               static_cast<int>(verdict), shown(share_root_), in_path_, shown(real_path_));
    return verdict;
  }

 private:
  Verdict decide() {
    Ruling ruling = normalize_names();
    if (!ruling) ruling = allow_share_root();
    if (!ruling) ruling = refuse_standard_user();
    if (!ruling) ruling = find_path_type();
    if (!ruling) ruling = allow_shortcuts();
    if (!ruling) ruling = check_trustees();
    if (!ruling) ruling = find_parent();
    if (!ruling) ruling = judge_private();
    if (!ruling) ruling = read_map();
    if (!ruling) ruling = judge_shared();
    if (!ruling) ruling = judge_top_level();
    return *ruling;
  }

  // --- names, caller and object -----------------------------------------------------------------

  Ruling normalize_names() {
    const bool is_root = share_root_ != nullptr && _paths_match(in_path_, share_root_) != 0;
    const char* path = is_root ? in_path_ : in_path_ + strnlen(in_path_, kTreePrefix);
    real_path_.reset(normalize_path(path));
    if (real_path_ == nullptr) return unusable_path(errno);
    TAVRIX_LOG(4, "ENFORCE_PERMS %s normalized to %s, change '' to '.' if needed", in_path_,
               real_path_.get());
    if (*real_path_ == '\0') {
      real_path_.reset(strdup("."));
      if (real_path_ == nullptr) return unusable_path(ENOMEM);
      TAVRIX_LOG(4, "ENFORCE_PERMS : set realpath to '.'");
    }
    real_root_.reset(normalize_path(share_root_));
    if (real_root_ == nullptr) {
      TAVRIX_LOG(0, "ENFORCE_PERMS normalize(%s) failed for root: %s", shown(share_root_),
                 strerror(errno));
      return fail(Ground::kBadShareRoot);
    }
    if (is_observed()) observer_->on_path(real_path_.get());
    return kGoOn;
  }

  Verdict unusable_path(int error) const {
    if (error == ENOMEM) {
      TAVRIX_LOG(0, "ENFORCE_PERMS path normalization failed %s: %s", in_path_, strerror(error));
      return fail(Ground::kNoMemory, TXPERMS_MALLOC_ERR);
    }
    if (error != ENOENT) {
      TAVRIX_LOG(0, "ENFORCE_PERMS path normalization failed for %s: code=%d (%s)", in_path_, error,
                 strerror(error));
      TAVRIX_REQUIRE(error == ENOENT, "0");
    }
    // The path climbs above the share root. The file system refuses it later.
    TAVRIX_LOG(2, "returning HAS_PERMS, path normalization returned an unusable path %s: %s",
               in_path_, strerror(error));
    tell(Ground::kClimbs);
    return TXPERMS_HAS_PERMS;
  }

  Ruling allow_share_root() const {
    if (_paths_match(real_path_.get(), real_root_.get()) == 0) return kGoOn;
    TAVRIX_LOG(2, "ENFORCE_PERMS path matches root (%s), (%s) has HAS_PERMS", real_root_.get(),
               real_path_.get());
    return grant(Ground::kShareRoot);
  }

  Ruling refuse_standard_user() const {
    if (!classify(caller_)) {
      TAVRIX_LOG(0, "ENFORCE_PERMS ERR cannot determine user type pid:(%d) uid:(%d) op:(%d)",
                 getpid(), static_cast<int>(caller_.euid), static_cast<int>(op_));
      return fail(Ground::kBadGroups);
    }
    if (is_observed()) observer_->on_caller(caller_);
    if (is_admin() || is_poweruser()) return kGoOn;
    TAVRIX_LOG(2, "ENFORCE_PERMS DENIED permission to standard user");
    TAVRIX_LOG(2, "ENFORCE_PERMS DENIED standard usr pid:(%d) uid:(%d) op:(%d)", getpid(),
               static_cast<int>(caller_.euid), static_cast<int>(op_));
    tell(Ground::kStandardUser);
    return TXPERMS_STANDARD_USER;
  }

  Ruling find_path_type() {
    const Ruling failed = look_at_object();
    if (!failed && is_observed()) observer_->on_object(path_type_);
    return failed;
  }

  Ruling look_at_object() {
    const CString stat_path = join(real_root_.get(), real_path_.get(), path_length());
    if (stat_path == nullptr) {
      TAVRIX_LOG(0, "ENFORCE_PERMS malloc failed for the path to stat of %s", real_path_.get());
      return fail(Ground::kNoMemory, TXPERMS_MALLOC_ERR);
    }
    TAVRIX_LOG(4, "ENFORCE_PERMS real_root=[%s] real_path=[%s], stat_path=[%s]", real_root_.get(),
               real_path_.get(), stat_path.get());
    if (force_path_type_ != 0) {
      path_type_ = static_cast<e_file_type>(force_path_type_);
      return kGoOn;
    }
    struct stat status {};
    if (const int result = stat_as_root(stat_path.get(), status); result == -1) {
      if (!is_missing(errno)) {
        TAVRIX_LOG(0, "ENFORCE_PERMS stat(%s) failed, code=%d (%s)", stat_path.get(), errno,
                   strerror(errno));
        return fail(Ground::kNoLook);
      }
      TAVRIX_LOG(4, "stat(%s) returned %d, does not exist", stat_path.get(), result);
      path_type_ = FSTYPE_DOES_NOT_EXIST;
    } else if (S_ISDIR(status.st_mode)) {
      TAVRIX_LOG(4, "path '%s' is a folder", stat_path.get());
      path_type_ = FSTYPE_FOLDER;
    } else {
      TAVRIX_LOG(4, "path '%s' is NOT a folder", stat_path.get());
      path_type_ = FSTYPE_FILE;
    }
    return kGoOn;
  }

  // Grants a status query of a wildcard, and opening any folder for reading.
  Ruling allow_shortcuts() const {
    TAVRIX_LOG(4, "check for last path component of '*'");
    if (op_ == FSOP_STAT || op_ == FSOP_LSTAT) {
      const std::string_view path(real_path_.get());
      if (path != "*" && !path.ends_with("/*")) return kGoOn;
      TAVRIX_LOG(2, "Allow for stat of * component: %s", real_path_.get());
      return grant(Ground::kWildcard);
    }
    if (op_ != FSOP_OPEN_READ || path_type_ != FSTYPE_FOLDER) return kGoOn;
    TAVRIX_LOG(2, "ENFORCE_PERMS GRANTED OPEN_READ on a folder, returning HAS_PERMS");
    return grant(Ground::kFolderToRead);
  }

  Ruling check_trustees() const {
    TAVRIX_LOG(4, "ENFORCE_PERMS checking trustees");
    if (caller_.num_sup_gids >= 0 && (caller_.num_sup_gids == 0 || caller_.gids != nullptr)) {
      return kGoOn;
    }
    TAVRIX_LOG(0, "ENFORCE_PERMS Invalid argument pts->num_sup_gids %d pts->gids %p",
               caller_.num_sup_gids, static_cast<const void*>(caller_.gids));
    return fail(Ground::kBadGroups, TXPERMS_INVALID_ARGS);
  }

  Ruling find_parent() {
    real_parent_.reset(parent_dir_from_path(real_path_.get()));
    if (real_parent_ != nullptr) return kGoOn;
    TAVRIX_LOG(0, "ENFORCE_PERMS DENIED malloc failed getting parent of %s", real_path_.get());
    return fail(Ground::kNoMemory);
  }

  // --- Private: one folder for each user, ruled by its owner and not by the map -----------------

  Ruling judge_private() {
    TAVRIX_LOG(4, "ENFORCE_PERMS checking for Private/");
    if (!begins_with(real_path_.get(), kPrivatePrefix)) return kGoOn;

    const bool is_user_folder = _paths_match(real_parent_.get(), "private") != 0;
    if (is_user_folder && is_file_operation()) {
      TAVRIX_LOG(2, "ENFORCE_PERMS disallow file operations in Private");
      return refuse(Ground::kFileInPrivate);
    }
    if (is_user_folder && is_admin()) {
      TAVRIX_LOG(2, "allow R for admins in Private");
      TAVRIX_LOG(2, "admin, enforce for R/R");
      return judge(Ground::kAdministratorAtUserFolder, kReadOnly, kReadOnly);
    }
    return judge_in_user_folder(is_user_folder);
  }

  Ruling judge_in_user_folder(bool is_user_folder) {
    TAVRIX_LOG(4, "get subdir under Private");
    const std::string_view path(real_path_.get(), path_length());
    const std::size_t slash = path.find('/', kPrivatePrefix.size());
    const std::size_t length = slash == std::string_view::npos ? path.size() : slash;
    const CString user_folder = join(real_root_.get(), path.data(), length);
    if (user_folder == nullptr) {
      TAVRIX_LOG(0, "ENFORCE_PERMS malloc failed for the user folder of %s", real_path_.get());
      return fail(Ground::kNoMemory);
    }
    TAVRIX_LOG(4, "Built full private path: '%s'", user_folder.get());

    struct stat status {};
    if (stat_as_root(user_folder.get(), status) == -1) {
      if (errno == ENOENT) {
        TAVRIX_LOG(2, "Private subdir '%s' does not exist", user_folder.get());
        return refuse(Ground::kNoUserFolder);
      }
      TAVRIX_LOG(0, "ENFORCE_PERMS stat(%s) failed: %s", user_folder.get(), strerror(errno));
      return fail(Ground::kNoLook);
    }
    TAVRIX_LOG(4, "Performed stat for: %s, checking for admin", user_folder.get());
    if (is_admin()) {
      TAVRIX_LOG(2, "admin, enforce for RWD/RWD");
      return judge(Ground::kAdministratorInPrivate, kEverything, kEverything);
    }
    if (status.st_uid != caller_.euid) {
      TAVRIX_LOG(2, "ENFORCE_PERMS UID %d does not match %d for path %s in /Private",
                 static_cast<int>(caller_.euid), static_cast<int>(status.st_uid), real_path_.get());
      return refuse(Ground::kAnothersUserFolder);
    }
    if (is_user_folder) {
      TAVRIX_LOG(4, "UID %d matches %d for path %s in /Private", static_cast<int>(caller_.euid),
                 static_cast<int>(status.st_uid), real_path_.get());
      TAVRIX_LOG(2, "parent is /Private, enforce for R/R");
      return judge(Ground::kOwnUserFolder, kReadOnly, kReadOnly);
    }
    if (modifies_folder() && length == path.size()) {
      TAVRIX_LOG(2, "ENFORCE_PERMS deny for modify op on Private/subdir");
      return refuse(Ground::kOwnUserFolderChanged);
    }
    TAVRIX_LOG(2, "ENFORCE_PERMS allow for user's own Private subdir");
    return grant(Ground::kBelowOwnUserFolder);
  }

  // --- the map: rights on the object and on its parent ------------------------------------------

  Ruling read_map() {
    AclPtr acl;
    AclPtr parent_acl;
    if (const Ruling failed = read_acls(acl, parent_acl); failed) return failed;
    if (path_type_ == FSTYPE_DOES_NOT_EXIST) {
      // An object that does not exist yet is judged by its folder alone.
      TAVRIX_LOG(2, "ENFORCE_PERM GRANTED RWD for non-existent path");
      perm_mask_ = kEverything;
    } else {
      perm_mask_ = rights_of(caller_, *acl, Subject::kObject, observer_).mask;
    }
    p_perm_mask_ = rights_of(caller_, *parent_acl, Subject::kParent, observer_).mask;
    if (is_observed()) observer_->on_masks(perm_mask_, p_perm_mask_);
    return kGoOn;
  }

  Ruling read_acls(AclPtr& acl, AclPtr& parent_acl) {
    if (const void* other = is_observed() ? observer_->other_map() : nullptr; other != nullptr)
      return look_up(other, acl, parent_acl);
    TAVRIX_LOG(4, "ENFORCE_PERMS Before get_perm_map_addr");
    const CurrentTable table(root_);
    void* perm_buf = table.get();
    TAVRIX_LOG(4, "ENFORCE_PERMS After get_perm_map_addr %p", perm_buf);
    if (perm_buf == nullptr) {
      TAVRIX_LOG(0, "ENFORCE_PERMS ERROR Cannot access the permission map");
      return fail(Ground::kNoMap);
    }
    return look_up(perm_buf, acl, parent_acl);
  }

  Ruling look_up(const void* perm_buf, AclPtr& acl, AclPtr& parent_acl) {
    TAVRIX_LOG(4, "ENFORCE_PERMS get_tavrix_acl perm_buf=%p, real_path=%s", perm_buf,
               real_path_.get());
    const std::string_view path(real_path_.get(), path_length());
    int failure = 0;
    if constexpr (kIsObserved) {
      AclSources sources;
      failure = governing_acls(perm_buf, path, acl, parent_acl, &sources);
      if (failure == 0) {
        observer_->on_acl(Subject::kObject, perm_buf, sources.self, *acl);
        observer_->on_acl(Subject::kParent, perm_buf, sources.parent, *parent_acl);
      }
    } else {
      failure = governing_acls(perm_buf, path, acl, parent_acl);
    }
    if (failure == 0) return kGoOn;
    if (acl == nullptr) {
      TAVRIX_LOG(0, "ENFORCE_PERMS ERROR Cannot read tavrix ACL");
    } else {
      TAVRIX_LOG(0, "ENFORCE_PERMS ERROR Cannot read parent tavrix ACL");
    }
    return fail(Ground::kNoAcl);
  }

  // --- Shared: team folders, ruled by the map ---------------------------------------------------

  Ruling judge_shared() {
    TAVRIX_LOG(4, "checking for Shared/");
    if (!begins_with(real_path_.get(), kSharedPrefix)) return kGoOn;
    TAVRIX_LOG(4, "ENFORCE_PERMS path is in Shared/ check if parent is Shared");
    const bool is_team_folder = _paths_match(real_parent_.get(), "shared") != 0;
    if (is_team_folder) {
      TAVRIX_LOG(4, "ENFORCE_PERMS parent is Shared");
      if (is_file_operation()) {
        TAVRIX_LOG(2, "ENFORCE_PERMS DENIED no files allowed in Shared, type: %d, op: %d",
                   static_cast<int>(path_type_), static_cast<int>(op_));
        return refuse(Ground::kFileInShared);
      }
    }
    if (is_admin()) {
      TAVRIX_LOG(2,
                 "Calling enforce_tavrix_permissions with op: %d, perm mask: "
                 "TAVRIX_PERM_MASK_RDWRDEL, parent perm mask: TAVRIX_PERM_MASK_RDWRDEL",
                 static_cast<int>(op_));
      TAVRIX_LOG(2, "ENFORCE_PERMS GRANTED RDWRDEL for Admin");
      return judge(Ground::kAdministratorInShared, kEverything, kEverything);
    }
    if (is_team_folder) {
      TAVRIX_LOG(2,
                 "ENFORCE_PERMS Calling enforce_tavrix_permissions with op=%d perm mask=%o, parent "
                 "perm mask: TAVRIX_PERM_MASK_NAVIGATE",
                 static_cast<int>(op_), perm_mask_);
      return judge(Ground::kTeamFolder, perm_mask_, TAVRIX_PERM_MASK_NAVIGATE);
    }
    TAVRIX_LOG(
        2, "Calling enforce_tavrix_permissions with op: %d, perm mask: %o, parent perm mask: %o",
        static_cast<int>(op_), perm_mask_, p_perm_mask_);
    return judge(Ground::kBelowTeamFolder, perm_mask_, p_perm_mask_);
  }

  // --- the top level: Private, Shared and "." ---------------------------------------------------

  Ruling judge_top_level() {
    TAVRIX_LOG(4, "ENFORCE_PERMS UNKNOWN_PATH neither in /Shared nor /Private");
    const std::string_view parent(real_parent_.get());
    if (!parent.empty() && parent != "/") {
      TAVRIX_LOG(2, "Invalid Tavrix path '%s'", real_path_.get());
      return refuse(Ground::kOutside);
    }
    if (is_file_operation()) {
      TAVRIX_LOG(2, "Deny due to file or file operation in Tavrix root, type: %d, op: %d",
                 static_cast<int>(path_type_), static_cast<int>(op_));
      return refuse(Ground::kFileAtTop);
    }
    TAVRIX_LOG(4, "ENFORCE_PERMS UNKNOWN_PATH check if path is Private");
    if (_paths_match(real_path_.get(), "private") != 0) return judge_private_itself();
    TAVRIX_LOG(4, "ENFORCE_PERMS UNKNOWN_PATH check if path is Shared");
    if (_paths_match(real_path_.get(), "shared") != 0) {
      TAVRIX_LOG(2, "everyone has R/R permission for /Shared");
      TAVRIX_LOG(2,
                 "Calling enforce_tavrix_permissions with op: %d, perm mask: "
                 "TAVRIX_PERM_MASK_RDONLY, parent perm mask: TAVRIX_PERM_MASK_RDONLY",
                 static_cast<int>(op_));
      return judge(Ground::kSharedItself, kReadOnly, kReadOnly);
    }
    TAVRIX_LOG(4, "ENFORCE_PERMS UNKNOWN_PATH Check for '.' which is a valid folder under root");
    if (_paths_match(real_path_.get(), ".") != 0) {
      TAVRIX_LOG(2, "everyone has R/R permission for '.'");
      return judge(Ground::kTopItself, kReadOnly, kReadOnly);
    }
    TAVRIX_LOG(2, "ENFORCE_PERMS UNKNOWN_PATH Invalid Tavrix path '%s' under root",
               real_path_.get());
    return refuse(Ground::kUnknownAtTop);
  }

  Verdict judge_private_itself() const {
    if (is_admin() || is_poweruser()) {
      TAVRIX_LOG(2, "admin and power users have R/R permission for /Private");
      return judge(Ground::kPrivateItself, kReadOnly, kReadOnly);
    }
    TAVRIX_LOG(2, "ENFORCE_PERMS non-(admin|power user) has no permission for /Private");
    return refuse(Ground::kPrivateItselfClosed);
  }

  // --- verdicts ---------------------------------------------------------------------------------

  [[nodiscard]] static constexpr bool is_observed() { return kIsObserved; }
  void tell(Ground ground) const {
    if (is_observed()) observer_->on_ground(ground);
  }

  Verdict fail(Ground ground, Verdict verdict = TXPERMS_SYSTEM_ERR) const {
    tell(ground);
    return verdict;
  }

  Verdict judge(Ground ground, uint32_t self, uint32_t parent) const {
    const Verdict verdict = kIsObserved ? ask_rule(op_, path_type_, self, parent, observer_)
                                        : enforce_tavrix_permissions(op_, path_type_, self, parent);
    if (verdict == TXPERMS_HAS_PERMS) return grant(ground);
    if (verdict == TXPERMS_NO_PERM) return refuse(ground);
    return verdict;
  }

  // Grants. `is_nav` becomes 1 when the grant rests on navigating or viewing alone: the client may
  // see the object and not open it.
  Verdict grant(Ground ground) const {
    tell(ground);
    is_nav_ = perm_mask_ == TAVRIX_PERM_MASK_NAVIGATE || perm_mask_ == TAVRIX_PERM_MASK_VIEWER_ONLY
                  ? 1
                  : 0;
    TAVRIX_LOG(2, "ENFORCE_PERMS GRANTED for op=(%d) real_path=(%s)", static_cast<int>(op_),
               real_path_.get());
    return TXPERMS_HAS_PERMS;
  }

  // Refuses, unless the path is one of the bookkeeping files that clients keep in every folder.
  Verdict refuse(Ground ground) const {
    if (is_special_folder_file(real_path_.get()) != 0) {
      TAVRIX_LOG(2, "ENFORCE_PERMS got NO PERM but path is a special path so overturn verdict");
      if (is_observed()) observer_->on_special_path();
      return grant(ground);
    }
    tell(ground);
    is_nav_ = 0;
    TAVRIX_LOG(2, "ENFORCE_PERMS DENIED for op=(%d) real_path=(%s)", static_cast<int>(op_),
               real_path_.get());
    return TXPERMS_NO_PERM;
  }

  // Looks as root, because the client itself may not reach the object.
  int stat_as_root(const char* path, struct stat& status) {
    root_.become();
    return stat(path, &status);
  }

  [[nodiscard]] bool is_admin() const { return caller_.admin != 0; }
  [[nodiscard]] bool is_poweruser() const { return caller_.poweruser != 0; }
  [[nodiscard]] bool is_file_operation() const {
    return path_type_ == FSTYPE_FILE || op_ == FSOP_CREATE;
  }
  [[nodiscard]] bool modifies_folder() const {
    switch (op_) {
      case FSOP_UNLINK:
      case FSOP_RENAME_SRC:
      case FSOP_RENAME_DEST:
      case FSOP_MKDIR:
      case FSOP_RMDIR:
        return true;
      default:
        return false;
    }
  }
  [[nodiscard]] std::size_t path_length() const { return std::strlen(real_path_.get()); }

  const char* share_root_;
  const char* in_path_;
  e_fsop_type op_;
  process_trustees_s& caller_;
  int force_path_type_;
  int& is_nav_;
  Observer* observer_;

  CString real_path_;  // relative to the share root
  CString real_root_;
  CString real_parent_;  // of real_path_; empty for a top-level name
  e_file_type path_type_ = FSTYPE_INVAL;
  uint32_t perm_mask_ = 0;
  uint32_t p_perm_mask_ = 0;
  LazyRoot root_;  // looks at objects and attaches the table
};

// Both kinds of decision. Its messages carry its name, which is the exported function's.
template <bool kIsObserved>
Verdict vfs_enforce_perms(const char* share_root, const char* in_path, e_fsop_type op,
                          process_trustees_s* in_pts, int force_path_type, int* is_nav,
                          Observer* observer) {
  TAVRIX_LOG(2, "ENFORCE_PERMS op=(%d) root=(%s) \n path=(%s) pid=(%d) uid=(%d)",
             static_cast<int>(op), shown(share_root), shown(in_path), getpid(),
             in_pts != nullptr ? static_cast<int>(in_pts->euid) : -1);
  if (in_path == nullptr || is_nav == nullptr || op < FSOP_CREATE || op > FSOP_FGETNTACL ||
      in_pts == nullptr) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Invalid argument path %s acl %d", shown(in_path),
               static_cast<int>(op));
    return TXPERMS_INVALID_ARGS;
  }
  *is_nav = 0;
  return Decision<kIsObserved>(share_root, in_path, op, *in_pts, force_path_type, *is_nav, observer)
      .run();
}

}  // namespace

e_vfs_enforce_perms decide(const char* share_root, const char* in_path, e_fsop_type op,
                           process_trustees_s* in_pts, int force_path_type, int* is_nav,
                           Observer* observer) {
  if (observer == nullptr)
    return ::vfs_enforce_perms(share_root, in_path, op, in_pts, force_path_type, is_nav);
  return vfs_enforce_perms<true>(share_root, in_path, op, in_pts, force_path_type, is_nav,
                                 observer);
}

}  // namespace tavrix

e_vfs_enforce_perms vfs_enforce_perms(const char* share_root, const char* in_path, e_fsop_type op,
                                      process_trustees_s* in_pts, int force_path_type,
                                      int* is_nav) {
  return tavrix::vfs_enforce_perms<false>(share_root, in_path, op, in_pts, force_path_type, is_nav,
                                          nullptr);
}
