// SPDX-License-Identifier: LGPL-3.0-or-later
// The nodes as CTDB sees them, by its command "ctdb".
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix::cluster {

struct CtdbNode {
  int number = -1;
  std::string address;
  std::vector<std::string> flags;  // such as "disconnected" and "unhealthy"; none: it is well
  bool is_this = false;
  [[nodiscard]] bool is(std::string_view flag) const;
};

struct CtdbAddress {
  std::string address;
  int number = -1;  // of the node that has it; -1: none
};

struct Ctdb {
  std::vector<CtdbNode> nodes;
  std::vector<CtdbAddress> addresses;  // for clients
  [[nodiscard]] const CtdbNode* at(std::string_view address) const;
  [[nodiscard]] std::vector<std::string> addresses_of(int number) const;
};

// Parse the tables of "ctdb -X status" and "ctdb -X ip all".
[[nodiscard]] std::vector<CtdbNode> nodes_in_status(std::string_view text);
[[nodiscard]] std::vector<CtdbAddress> addresses_in(std::string_view text);

// Nothing where CTDB is not installed or does not run here.
[[nodiscard]] std::optional<Ctdb> ask_ctdb();

// Runs "ctdb ARGUMENTS"; returns its output, or nothing when it failed.
[[nodiscard]] std::optional<std::string> run_ctdb(const std::vector<std::string>& arguments);

}  // namespace tavrix::cluster
