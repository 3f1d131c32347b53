// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cli/progress.hpp"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace tavrix::cli {
namespace {

constexpr std::chrono::milliseconds kMoment{500};  // shorter work gets no bar
constexpr std::chrono::milliseconds kPause{100};   // between two drawings
constexpr unsigned kWidest = 40;                   // cells of the bar
constexpr unsigned kDefaultColumns = 80;

bool is_set(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

bool can_draw_here() {
  const char* terminal = std::getenv("TERM");
  return isatty(STDERR_FILENO) == 1 && !is_set("NO_COLOR") && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

unsigned columns_here() {
  winsize size{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kDefaultColumns;
  return size.ws_col;
}

}  // namespace

std::string progress_line(const std::string& task, uint64_t done, uint64_t total,
                          unsigned columns) {
  const double part = total == 0 ? 0 : std::min(1.0, double(done) / double(total));
  const auto around = static_cast<unsigned>(task.size() + std::string_view(" []  100%").size());
  if (columns < around + 3) return fmt::format("{:.0f}%", part * 100).substr(0, columns);
  const unsigned width = std::min(kWidest, columns - around - 1);
  return fmt::format("{} [{:{}}] {:3.0f}%", task,
                     std::string(static_cast<std::size_t>(part * width), '='), width, part * 100);
}

ProgressBar::ProgressBar(bool is_wanted)
    : can_draw_(is_wanted && can_draw_here()), next_(Clock::now() + kMoment) {}

void ProgressBar::show(const char* task, uint64_t done, uint64_t total) {
  if (!can_draw_) return;
  const auto now = Clock::now();
  if (now < next_) return;
  next_ = now + kPause;
  is_drawn_ = true;
  fmt::print(stderr, "\r{}\033[K", progress_line(task, done, total, columns_here()));
}

void ProgressBar::clear() {
  if (!is_drawn_) return;
  is_drawn_ = false;
  std::fputs("\r\033[K", stderr);
}

}  // namespace tavrix::cli
