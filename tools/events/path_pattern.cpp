// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/path_pattern.hpp"

#include <algorithm>
#include <optional>

#include "tavrix_api.h"
#include "tools/explain/share_path.hpp"

namespace tavrix::events {
namespace {

constexpr std::string_view kRoot = TAVRIX_TREE;
constexpr std::string_view kWildcards = "*?[";
constexpr std::string_view kTopFolders[] = {"Shared", "Private"};

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool contains_in_any_case(std::string_view text, std::string_view part) {
  const auto same = [](char a, char b) { return lower(a) == lower(b); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(), same) != text.end() ||
         part.empty();
}

bool is_at_or_below(std::string_view path, std::string_view folder) {
  if (!path.starts_with(folder)) return false;
  return path.size() == folder.size() || folder == "/" || path[folder.size()] == '/';
}

bool is_path(std::string_view text) {
  return text.find_first_of("/\\") != std::string_view::npos ||
         std::ranges::find(kTopFolders, text) != std::end(kTopFolders);
}

PathPattern::Kind kind_of(std::string_view text) {
  using Kind = PathPattern::Kind;
  const bool has_slash = text.find_first_of("/\\") != std::string_view::npos;
  if (text.find_first_of(kWildcards) != std::string_view::npos)
    return has_slash ? Kind::kGlob : Kind::kName;
  return is_path(text) ? Kind::kFolder : Kind::kText;
}

std::size_t character_length(std::string_view text) {
  std::size_t length = 1;
  if ((static_cast<unsigned char>(text[0]) & 0xC0U) != 0xC0U) return length;
  while (length < text.size() && length < 4 &&
         (static_cast<unsigned char>(text[length]) & 0xC0U) == 0x80U) {
    ++length;
  }
  return length;
}

// The length of the set at the beginning of the pattern; nothing if it has no end, and is a bracket
// like any other character.
std::optional<std::size_t> set_length(std::string_view pattern) {
  const std::size_t negation = pattern.size() > 1 && (pattern[1] == '!' || pattern[1] == '^');
  const auto end = pattern.find(']', 2 + negation);  // a bracket that comes first is a member
  if (end == std::string_view::npos) return std::nullopt;
  return end + 1;
}

// Members are single characters and, of those of one byte, ranges.
bool is_in_set(std::string_view set, std::string_view character) {
  set = set.substr(1, set.size() - 2);
  const bool is_negated = set.starts_with('!') || set.starts_with('^');
  if (is_negated) set.remove_prefix(1);
  bool found = false;
  while (!set.empty()) {
    const std::size_t length = character_length(set);
    if (length == 1 && set.size() > 2 && set[1] == '-') {
      found |= character.size() == 1 && set[0] <= character[0] && character[0] <= set[2];
      set.remove_prefix(3);
    } else {
      found |= set.substr(0, length) == character;
      set.remove_prefix(length);
    }
  }
  return found != is_negated;
}

struct Step {
  std::size_t pattern = 0, text = 0;
};

// One character of the text by what the pattern has for it; nothing if they differ.
std::optional<Step> one_character(std::string_view pattern, std::string_view text) {
  if (pattern.empty() || text.empty()) return std::nullopt;
  const std::size_t length = character_length(text);
  if (pattern[0] == '?') return Step{1, length};
  if (pattern[0] == '[') {
    if (const auto set = set_length(pattern); set) {
      if (!is_in_set(pattern.substr(0, *set), text.substr(0, length))) return std::nullopt;
      return Step{*set, length};
    }
  }
  if (pattern[0] != text[0]) return std::nullopt;
  return Step{1, 1};
}

}  // namespace

bool glob_matches(std::string_view pattern, std::string_view text) {
  // The last star may stand for more whenever what follows it does not match; an earlier one never
  // has to, because everything is left to the last.
  std::optional<Step> star;
  Step at;
  while (at.text < text.size()) {
    if (at.pattern < pattern.size() && pattern[at.pattern] == '*') {
      star = Step{++at.pattern, at.text};
    } else if (const auto step = one_character(pattern.substr(at.pattern), text.substr(at.text))) {
      at = {at.pattern + step->pattern, at.text + step->text};
    } else if (star) {
      star->text += character_length(text.substr(star->text));
      at = *star;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', at.pattern) == std::string_view::npos;
}

std::string server_path(std::string text) {
  const bool begins_at_root = text.starts_with('/') && !is_at_or_below(text, kRoot);
  std::string below = explain::share_path(std::move(text), std::string(kRoot));
  while (below.ends_with('/')) below.pop_back();
  if (below.empty()) return std::string(kRoot);
  const bool is_in_share = std::ranges::any_of(
      kTopFolders, [&below](std::string_view top) { return is_at_or_below(below, top); });
  if (begins_at_root && !is_in_share) return "/" + below;  // outside of the share
  return std::string(kRoot) + "/" + below;
}

std::string_view shown_path(std::string_view path) {
  if (path.size() <= kRoot.size() || !is_at_or_below(path, kRoot)) return path;
  return path.substr(kRoot.size() + 1);
}

PathPattern::PathPattern(std::string text) : kind_(kind_of(text)) {
  text_ = kind_ == Kind::kFolder || kind_ == Kind::kGlob ? server_path(std::move(text))
                                                         : std::move(text);
}

bool PathPattern::matches(std::string_view path) const {
  switch (kind_) {
    case Kind::kFolder:
      return is_at_or_below(path, text_);
    case Kind::kGlob:
      return glob_matches(text_, path);
    case Kind::kName:
      return glob_matches(text_, path.substr(path.rfind('/') + 1));
    case Kind::kText:
      break;
  }
  return contains_in_any_case(path, text_);
}

std::string PathPattern::head() const {
  if (kind_ == Kind::kFolder) return text_;
  if (kind_ == Kind::kGlob) return text_.substr(0, text_.find_first_of(kWildcards));
  return {};
}

}  // namespace tavrix::events
