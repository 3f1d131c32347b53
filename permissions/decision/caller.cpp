// SPDX-License-Identifier: LGPL-3.0-or-later
// The caller of a decision: its class, and the rights that an ACL gives it.

#include "permissions/decision/caller.hpp"

#include <unistd.h>
#include <algorithm>
#include <span>

#include "logging.h"
#include "perm_enforcer.h"
#include "permissions/decision/observer.hpp"
#include "permissions/map/ace_list.hpp"

namespace tavrix {
namespace {

constexpr gid_t kNoGroup = static_cast<gid_t>(-1);

gid_t tavrix_admins_gid = kNoGroup;
gid_t tavrix_powerusers_gid = kNoGroup;

std::span<const gid_t> supplementary_groups(const process_trustees_s& caller) {
  if (caller.num_sup_gids <= 0 || caller.gids == nullptr) return {};
  return {caller.gids, static_cast<std::size_t>(caller.num_sup_gids)};
}

bool is_member(const process_trustees_s& caller, gid_t gid) {
  const auto groups = supplementary_groups(caller);
  return std::ranges::find(groups, gid) != groups.end();
}

// Sets `indication` to 1 for a member of the group. Only supplementary groups count, not the
// primary one. false when the supplementary groups are missing.
bool _set_group_bit(const process_trustees_s& caller, gid_t gid, int& indication) {
  TAVRIX_LOG(4, "initialize %d indication to 0", static_cast<int>(gid));
  indication = 0;
  if (caller.num_sup_gids > 0 && caller.gids == nullptr) {
    TAVRIX_LOG(0, "ENFORCE_PERMS ERR supplementary groups are missing, count %d",
               caller.num_sup_gids);
    return false;
  }
  if (gid == kNoGroup || !is_member(caller, gid)) return true;
  TAVRIX_LOG(4, "Found %d group in supp group ids, setting indication to 1", static_cast<int>(gid));
  indication = 1;
  return true;
}

bool is_inherited_navigation(const tavrix_ace_s& ace) {
  return ace.ace_type == TAVRIX_ACE_INHERITED && (ace.perm_mask & TAVRIX_PERM_MASK_NAVIGATE) != 0;
}

// The two listeners of an evaluation. A server's hears nothing, and its evaluation is compiled
// without a trace of it.
struct Nobody {
  static constexpr bool kHears = false;
  void operator()(const tavrix_ace_s& /*ace*/, EntryUse /*use*/) const noexcept {}
};
struct Listener {
  static constexpr bool kHears = true;
  Observer& observer;
  Subject subject;
  void operator()(const tavrix_ace_s& ace, EntryUse use) const {
    observer.on_entry(subject, ace, use);
  }
};

template <typename Tell>
void take_user_entry(const process_trustees_s& caller, const tavrix_acl_t& acl, Tell tell,
                     Rights& rights) {
  for (const tavrix_ace_s& ace : aces_of(acl)) {
    if (ace.trustee_type != ACE_TYPE_USER) continue;
    if (ace.trustee.uid != caller.euid) {
      tell(ace, EntryUse::kAnotherUser);
      continue;
    }
    if (is_inherited_navigation(ace)) {
      tell(ace, EntryUse::kInheritedNavigation);
      continue;
    }
    if (Tell::kHears && rights.user_found) {
      tell(ace, EntryUse::kLaterEntry);
      continue;
    }
    rights = {.mask = ace.perm_mask, .user_found = true};
    tell(ace, EntryUse::kCounts);
    if (!Tell::kHears) return;
  }
}

template <typename Tell>
void add_group_entries(const process_trustees_s& caller, const tavrix_acl_t& acl, Subject subject,
                       Tell tell, Rights& rights) {
  for (const tavrix_ace_s& ace : aces_of(acl)) {
    if (ace.trustee_type != ACE_TYPE_GROUP) continue;
    if (subject == Subject::kObject) {
      TAVRIX_LOG(4, "Found Group ACE");
    } else {
      TAVRIX_LOG(4, "Found Parent Group ACE");
    }
    TAVRIX_LOG(4, "ace perm: %o", ace.perm_mask);
    if (ace.ace_type == TAVRIX_ACE_INHERITED) {
      TAVRIX_LOG(4, "ACE is INHERITED");
    } else {
      TAVRIX_LOG(4, "ACE is NOT INHERITED");
    }
    if (is_inherited_navigation(ace)) {
      tell(ace, EntryUse::kInheritedNavigation);
      continue;
    }
    if (ace.trustee.gid != caller.egid && !is_member(caller, ace.trustee.gid)) {
      tell(ace, EntryUse::kNotAMember);
      continue;
    }
    tell(ace, EntryUse::kCounts);
    rights.mask |= ace.perm_mask;
    if (subject == Subject::kObject) {
      TAVRIX_LOG(4, "Group is found, perm is now: %o", rights.mask);
    } else {
      TAVRIX_LOG(4, "Parent Group is found, perm is now: %o", rights.mask);
    }
  }
}

template <typename Tell>
Rights evaluate(const process_trustees_s& caller, const tavrix_acl_t& acl, Subject subject,
                Tell tell) {
  Rights rights;
  take_user_entry(caller, acl, tell, rights);
  if (subject == Subject::kObject) {
    TAVRIX_LOG(4, "ENFORCE_PERMS perm is: %o", rights.mask);
  } else {
    TAVRIX_LOG(4, "ENFORCE_PERMS parent perm is: %o", rights.mask);
  }
  const bool groups_count =
      !rights.user_found || rights.mask == 0 || (rights.mask & TAVRIX_PERM_MASK_NAVIGATE) != 0;
  if (groups_count) {
    add_group_entries(caller, acl, subject, tell, rights);
  } else if (Tell::kHears) {
    for (const tavrix_ace_s& ace : aces_of(acl)) {
      if (ace.trustee_type == ACE_TYPE_GROUP) tell(ace, EntryUse::kSilenced);
    }
  }
  return rights;
}

}  // namespace

bool classify(process_trustees_s& caller) {
  if (!_set_group_bit(caller, tavrix_admins_gid, caller.admin)) {
    TAVRIX_LOG(0, "ENFORCE_PERMS : Failed to _set_admin flag, rtn TXPERMS_SYSTEM_ERR");
    return false;
  }
  if (!_set_group_bit(caller, tavrix_powerusers_gid, caller.poweruser)) {
    TAVRIX_LOG(0, "ENFORCE_PERMS : Failed to _set_poweruser flag, rtn TXPERMS_SYSTEM_ERR");
    return false;
  }
  return true;
}

Rights rights_of(const process_trustees_s& caller, const tavrix_acl_t& acl, Subject subject,
                 Observer* observer) {
  if (observer == nullptr) return evaluate(caller, acl, subject, Nobody{});
  return evaluate(caller, acl, subject, Listener{*observer, subject});
}

}  // namespace tavrix

void vfs_set_admins_powerusers(gid_t admins, gid_t powerusers) {
  tavrix::tavrix_admins_gid = admins;
  tavrix::tavrix_powerusers_gid = powerusers;
  TAVRIX_LOG(4, "\n%s: tavrix_admins_gid=%u tavrix_powerusers_gid=%u", __func__, admins,
             powerusers);
}
