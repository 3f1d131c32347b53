// SPDX-License-Identifier: LGPL-3.0-or-later
// A part of the tree as people name it: a folder, a pattern with wildcards, or a piece of a name.
#pragma once

#include <string>
#include <string_view>

namespace tavrix::events {

// Records hold whole paths on the server, such as "/tavrix/Shared/Team/plan.txt".
class PathPattern {
 public:
  enum class Kind {
    kFolder,  // an object and everything below it: "Shared/Team", "\Shared\Team", "/tavrix/Shared"
    kGlob,    // "*", "?" and "[a-z]" stand for characters: "Shared/*.docx". "*" crosses folders.
    kName,    // the same without a slash, for the last part of a path: "*.docx"
    kText,    // any other text, anywhere in a path, in any case: "plan"
  };

  // The kind follows from the text. A path is one with a slash, or one that begins with a folder of
  // the share's top level.
  explicit PathPattern(std::string text);

  [[nodiscard]] bool matches(std::string_view path) const;
  [[nodiscard]] Kind kind() const { return kind_; }
  // The whole path of the folder, or the pattern.
  [[nodiscard]] const std::string& text() const { return text_; }
  // The bytes that each matching path begins with; empty if they are not known.
  [[nodiscard]] std::string head() const;

 private:
  Kind kind_;
  std::string text_;
};

// The path on the server of one that people type: relative to the share, with slashes or
// backslashes, or whole.
[[nodiscard]] std::string server_path(std::string text);
// The path as people read it: relative to the share. Paths outside of it stay whole.
[[nodiscard]] std::string_view shown_path(std::string_view path);

// Wildcards over bytes; "?" and a set stand for one character of UTF-8. Takes time in proportion to
// the lengths of both.
[[nodiscard]] bool glob_matches(std::string_view pattern, std::string_view text);

}  // namespace tavrix::events
