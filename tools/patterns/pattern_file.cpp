// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/patterns/pattern_file.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "regex_parser.h"
#include "regex_parser/pattern_reach.h"

namespace tavrix::patterns {
namespace {

// Much longer than any name. A line of that length is probably not a pattern.
constexpr std::size_t kLongestLine = 1000;

// Replaces each bracket expression and each escaped character by one letter, so that every anchor,
// parenthesis and bar that is left has its special meaning.
std::string skeleton(std::string_view pattern) {
  std::string text;
  for (std::size_t at = 0; at < pattern.size(); ++at) {
    if (pattern[at] == '\\' && at + 1 < pattern.size()) {
      ++at;
      text += pattern[at] == '/' ? '/' : 'x';
    } else if (pattern[at] == '[') {
      ++at;
      if (at < pattern.size() && pattern[at] == '^') ++at;
      if (at < pattern.size() && pattern[at] == ']') ++at;
      for (; at < pattern.size() && pattern[at] != ']'; ++at) {
        const bool is_class = pattern[at] == '[' && at + 1 < pattern.size() &&
                              std::strchr(":.=", pattern[at + 1]) != nullptr;
        if (!is_class) continue;
        const auto end = pattern.find(std::string{pattern[at + 1], ']'}, at + 2);
        if (end != std::string_view::npos) at = end + 1;
      }
      text += 'x';
    } else {
      text += pattern[at];
    }
  }
  return text;
}

// Splits a skeleton at its bars, except at those inside groups.
std::vector<std::string_view> alternatives(std::string_view text) {
  std::vector<std::string_view> found;
  int depth = 0;
  std::size_t begin = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '(') ++depth;
    if (text[at] == ')') --depth;
    if (text[at] != '|' || depth != 0) continue;
    found.push_back(text.substr(begin, at - begin));
    begin = at + 1;
  }
  found.push_back(text.substr(begin));
  return found;
}

bool is_one_group(std::string_view text) {
  if (!text.starts_with('(') || !text.ends_with(')')) return false;
  int depth = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '(') ++depth;
    if (text[at] == ')' && --depth == 0) return at + 1 == text.size();
  }
  return false;
}

// True if every alternative is bound to the beginning or the end of the name.
bool is_anchored(std::string_view text) {
  const auto ways = alternatives(text);
  return std::all_of(ways.begin(), ways.end(), [](std::string_view way) {
    if (is_one_group(way)) return is_anchored(way.substr(1, way.size() - 2));
    return way.starts_with('^') || way.ends_with('$');
  });
}

std::string reason_of(int error, const regex_t& compiled) {
  char reason[256];
  regerror(error, &compiled, reason, sizeof reason);
  return reason;
}

}  // namespace

void PatternFile::add(Severity severity, int line, const std::string& pattern, std::string text) {
  findings_.push_back({severity, line, pattern, std::move(text)});
}

void PatternFile::check_text(int line, const std::string& pattern) {
  const auto warn = [&](const char* text) { add(Severity::kWarning, line, pattern, text); };
  const std::string bare = skeleton(pattern);
  if (!is_anchored(bare)) warn("neither ^ nor $ anchors it: it matches anywhere in a name");
  if (bare.find('/') != std::string::npos) {
    warn("only the last part of a path is compared, and that never holds a slash");
  }
  if (pattern.starts_with('#')) warn("# does not begin a comment here: the line is a pattern");
  if (pattern.starts_with(' ') || pattern.ends_with(' ') || pattern.ends_with('\t')) {
    warn("the blank at its beginning or end is part of the pattern");
  }
}

void PatternFile::take(int line, std::string_view raw) {
  // The library reads a line without its last byte, whatever that is, and up to a NUL.
  const bool is_ended = raw.ends_with('\n');
  const std::string_view stored = raw.substr(0, raw.size() - 1);
  std::string pattern(stored.substr(0, stored.find('\0')));
  const auto fail = [&](std::string text) {
    add(Severity::kError, line, pattern, std::move(text));
  };
  if (!is_ended) fail("the last line does not end in a newline, and loses its last character");
  if (pattern.size() != stored.size()) fail("the line holds a NUL and is read only up to it");
  if (pattern.ends_with('\r')) fail("the line ends in a carriage return, which no name has");
  if (raw.size() > kLongestLine) {
    add(Severity::kWarning, line, pattern.substr(0, 40), fmt::format("{} bytes long", raw.size()));
  }
  if (patterns_.size() >= TAVRIX_MAX_PATTERNS) {
    return fail(fmt::format("not used: a file may have {} patterns at most", TAVRIX_MAX_PATTERNS));
  }
  auto compiled = std::make_unique<regex_t>();
  const int error = regcomp(compiled.get(), pattern.c_str(), TAVRIX_REGEX_FLAGS);
  if (error != 0)
    return fail("not used, because it is not a valid pattern: " + reason_of(error, *compiled));
  Pattern kept{line, pattern, {}};
  kept.compiled.reset(compiled.release());
  if (tavrix_matches_every_name(kept.compiled.get())) {
    if (everything_ < 0) everything_ = static_cast<int>(findings_.size());
    fail(pattern.empty() ? "an empty line matches every name" : "matches names of every kind");
  } else {
    check_text(line, pattern);
  }
  patterns_.push_back(std::move(kept));
}

std::optional<PatternFile> PatternFile::read(const std::string& path, std::string& error) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    error = fmt::format("{}: {}", path, std::strerror(errno));
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    error = path + ": not a file";
    return std::nullopt;
  }
  std::ifstream in(path, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(in), {}};
  if (!in) {
    error = fmt::format("{}: {}", path, std::strerror(errno));
    return std::nullopt;
  }
  PatternFile file;
  if (status.st_uid != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    file.add(Severity::kWarning, 0, {}, "users other than root may write the file");
  }
  int line = 0;
  for (std::size_t at = 0; at < content.size();) {
    const auto end = content.find('\n', at);
    const std::size_t next = end == std::string::npos ? content.size() : end + 1;
    file.take(++line, std::string_view(content).substr(at, next - at));
    at = next;
  }
  return file;
}

int PatternFile::errors() const {
  return static_cast<int>(
      std::count_if(findings_.begin(), findings_.end(),
                    [](const Finding& finding) { return finding.severity == Severity::kError; }));
}

const Finding* PatternFile::matches_everything() const {
  return everything_ < 0 ? nullptr : &findings_[static_cast<std::size_t>(everything_)];
}

const Pattern* PatternFile::match(std::string_view path) const {
  const std::string name(path.substr(path.rfind('/') + 1));
  for (const Pattern& pattern : patterns_) {
    if (regexec(pattern.compiled.get(), name.c_str(), 0, nullptr, 0) == 0) return &pattern;
  }
  return nullptr;
}

std::string line_of(const std::string& path, const Finding& finding) {
  const std::string place = finding.line == 0 ? path : fmt::format("{}:{}", path, finding.line);
  const char* word = finding.severity == Severity::kError ? "error" : "warning";
  if (finding.pattern.empty()) return fmt::format("{}: {}: {}", place, word, finding.text);
  return fmt::format("{}: {}: \"{}\": {}", place, word, finding.pattern, finding.text);
}

}  // namespace tavrix::patterns
