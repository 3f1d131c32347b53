// SPDX-License-Identifier: LGPL-3.0-or-later
// The world of the table "operation x caller": a map, users with each kind of right, a tree with
// each kind of object, and a server with the module and with a plain share.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/samba/appliance.hpp"
#include "tests/samba/matrix/robot.hpp"

namespace tavrix::test {

// Callers in addition to those of every test.
extern const Caller kEddy;       // of the writers: may write in Shared/Team, and not delete folders
extern const Caller kVera;       // may view Shared/Team
extern const Caller kNina;       // may pass through Shared/Team
extern const Caller kStan;       // a power user without an entry anywhere
extern const Caller kSyncAgent;  // the reserved user
extern const Caller kComputer;
extern const Caller kGuest;  // whoever has no account

// All callers of the table, by their kind.
struct Role {
  const char* name;
  const Caller* caller;
};
const std::vector<Role>& roles();
Folder matrix_map();

// Makes everything below the share, or below the plain one, as it is at the begin of each case.
inline const std::string kPlainRoot = "/scratch/plain";
void make_tree(const std::string& root);

class MatrixWorld : public Appliance {
 protected:
  void SetUp() override;
  void TearDown() override;
  Robot& robot() { return *robot_; }
  // Further options of the share with the module.
  virtual Lines options() { return {}; }

 private:
  std::unique_ptr<Robot> robot_;
};

}  // namespace tavrix::test
