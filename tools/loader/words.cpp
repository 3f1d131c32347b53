// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/words.hpp"

#include <systemd/sd-daemon.h>
#include <chrono>
#include <map>

namespace tavrix::loader {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::minutes kSilence{1};

std::string status;
std::map<std::string, std::string> standing_warnings;  // by topic

void send_status() {
  std::string warnings;
  for (const auto& [topic, text] : standing_warnings) warnings += text;
  sd_notifyf(0, "STATUS=%s%s", status.c_str(), warnings.c_str());
}

bool was_said_lately(const std::string& text) {
  static std::map<std::string, Clock::time_point> said;
  const auto now = Clock::now();
  std::erase_if(said, [now](const auto& entry) { return now - entry.second > kSilence; });
  return !said.emplace(text, now).second;
}

Tone tone_of(mapload::Weight weight) {
  switch (weight) {
    case mapload::Weight::kInfo:
      return Tone::kInfo;
    case mapload::Weight::kWarning:
      return Tone::kWarning;
    default:
      return Tone::kError;
  }
}

}  // namespace

void tell(Tone tone, const std::string& text) {
  // A success is news each time, also with the same text.
  if (tone == Tone::kInfo || !was_said_lately(text)) service::say(tone, text);
}

void tell(const mapload::Report& report) {
  for (const mapload::Said& said : report) tell(tone_of(said.weight), said.text);
}

void set_status(const std::string& text) {
  if (text.empty()) return;
  status = text.substr(0, text.find('\n'));
  send_status();
}

void set_standing_warning(const std::string& topic, const std::string& text) {
  standing_warnings[topic] = text;
  if (!status.empty()) send_status();
}

}  // namespace tavrix::loader
