// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/node.hpp"

#include <sys/utsname.h>
#include <algorithm>
#include <cctype>

namespace tavrix::cluster {
namespace {

constexpr std::size_t kLongest = 64;

bool is_plain(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

}  // namespace

bool is_node_name(std::string_view text) {
  return !text.empty() && text.size() <= kLongest && is_plain(text.front()) &&
         std::ranges::all_of(
             text, [](char c) { return is_plain(c) || c == '-' || c == '_' || c == '.'; });
}

std::string this_node() {
  utsname names{};
  if (uname(&names) != 0) return {};
  const std::string_view host = static_cast<const char*>(names.nodename);
  const std::string_view name = host.substr(0, host.find('.'));
  return is_node_name(name) ? std::string(name) : std::string();
}

}  // namespace tavrix::cluster
