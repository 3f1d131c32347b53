// SPDX-License-Identifier: LGPL-3.0-or-later
// The file of patterns of names that everybody may delete: read as the server reads it, and checked
// for lines that do something else than their writer meant.
#pragma once

#include <regex.h>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tavrix::patterns {

enum class Severity { kWarning, kError };

struct Finding {
  Severity severity = Severity::kError;
  int line = 0;  // from 1; 0: the file
  std::string pattern;
  std::string text;
};

struct FreeRegex {
  void operator()(regex_t* compiled) const {
    regfree(compiled);
    delete compiled;
  }
};

// A line that the server uses.
struct Pattern {
  int line = 0;
  std::string text;
  std::unique_ptr<regex_t, FreeRegex> compiled;
};

class PatternFile {
 public:
  // Nothing, and the reason, when the file cannot be read.
  static std::optional<PatternFile> read(const std::string& path, std::string& error);

  [[nodiscard]] const std::vector<Pattern>& patterns() const { return patterns_; }
  [[nodiscard]] const std::vector<Finding>& findings() const { return findings_; }
  [[nodiscard]] int errors() const;
  // A line that matches every name: the server uses no pattern of the file then.
  [[nodiscard]] const Finding* matches_everything() const;
  // The first pattern that matches the last part of a path; null: none.
  [[nodiscard]] const Pattern* match(std::string_view path) const;

 private:
  void take(int line, std::string_view raw);
  void check_text(int line, const std::string& pattern);
  void add(Severity severity, int line, const std::string& pattern, std::string text);

  std::vector<Pattern> patterns_;
  std::vector<Finding> findings_;
  int everything_ = -1;  // index of the finding
};

// "FILE:3: error: ..."
std::string line_of(const std::string& path, const Finding& finding);

}  // namespace tavrix::patterns
