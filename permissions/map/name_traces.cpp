// SPDX-License-Identifier: LGPL-3.0-or-later
#include "permissions/map/name_traces.hpp"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace tavrix {
namespace {

constexpr std::string_view kBefore = "--------> Name ";
constexpr std::string_view kBetween = " hahsval ";
constexpr std::size_t kLongestTail = 16;  // enough for ten digits, a blank and the newline

constexpr std::size_t kRoom = std::size_t{64} * 1024;
char lines[kRoom];
std::size_t used = 0;
bool is_collecting = false;

void write_lines() noexcept {
  if (used > 0) std::fwrite(lines, 1, used, stdout);
  used = 0;
}

void append(std::string_view text) noexcept {
  std::memcpy(lines + used, text.data(), text.size());
  used += text.size();
}

void append_number(uint32_t number) noexcept {
  char digits[10];
  char* first = digits + sizeof digits;
  do {
    *--first = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number != 0);
  append({first, static_cast<std::size_t>(digits + sizeof digits - first)});
}

}  // namespace

NameTraces::NameTraces() noexcept { is_collecting = true; }

NameTraces::~NameTraces() {
  write_lines();
  is_collecting = false;
}

void print_name_trace(const char* name, uint32_t len, uint32_t hash) noexcept {
  const std::string_view shown(name, strnlen(name, len));
  const std::size_t longest = kBefore.size() + shown.size() + kBetween.size() + kLongestTail;
  if (longest > kRoom - used) write_lines();
  if (longest > kRoom) {
    std::printf("--------> Name %.*s hahsval %u \n", static_cast<int>(shown.size()), name, hash);
    return;
  }
  append(kBefore);
  append(shown);
  append(kBetween);
  append_number(hash);
  append(" \n");
  if (!is_collecting) write_lines();
}

}  // namespace tavrix
