// SPDX-License-Identifier: LGPL-3.0-or-later
// The identity of a connection. It is built from the user database and the group list map file, and
// rebuilt when a refresh file is touched or the effective user changes.

#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "internal/scoped.hpp"
#include "logging.h"
#include "perm_enforcer.h"
#include "tavrix_getgrouplist.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

constexpr long kPasswordBufferSize = 16384;  // used when the system suggests no size
constexpr std::size_t kLargestPasswordBuffer = std::size_t{1} << 20;

// The group list map file. A process has one mapping, which lives until the next refresh.
class GroupListMapping {
 public:
  void drop() noexcept {
    if (address_ != nullptr) tavrix_unmap(address_, size_);
    address_ = nullptr;
    size_ = 0;
  }
  // false without a usable file.
  [[nodiscard]] bool load() noexcept {
    unsigned int size = 0;
    void* address = tavrix_mapfile(TAVRIX_GROUPMAP_PATH, &size);
    // A failed mapping comes back as all ones.
    if (address == nullptr || address == MAP_FAILED || size == 0) return false;
    address_ = address;
    size_ = size;
    return true;
  }
  [[nodiscard]] gid_t reserved_gid(const char* group) const noexcept {
    return tavrix_reserved_gid(static_cast<const mapheader*>(address_), size_, group);
  }
  [[nodiscard]] gid_t* groups_of(const char* user, unsigned int& count) const noexcept {
    return tavrix_getgrouplist(static_cast<const mapheader*>(address_), size_, user, &count);
  }

 private:
  void* address_ = nullptr;
  unsigned int size_ = 0;
};

GroupListMapping group_list_mapping;

// A user's password entry, with the buffer that holds its strings.
class PasswordEntry {
 public:
  // false without an entry, after a line in the system log.
  [[nodiscard]] bool load(uid_t uid, const char* function) {
    const long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    auto size = static_cast<std::size_t>(suggested == -1 ? kPasswordBufferSize : suggested);
    passwd* found = nullptr;
    int error = 0;
    do {
      buffer_.reset(static_cast<char*>(std::calloc(1, size)));
      if (buffer_ == nullptr) {
        TAVRIX_LOG(0, "Cannot allocate memory of size %d\n", static_cast<int>(size));
        return false;
      }
      error = getpwuid_r(uid, &entry_, buffer_.get(), size, &found);
      size *= 2;
    } while (error == ERANGE && size <= kLargestPasswordBuffer);
    if (error != 0) {
      TAVRIX_LOG(0, "Cannot get username for uid %d to update user's groups: %s\n",
                 static_cast<int>(uid), strerror(error));
      return false;
    }
    if (found == nullptr) {
      TAVRIX_LOG(0, "%s: No user with uid %u\n", function, uid);
      return false;
    }
    return true;
  }
  [[nodiscard]] const char* name() const noexcept { return entry_.pw_name; }
  [[nodiscard]] gid_t gid() const noexcept { return entry_.pw_gid; }

 private:
  passwd entry_{};
  CString buffer_;
};

void drop_groups(process_trustees_s& identity) {
  group_list_mapping.drop();
  std::free(identity.gids);
  identity.gids = nullptr;
  identity.num_sup_gids = 0;
}

// The modification time of a refresh file; 0 when it is missing.
time_t modification_time(const char* path, bool& missing) {
  struct stat status {};
  missing = stat(path, &status) == -1;
  return missing ? 0 : status.st_mtime;
}

}  // namespace
}  // namespace tavrix

int is_computer_name(const char* user_name) {
  if (user_name == nullptr || *user_name == '\0') return 0;
  return user_name[std::strlen(user_name) - 1] == '$' ? 1 : 0;
}

int _check_if_special_user(const char* account_name) { return is_computer_name(account_name); }

