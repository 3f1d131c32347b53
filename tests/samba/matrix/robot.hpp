// SPDX-License-Identifier: LGPL-3.0-or-later
// A client that executes one case after the other, as any of its users:
// tests/samba/client/client.py, with connections that stay open.
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
  // A whole case, and what the server said to each of its steps.
  Json run(const Json& request);
  // The steps of one user.
  Json run(const std::string& user, const Json& steps);

 private:
  pid_t pid_ = 0;
  int in_ = -1;
  int out_ = -1;
  std::string unread_;
  std::string read_line();
};

// The status of a step, by name without "NT_STATUS_"; "NO_HANDLE" behind a create that was refused.
std::string status_of(const Json& answer, std::size_t step);

}  // namespace tavrix::test
