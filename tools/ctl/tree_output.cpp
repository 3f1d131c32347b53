// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/tree_output.hpp"

#include <fmt/format.h>
#include <cstdio>
#include <string>

#include "tools/ctl/output.hpp"

namespace tavrix::ctl {
namespace {

constexpr std::size_t kIndent = 2;
// A folder stands in a list, which stands in a folder.
constexpr std::size_t kIndentOfLevel = 2 * kIndent;

void new_line(std::size_t indent) { fmt::print("\n{:{}}", "", indent); }

// The object, as it stands that far from the margin, without its last brace.
std::string opened(const json::Json& object, std::size_t indent) {
  std::string text = json::text_of(object, static_cast<int>(kIndent));
  text.resize(text.rfind('\n'));
  // Line ends in texts are escaped, so these are those of the layout.
  std::string moved;
  for (const char letter : text) {
    moved += letter;
    if (letter == '\n') moved.append(indent, ' ');
  }
  return moved;
}

}  // namespace

void TreeOutput::add(json::Json members, int level) {
  const auto own_level = static_cast<std::size_t>(level);
  if (level == 0) {
    note_document();
  } else {
    close_down_to(own_level);
    if (has_children_.back()) fmt::print(",");
    new_line(own_level * kIndentOfLevel);
    has_children_.back() = true;
  }
  if (level < depth_) members["children"] = json::Json::array();
  std::string text = opened(members, own_level * kIndentOfLevel);
  if (level < depth_) text.pop_back();  // the list is open too
  std::fputs(text.c_str(), stdout);
  has_children_.push_back(false);
}

void TreeOutput::end(const json::Json& members) {
  close_down_to(1);
  close_list();
  fmt::print(",{}\n", json::text_of(members, static_cast<int>(kIndent)).substr(1));
}

void TreeOutput::close_list() {
  const std::size_t level = has_children_.size() - 1;
  if (has_children_.back()) new_line(level * kIndentOfLevel + kIndent);
  if (static_cast<int>(level) < depth_) fmt::print("]");
  has_children_.pop_back();
}

void TreeOutput::close_down_to(std::size_t levels) {
  while (has_children_.size() > levels) {
    close_list();
    new_line(has_children_.size() * kIndentOfLevel);
    fmt::print("}}");
  }
}

}  // namespace tavrix::ctl
