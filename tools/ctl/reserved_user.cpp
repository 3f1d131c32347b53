// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/reserved_user.hpp"

#include "tools/explain/person.hpp"
#include "tools/status/samba.hpp"

namespace tavrix::ctl {

std::set<uint32_t> reserved_uids(const std::string& smb_conf) {
  std::set<uint32_t> uids;
  if (!explain::may_name_reserved_user(smb_conf)) return uids;
  for (const std::string& name :
       explain::reserved_users_in(status::testparm(smb_conf).value_or(""))) {
    if (const auto account = explain::person_named(name, {}); account) {
      uids.insert(account->person.uid);
    }
  }
  return uids;
}

}  // namespace tavrix::ctl
