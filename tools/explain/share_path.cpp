// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/share_path.hpp"

#include <algorithm>

namespace tavrix::explain {

std::string share_path(std::string text, const std::string& root) {
  std::replace(text.begin(), text.end(), '\\', '/');
  std::string front = root;
  while (front.size() > 1 && front.back() == '/') front.pop_back();
  const bool is_below = text.compare(0, front.size(), front) == 0 &&
                        (text.size() == front.size() || text[front.size()] == '/');
  if (is_below) text.erase(0, front.size());
  text.erase(0, std::min(text.find_first_not_of('/'), text.size()));
  return text;
}

}  // namespace tavrix::explain
