// SPDX-License-Identifier: LGPL-3.0-or-later
// The findings of a check, for people and programs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tavrix::mapcheck {

enum class Severity { kWarning, kError };

struct Finding {
  Severity severity;
  std::string file;   // name of the input; empty when there is only one
  std::string where;  // place in the tree, such as "/Shared/Team"; may be empty
  uint64_t offset;    // byte in the input
  std::string text;
};

// Keeps the first findings and counts the rest, because a broken file of a gigabyte may have
// millions.
class Findings {
 public:
  static constexpr std::size_t kKept = 200;

  void add(Finding finding) {
    (finding.severity == Severity::kError ? errors_ : warnings_) += 1;
    if (kept_.size() < kKept) kept_.push_back(std::move(finding));
  }
  [[nodiscard]] const std::vector<Finding>& kept() const { return kept_; }
  [[nodiscard]] uint64_t errors() const { return errors_; }
  [[nodiscard]] uint64_t warnings() const { return warnings_; }

 private:
  std::vector<Finding> kept_;
  uint64_t errors_ = 0;
  uint64_t warnings_ = 0;
};

}  // namespace tavrix::mapcheck
