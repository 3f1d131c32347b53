// SPDX-License-Identifier: LGPL-3.0-or-later
// Keeps a problem that lasts from being reported in every period.
#pragma once

#include <chrono>
#include <string>

#include "tools/service/journal.hpp"

namespace tavrix::sweeper {

// Reports a problem when it begins, then once a minute, and when it is over.
class Trouble {
 public:
  explicit Trouble(service::Tone tone = service::Tone::kWarning) : tone_(tone) {}

  void set(const std::string& text) {
    const auto now = std::chrono::steady_clock::now();
    if (text.empty()) {
      if (!text_.empty()) service::say(service::Tone::kInfo, "over: " + text_);
    } else if (text_.empty() || now >= next_) {
      service::say(tone_, text);
      next_ = now + std::chrono::minutes(1);
    }
    text_ = text;
  }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  service::Tone tone_;
  std::string text_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tavrix::sweeper
