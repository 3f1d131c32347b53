// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/text/moment.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <ctime>
#include <vector>

namespace tavrix::text {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kMostSeconds = 1LL << 40;  // far from the limits of every calculation below

std::optional<int64_t> number(std::string_view digits) {
  int64_t value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  const bool is_one = error == std::errc() && end == digits.data() + digits.size();
  if (!is_one || digits.front() == '-' || value > kMostSeconds) return std::nullopt;
  return value;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())) != 0)
    text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())) != 0)
    text.remove_suffix(1);
  return text;
}

// Takes the text up to the character, and the character; all of it where there is none.
std::string_view take_until(std::string_view& text, char end) {
  const auto at = text.find(end);
  const std::string_view part = text.substr(0, at);
  text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
  return part;
}

// "25" behind the point of "5.25": 250000 microseconds.
std::optional<int64_t> fraction(std::string_view digits) {
  if (digits.empty() || digits.size() > 9) return std::nullopt;
  const auto value = number(digits);
  if (!value) return std::nullopt;
  int64_t microseconds = *value;
  for (std::size_t i = digits.size(); i < 6; ++i) microseconds *= 10;
  for (std::size_t i = digits.size(); i > 6; --i) microseconds /= 10;
  return microseconds;
}

// A time of day, or the beginning of the day.
struct Clock {
  int hour = 0, minute = 0, second = 0;
  int64_t microseconds = 0;
};

std::optional<int> two_digits(std::string_view digits, int most) {
  const auto value = digits.size() == 2 || digits.size() == 1 ? number(digits) : std::nullopt;
  return value && *value <= most ? std::optional(static_cast<int>(*value)) : std::nullopt;
}

// "14:00", "14:00:05", "14:00:05.25"
std::optional<Clock> clock_of(std::string_view text) {
  if (text.find(':') == std::string_view::npos) return std::nullopt;
  const auto hour = two_digits(take_until(text, ':'), 23);
  const auto minute = two_digits(take_until(text, ':'), 59);
  if (!hour || !minute) return std::nullopt;
  Clock clock{.hour = *hour, .minute = *minute};
  if (text.empty()) return clock;
  const auto second = two_digits(take_until(text, '.'), 60);
  if (!second) return std::nullopt;
  clock.second = *second;
  if (text.empty()) return clock;
  const auto part = fraction(text);
  if (!part) return std::nullopt;
  clock.microseconds = *part;
  return clock;
}

struct Day {
  int year = 0, month = 0, day = 0;
};

// "2026-11-20"; a day that the calendar does not have is none.
std::optional<Day> day_of(std::string_view text) {
  const std::string_view year_digits = take_until(text, '-');
  const auto year = year_digits.size() == 4 ? number(year_digits) : std::nullopt;
  const auto month = two_digits(take_until(text, '-'), 12);
  const auto day = two_digits(text, 31);
  if (!year || !month || !day) return std::nullopt;
  tm parts{};
  parts.tm_year = static_cast<int>(*year) - 1900;
  parts.tm_mon = *month - 1;
  parts.tm_mday = *day;
  parts.tm_hour = 12;
  if (timegm(&parts) == -1 || parts.tm_mday != *day) return std::nullopt;
  return Day{static_cast<int>(*year), *month, *day};
}

Day day_at(int64_t now, int days_before) {
  const auto seconds = static_cast<time_t>(now / kSecond);
  tm parts{};
  localtime_r(&seconds, &parts);
  return {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday - days_before};
}

tm parts_of(const Day& day, const Clock& clock) {
  tm parts{};
  parts.tm_year = day.year - 1900;
  parts.tm_mon = day.month - 1;
  parts.tm_mday = day.day;
  parts.tm_hour = clock.hour;
  parts.tm_min = clock.minute;
  parts.tm_sec = clock.second;
  return parts;
}

// The instants at which clocks of the zone show that time, in order. An hour that is left out has
// the one that mktime() makes of it.
std::vector<time_t> instants_of(const Day& day, const Clock& clock, std::string_view zone) {
  std::vector<time_t> found;
  for (const int is_summer : {1, 0}) {
    tm parts = parts_of(day, clock);
    parts.tm_isdst = is_summer;
    const time_t instant = mktime(&parts);
    const bool is_shown = parts.tm_hour == clock.hour && parts.tm_min == clock.minute &&
                          (parts.tm_isdst > 0) == (is_summer > 0);
    if (is_shown && (zone.empty() || zone == parts.tm_zone)) found.push_back(instant);
  }
  if (found.empty() && zone.empty()) {
    tm parts = parts_of(day, clock);
    parts.tm_isdst = -1;
    found.push_back(mktime(&parts));
  }
  std::ranges::sort(found);
  return found;
}

