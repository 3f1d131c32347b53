// SPDX-License-Identifier: LGPL-3.0-or-later
// A share to decide about: a published map, real folders with real owners under /tavrix, and
// callers who ask from processes that have the identity of a Samba server process.
#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "perm_enforcer.h"
#include "tests/support/isolated.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {

inline const std::string kShareRoot = "/tavrix";

constexpr gid_t kAdmins = 9001;      // the group of administrators
constexpr gid_t kPowerUsers = 9002;  // the group of power users
constexpr gid_t kPeople = 9003;      // the primary group of them all
constexpr gid_t kWriters = 9010;
constexpr gid_t kReaders = 9011;

struct Caller {
  std::string name;
  uid_t uid;
  gid_t gid;
  std::vector<gid_t> groups;  // supplementary
};

extern const Caller kAdministrator;
extern const Caller kStandardUser;
extern const Caller kPat;   // a power user in no team, with a folder in Private
extern const Caller kOlga;  // another one
extern const Caller kAnna;  // a power user among the writers
extern const Caller kBen;   // a power user among the readers
std::vector<Caller> all_callers();

struct Ruling {
  int verdict = 0;
  int is_nav = 0;
  bool operator==(const Ruling&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Ruling& ruling);
constexpr Ruling kGranted{TXPERMS_HAS_PERMS, 0};
constexpr Ruling kGrantedToSee{TXPERMS_HAS_PERMS, 1};
constexpr Ruling kRefused{TXPERMS_NO_PERM, 0};
constexpr Ruling kRefusedStandardUser{TXPERMS_STANDARD_USER, 0};
constexpr Ruling kSystemError{TXPERMS_SYSTEM_ERR, 0};

// The state of a server process that a decision must not change: its ids, its supplementary
// groups, its attached segments, its blocks on the heap.
struct Footprint {
  Ids ids;
  std::vector<gid_t> groups;
  long blocks = 0;
  std::vector<std::string> segments;
  bool operator==(const Footprint&) const = default;
};
Footprint footprint_now();

// --- in a process of the caller -----------------------------------------------------------------

// Asks as the caller of this process, and expects the same footprint afterwards. A nonzero type is
// passed to the library; with 0 the library looks at the object itself.
Ruling ask(e_fsop_type op, const std::string& path, int type = 0);
// The same about a path of the share: "Shared/x" for "/tavrix/Shared/x".
Ruling ask_share(e_fsop_type op, const std::string& path, int type = 0);

// The least debug level that shows the message while the question is answered; 99: none does.
int level_when_asking(const std::string& message, e_fsop_type op, const std::string& path,
                      int type = 0);

// The identity that ask() hands to the library.
process_trustees_s trustees_of(const Caller& caller);

class Share : public Isolated {
 protected:
  void SetUp() override;

  // Runs the body in a process with the identity that a Samba server has inside a hook for this
  // caller, and expects it to end well.
  static void as(const Caller& caller, const std::function<void()>& body);
  // The same with real uid 0.
  static void as_effective(const Caller& caller, const std::function<void()>& body);
  // The same without an expectation about the end: for aborts and exits.
  static Outcome outcome_as(const Caller& caller, const std::function<void()>& body);

  // Makes this the current map.
  static void publish_map(const Folder& map);
  // A map whose only team folder "Shared/Team" has these entries.
  static void publish_team(const std::vector<Ace>& users, const std::vector<Ace>& groups);

  static void make_folder(const std::string& path, uid_t owner = 0);
  static void make_file(const std::string& path, uid_t owner = 0);
};

// The map and the folders that SetUp() makes.
Folder share_map();

}  // namespace tavrix::test
