// SPDX-License-Identifier: LGPL-3.0-or-later
// Real processes for tests: children, users, programs.
#pragma once

#include <sys/types.h>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace tavrix::test {

struct Outcome {
  int exit_code = -1;
  int signal = 0;  // that ended it; 0: none
  std::string out, err;
  [[nodiscard]] bool ok() const { return exit_code == 0 && signal == 0; }
  // It ended by an assertion with that condition text.
  [[nodiscard]] bool aborted_with(const std::string& condition) const;
};

// Runs the body in a child and waits. A failed expectation in the child makes it fail.
Outcome in_child(const std::function<void()>& body);

// Ends such a child inside its body, at once.
[[noreturn]] void end_child();

// A child that runs beside the test until it is waited for or killed.
class Child {
 public:
  explicit Child(const std::function<void()>& body);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  [[nodiscard]] pid_t pid() const { return pid_; }
  void kill();
  Outcome wait();
  // The output so far, while it runs.
  [[nodiscard]] std::string out_so_far() const;
  [[nodiscard]] std::string err_so_far() const;

 private:
  pid_t pid_;
  int out_, err_;
  bool waited_ = false;
};

Outcome run_program(const std::vector<std::string>& argv, const std::string& input = {},
                    const std::vector<std::pair<std::string, std::string>>& environment = {});

struct Ids {
  uid_t r, e, s;
  gid_t rg, eg, sg;
  bool operator==(const Ids&) const = default;
};
Ids ids_now();

// The identity of a Samba server process inside a hook. Call it in a child: there is a way back,
// but tests do not take it.
void become_samba_user(uid_t uid, gid_t gid, const std::vector<gid_t>& groups = {});

// Attachments of the segment with that key; -1 when there is none.
int attach_count(int key);
// Segments of this IPC namespace, whatever their keys, and the attachments of all of them.
int segments_in_use();
int attachments();

}  // namespace tavrix::test
