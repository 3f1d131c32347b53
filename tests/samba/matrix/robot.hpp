// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs tests/samba/client/client.py, a client that executes one case after the other as any of its
// users, on connections that stay open.
#pragma once

#include <sys/types.h>
#include <nlohmann/json.hpp>
#include <string>

namespace tavrix::test {

using Json = nlohmann::json;

class Robot {
 public:
  explicit Robot(const std::string& share = "tavrix");
  ~Robot();
  Robot(const Robot&) = delete;
  Robot& operator=(const Robot&) = delete;
  // Runs a case and returns the answer to each of its steps.
  Json run(const Json& request);
  // The same with all steps by one user.
  Json run(const std::string& user, const Json& steps);

 private:
  pid_t pid_ = 0;
  int in_ = -1;
  int out_ = -1;
  std::string unread_;
  std::string read_line();
};

// The status of a step, without "NT_STATUS_"; "NO_HANDLE" for a step after a refused create.
std::string status_of(const Json& answer, std::size_t step);

}  // namespace tavrix::test
