// SPDX-License-Identifier: LGPL-3.0-or-later
// Counts in sentences, with the word in the singular or the plural.
#pragma once

#include <concepts>
#include <string>
#include <string_view>

namespace tavrix::text {

// The word for that many: "folder" or "folders", "entry" or "entries", "process" or "processes".
template <std::integral Number>
std::string plural(Number count, std::string_view one) {
  std::string word(one);
  if (count == 1 || word.empty()) return word;
  if (one == "child") return "children";
  const bool ends_in_y = word.size() > 1 && word.back() == 'y' &&
                         std::string_view("aeiou").find(word[word.size() - 2]) == std::string::npos;
  if (ends_in_y) {
    word.pop_back();
    return word + "ies";
  }
  return word + (word.back() == 's' ? "es" : "s");
}

// "1 folder", "2 folders"; "1 entry", "2 entries".
template <std::integral Number>
std::string counted(Number count, std::string_view one) {
  return std::to_string(count) + ' ' + plural(count, one);
}

// The form of a verb for that many: "1 record " + verb(1, "waits", "wait").
template <std::integral Number>
const char* verb(Number count, const char* for_one, const char* for_more) {
  return count == 1 ? for_one : for_more;
}

}  // namespace tavrix::text