// The groups come from the name that the client gave; the primary group and the kind of account
// come from the user that the process serves.
int reset_groupmap(connection_private_data_s* connection) {
  const uid_t uid = connection->refresh_creds.euid;
  process_trustees_s& identity = connection->groupmap;
  if (connection->user_name_as_passed_in == nullptr) {
    TAVRIX_LOG(0, "%s: user_name is NULL will not continue with reset_groupmap\n", __func__);
    return 0;
  }
  identity.euid = uid;
  identity.egid = getgid();

  tavrix::PasswordEntry entry;
  if (!entry.load(uid, __func__)) return -1;
  identity.is_computer_acct = is_computer_name(entry.name());
  identity.egid = entry.gid();

  tavrix::drop_groups(identity);
  if (!tavrix::group_list_mapping.load()) return 0;
  const gid_t powerusers = tavrix::group_list_mapping.reserved_gid("tavrix-powerusers");
  const gid_t admins = tavrix::group_list_mapping.reserved_gid("tavrix-admins");
  vfs_set_admins_powerusers(admins, powerusers);

  unsigned int count = 0;
  identity.gids = tavrix::group_list_mapping.groups_of(connection->user_name_as_passed_in, count);
  identity.num_sup_gids = static_cast<int>(count);
  TAVRIX_LOG(10, "Loaded %d groups at %p\n", identity.num_sup_gids,
             static_cast<const void*>(identity.gids));
  return 0;
}

// A plain function with the signature of a signal handler.
void flush_perms_handler(int signal, connection_private_data_s* connection) {
  TAVRIX_LOG(10, "Resetting Tavrix permission caches and group maps for process %d\n", getpid());
  if (signal != SIGUSR1) {
    TAVRIX_LOG(0, "Unexpected signal %d caught \n", signal);
    return;
  }
  if (reset_groupmap(connection) != 0) {
    TAVRIX_LOG(0, "Could not reset global groupmap. Permissions are stale\n");
  }
  TAVRIX_LOG(10, "Tavrix permission caches and group maps for process %d was reset.\n", getpid());
  // A computer account gets no verdict from the cache, so there is nothing to flush.
  if (connection->groupmap.is_computer_acct != 0) return;
  refresh_credentials_s& creds = connection->refresh_creds;
  vfs_table_cache_s& cache = connection->vfs_table_cache;
  cache.flush_tlb = TAVRIX_TLB_FLUSH_REQUESTED;
  TAVRIX_LOG(3,
             "Flushing from tlb owner %d to new owner %d permissions for %d, flush_tlb: %d, "
             "flush_tlb addr: %p\n",
             static_cast<int>(creds.tlb_owner), static_cast<int>(creds.euid), getpid(),
             cache.flush_tlb, static_cast<const void*>(&cache.flush_tlb));
  creds.tlb_owner = creds.euid;
}

// Stores the time of the refresh, not the modification time of the file.
void refresh_credentials(connection_private_data_s* connection) {
  refresh_credentials_s& creds = connection->refresh_creds;
  const time_t now = time(nullptr);
  bool refresh = false;
  bool missing = false;

  const time_t groupmap_time = tavrix::modification_time(TAVRIX_GROUPMAP_MARKER_PATH, missing);
  if (missing) {
    TAVRIX_LOG(0, "Error: Group map refresh file %s is missing\n", TAVRIX_GROUPMAP_MARKER_PATH);
  } else if (groupmap_time > creds.groupmap_refresh) {
    TAVRIX_LOG(10, "Tavrix Group map will be refreshed  for process %d %u for pid %d \n",
               static_cast<int>(groupmap_time), static_cast<unsigned>(creds.groupmap_refresh),
               getpid());
    creds.groupmap_refresh = now;
    refresh = true;
  }

  const time_t permission_time = tavrix::modification_time(TAVRIX_PERMISSION_MARKER_PATH, missing);
  if (missing) {
    TAVRIX_LOG(0, "Error: Permission map refresh file %s is missing\n",
               TAVRIX_PERMISSION_MARKER_PATH);
  } else if (permission_time > creds.permmap_refresh) {
    // The first number is the group map's time here too; log readers expect it.
    TAVRIX_LOG(10, "Tavrix Permissions map will be refreshed for process %d %u for pid %d \n",
               static_cast<int>(groupmap_time), static_cast<unsigned>(creds.permmap_refresh),
               getpid());
    creds.permmap_refresh = now;
    refresh = true;
  }

  // A process that is root at the moment still serves the same user.
  const uid_t current = geteuid();
  if (current != 0 && current != creds.euid) {
    TAVRIX_LOG(10, "set refresh_creds.euid to curr_uid=%u\n", current);
    creds.euid = current;
    refresh = true;
  }
  if (refresh) flush_perms_handler(SIGUSR1, connection);
}
