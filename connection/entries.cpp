// SPDX-License-Identifier: LGPL-3.0-or-later
// Decisions about the entries of a folder, for listings.

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "connection/check_perms.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_enforcer.h"
#include "tavrix_session.h"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

class DecisionScope {
 public:
  DecisionScope() noexcept { tavrix_scope_begin(); }
  ~DecisionScope() { tavrix_scope_end(); }
  DecisionScope(const DecisionScope&) = delete;
  DecisionScope& operator=(const DecisionScope&) = delete;
};

// The full names of a folder's entries, one after the other in one buffer. Normalizing the folder
// once is enough for names that normalizing leaves alone.
class EntryNames {
 public:
  EntryNames(const char* share_root, const char* folder) noexcept {
    const CString clean(normalize_path(folder));
    if (clean == nullptr) return;
    const std::string_view root(share_root);
    std::string_view base(clean.get());
    if (base == ".") base = {};
    if (base.starts_with('/')) return;
    root_length_ = root.size() + 1;
    const std::size_t length = root_length_ + base.size() + 1;
    buffer_.reset(static_cast<char*>(std::malloc(length + kRoomForName)));
    if (buffer_ == nullptr) return;
    char* end = static_cast<char*>(mempcpy(buffer_.get(), root.data(), root.size()));
    *end++ = '/';
    if (!base.empty()) {
      end = static_cast<char*>(mempcpy(end, base.data(), base.size()));
      *end++ = '/';
    }
    prefix_length_ = static_cast<std::size_t>(end - buffer_.get());
  }

  // "share root/folder/name"; null for a name that needs more than to be appended.
  [[nodiscard]] const char* full(const char* name) noexcept {
    if (buffer_ == nullptr || *name == '\0') return nullptr;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return nullptr;
    const std::size_t length = strnlen(name, kRoomForName);
    if (length == kRoomForName || std::memchr(name, '/', length) != nullptr) return nullptr;
    std::memcpy(buffer_.get() + prefix_length_, name, length + 1);
    return buffer_.get();
  }
  // The part of the last full name that is relative to the share root.
  [[nodiscard]] const char* relative() const noexcept { return buffer_.get() + root_length_; }

 private:
  static constexpr std::size_t kRoomForName = NAME_MAX + 1;
  CString buffer_;  // null: every name goes the whole way
  std::size_t root_length_ = 0;
  std::size_t prefix_length_ = 0;
};

// The questions of one call, and their answers.
class Entries {
 public:
  Entries(const char* share_root, const char* folder, e_fsop_type op,
          connection_private_data_s& connection) noexcept
      : share_root_(share_root),
        folder_(folder),
        op_(op),
        connection_(connection),
        names_(share_root, folder) {}

  [[nodiscard]] e_vfs_enforce_perms answer(const tavrix_entry_s& entry) {
    if (entry.name == nullptr) return TXPERMS_INVALID_ARGS;
    const bool is_decided =
        connection_.reserved_user == 0 && connection_.groupmap.is_computer_acct == 0;
    const char* full = is_decided ? names_.full(entry.name) : nullptr;
    if (full == nullptr) return answer_whole(entry);
    TAVRIX_LOG(1, "Calling vfs_enforce_perms path=(%s) op=(%d), full_path=[%s]\n",
               names_.relative(), static_cast<int>(op_), full);
    int is_nav = 0;
    return vfs_enforce_perms(share_root_, full, op_, &connection_.groupmap, entry.path_type,
                             &is_nav);
  }

 private:
  [[nodiscard]] e_vfs_enforce_perms answer_whole(const tavrix_entry_s& entry) {
    const CString path(get_full_path(folder_, entry.name));
    if (path == nullptr) return TXPERMS_MALLOC_ERR;
    return verdict_on(share_root_, path.get(), op_, connection_, entry.path_type);
  }

  const char* share_root_;
  const char* folder_;
  e_fsop_type op_;
  connection_private_data_s& connection_;
  EntryNames names_;
};

}  // namespace
}  // namespace tavrix

int tavrix_decide_entries(const char* share_root, const char* folder, e_fsop_type op,
                          connection_private_data_s* connection, tavrix_entry_s* entries,
                          size_t stride, size_t count) {
  if (share_root == nullptr || folder == nullptr || connection == nullptr || entries == nullptr ||
      stride < sizeof(tavrix_entry_s)) {
    errno = EINVAL;
    return -1;
  }
  const tavrix::DecisionScope scope;
  tavrix::Entries questions(share_root, folder, op, *connection);
  auto* next = reinterpret_cast<std::byte*>(entries);
  for (size_t left = count; left > 0; --left, next += stride) {
    auto& entry = *reinterpret_cast<tavrix_entry_s*>(next);
    entry.verdict = questions.answer(entry);
  }
  return 0;
}