// The offset of "Z", "+01:00", "+0100" or "+01" in seconds.
std::optional<int64_t> offset_of(std::string_view zone) {
  if (zone == "Z" || zone == "z" || zone == "UTC" || zone == "GMT") return 0;
  if (zone.empty() || (zone[0] != '+' && zone[0] != '-')) return std::nullopt;
  std::string digits(zone.substr(1));
  std::erase(digits, ':');
  if (digits.size() != 2 && digits.size() != 4) return std::nullopt;
  const auto hours = two_digits(std::string_view(digits).substr(0, 2), 15);
  const auto minutes =
      digits.size() == 4 ? two_digits(std::string_view(digits).substr(2), 59) : std::optional(0);
  if (!hours || !minutes) return std::nullopt;
  return (zone[0] == '-' ? -1 : 1) * (*hours * 3600 + *minutes * 60);
}

std::optional<Moment> at_clock(const Day& day, const Clock& clock, std::string_view zone) {
  if (const auto offset = offset_of(zone); offset) {
    tm parts = parts_of(day, clock);
    const int64_t instant = (timegm(&parts) - *offset) * kSecond + clock.microseconds;
    return Moment{instant, instant};
  }
  const auto instants = instants_of(day, clock, zone);
  if (instants.empty()) return std::nullopt;
  return Moment{instants.front() * kSecond + clock.microseconds,
                instants.back() * kSecond + clock.microseconds};
}

Moment whole_day(const Day& day) {
  const Day next{day.year, day.month, day.day + 1};
  return {instants_of(day, {}, {}).front() * kSecond,
          instants_of(next, {}, {}).front() * kSecond - 1};
}

// Splits the zone from "14:00:05Z", "14:00 +01:00", "14:00 CET".
std::optional<Moment> at_clock_with_zone(const Day& day, std::string_view text) {
  const auto end = text.find_first_not_of("0123456789:.");
  const std::string_view digits = text.substr(0, end);
  const std::string_view zone =
      end == std::string_view::npos ? std::string_view() : trimmed(text.substr(end));
  const auto clock = clock_of(digits);
  return clock ? at_clock(day, *clock, zone) : std::nullopt;
}

std::optional<Moment> by_the_calendar(std::string_view text, int64_t now) {
  const auto begin = text.find_first_of(" T");
  const std::string_view front = text.substr(0, begin);
  std::optional<Day> day;
  if (front == "today") day = day_at(now, 0);
  if (front == "yesterday") day = day_at(now, 1);
  if (!day && front.size() >= 8) day = day_of(front);
  if (!day) return at_clock_with_zone(day_at(now, 0), text);
  if (begin == std::string_view::npos) return whole_day(*day);
  return at_clock_with_zone(*day, trimmed(text.substr(begin + 1)));
}

// "7d", "-2h", "90m ago", "1h30m": the seconds.
std::optional<int64_t> age_of(std::string_view text) {
  static constexpr std::string_view kAgo = "ago";
  if (text.ends_with(kAgo)) text = trimmed(text.substr(0, text.size() - kAgo.size()));
  if (text.starts_with('-')) text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  int64_t age = 0;
  while (!text.empty()) {
    const auto end = text.find_first_not_of("0123456789");
    if (end == 0 || end == std::string_view::npos) return std::nullopt;
    const auto count = number(text.substr(0, end));
    static constexpr std::array<std::pair<char, int64_t>, 5> kUnits = {
        {{'w', 604800}, {'d', 86400}, {'h', 3600}, {'m', 60}, {'s', 1}}};
    const auto* const unit = std::ranges::find(kUnits, text[end], &std::pair<char, int64_t>::first);
    if (!count || unit == kUnits.end()) return std::nullopt;
    if (*count > kMostSeconds / unit->second) return std::nullopt;
    age += *count * unit->second;
    if (age > kMostSeconds) return std::nullopt;
    text = trimmed(text.substr(end + 1));
  }
  return age;
}

// Shorter numbers are left to people who mean a year or a day.
std::optional<int64_t> since_1970(std::string_view text) {
  constexpr std::size_t kLeastDigits = 9;
  const bool is_marked = text.starts_with('@');
  if (is_marked) text.remove_prefix(1);
  const std::string_view digits = take_until(text, '.');
  if (digits.empty() || (!is_marked && digits.size() < kLeastDigits)) return std::nullopt;
  const auto seconds = number(digits);
  const auto part = text.empty() ? std::optional<int64_t>(0) : fraction(text);
  if (!seconds || !part) return std::nullopt;
  return *seconds * kSecond + *part;
}

}  // namespace

std::optional<Moment> moment_of(std::string_view text, int64_t now) {
  tzset();
  text = trimmed(text);
  if (text.ends_with(':') || text.ends_with('.')) return std::nullopt;
  if (text == "now") return Moment{now, now};
  if (const auto instant = since_1970(text); instant) return Moment{*instant, *instant};
  if (const auto age = age_of(text); age) return Moment{now - *age * kSecond, now - *age * kSecond};
  return by_the_calendar(text, now);
}

int64_t now_in_microseconds() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * kSecond + now.tv_nsec / 1000;
}

std::string local_time(int64_t microseconds) {
  const auto seconds =
      static_cast<time_t>(microseconds / kSecond - (microseconds % kSecond < 0 ? 1 : 0));
  tm parts{};
  tzset();
  if (localtime_r(&seconds, &parts) == nullptr) return std::to_string(seconds);
  std::array<char, 64> text{};
  strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %Z", &parts);
  return text.data();
}

}  // namespace tavrix::text
