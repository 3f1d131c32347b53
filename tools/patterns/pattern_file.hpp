// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads the file with the patterns of names that everybody may delete, exactly as the server reads
// it, and reports lines that probably do not do what their writer meant.
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
  int line = 0;  // counts from 1; 0 stands for the whole file
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
  // Returns nothing, and the reason in `error`, when the file cannot be read.
  static std::optional<PatternFile> read(const std::string& path, std::string& error);

  [[nodiscard]] const std::vector<Pattern>& patterns() const { return patterns_; }
  [[nodiscard]] const std::vector<Finding>& findings() const { return findings_; }
  [[nodiscard]] int errors() const;
  // Returns the finding about a line that matches every name, or null. The server uses no pattern
  // of a file with such a line.
  [[nodiscard]] const Finding* matches_everything() const;
  // Returns the first pattern that matches the last part of the path, or null.
  [[nodiscard]] const Pattern* match(std::string_view path) const;

 private:
  void take(int line, std::string_view raw);
  void check_text(int line, const std::string& pattern);
  void add(Severity severity, int line, const std::string& pattern, std::string text);

  std::vector<Pattern> patterns_;
  std::vector<Finding> findings_;
  int everything_ = -1;  // index of the finding
};

// Formats a finding as "FILE:3: error: ...".
std::string line_of(const std::string& path, const Finding& finding);

}  // namespace tavrix::patterns
