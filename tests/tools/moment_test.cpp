// SPDX-License-Identifier: LGPL-3.0-or-later
// Times as people type them.

#include "tools/text/moment.hpp"

#include <gtest/gtest.h>
#include <cstdlib>
#include <string>

namespace tavrix::test {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kHour = 3600 * kSecond;
// Sunday, 22 November 2026, 12:00 in Berlin.
constexpr int64_t kNow = 1795345200 * kSecond;

class Moments : public testing::Test {
 protected:
  void SetUp() override { live_in("Europe/Berlin"); }
  static void live_in(const char* zone) { setenv("TZ", zone, 1); }
  // The meaning of the text, read aloud; a range where it is more than an instant.
  static std::string meaning(const std::string& text, int64_t now = kNow) {
    const auto moment = text::moment_of(text, now);
    if (!moment) return "nothing";
    const std::string first = text::local_time(moment->first);
    if (moment->first == moment->last) return first;
    return first + " to " + text::local_time(moment->last);
  }
};

TEST_F(Moments, OfTheCalendar) {
  EXPECT_EQ("2026-11-22 12:00:00 CET", meaning("now"));
  EXPECT_EQ("2026-11-22 00:00:00 CET to 2026-11-22 23:59:59 CET", meaning("today"));
  EXPECT_EQ("2026-11-21 00:00:00 CET to 2026-11-21 23:59:59 CET", meaning("yesterday"));
  EXPECT_EQ("2026-11-21 14:05:00 CET", meaning(" yesterday 14:05 "));
  EXPECT_EQ("2026-11-22 08:30:00 CET", meaning("8:30"));
  EXPECT_EQ("2026-02-01 00:00:00 CET to 2026-02-01 23:59:59 CET", meaning("2026-02-01"));
  EXPECT_EQ("2026-07-01 14:00:05 CEST", meaning("2026-07-01 14:00:05"));
  EXPECT_EQ("2026-07-01 14:00:05 CEST", meaning("2026-07-01T14:00:05"));
}

TEST_F(Moments, OfAnotherZone) {
  EXPECT_EQ("2026-11-20 15:00:00 CET", meaning("2026-11-20T14:00:00Z"));
  EXPECT_EQ("2026-11-20 15:00:00 CET", meaning("2026-11-20 14:00 UTC"));
  EXPECT_EQ("2026-11-20 19:30:00 CET", meaning("2026-11-20 14:00 -04:30"));
  EXPECT_EQ("2026-11-20 08:30:00 CET", meaning("2026-11-20T14:00:00+0630"));
}

TEST_F(Moments, OfAnAge) {
  EXPECT_EQ("2026-11-15 12:00:00 CET", meaning("7d"));
  EXPECT_EQ("2026-11-22 10:00:00 CET", meaning("-2h"));
  EXPECT_EQ("2026-11-22 10:30:00 CET", meaning("90m ago"));
  EXPECT_EQ("2026-11-22 10:29:30 CET", meaning("1h 30m 30s ago"));
  EXPECT_EQ("2026-11-08 12:00:00 CET", meaning("2w"));
}

TEST_F(Moments, OfSecondsSince1970) {
  EXPECT_EQ("2026-11-22 12:00:00 CET", meaning("1795345200"));
  EXPECT_EQ("1970-01-01 01:00:09 CET", meaning("@9"));
  EXPECT_EQ(kNow + 250'000, text::moment_of("1795345200.25", kNow)->first);
  EXPECT_EQ(kNow + 1, text::moment_of("@1795345200.000001", kNow)->first);
}

TEST_F(Moments, OfPartsOfASecond) {
  EXPECT_EQ(kNow + 5, text::moment_of("2026-11-22 12:00:00.000005", kNow)->first);
  EXPECT_EQ(kNow + 999'999, text::moment_of("12:00:00.9999999", kNow)->last);
}

TEST_F(Moments, OfAnHourThatComesTwice) {
  EXPECT_EQ("2026-10-25 02:30:00 CEST to 2026-10-25 02:30:00 CET", meaning("2026-10-25 02:30"));
  EXPECT_EQ("2026-10-25 02:30:00 CEST", meaning("2026-10-25 02:30 CEST"));
  EXPECT_EQ("2026-10-25 02:30:00 CET", meaning("2026-10-25 02:30 CET"));
}

TEST_F(Moments, OfAnHourThatIsLeftOutAreBesideIt) {
  const auto moment = text::moment_of("2026-03-29 02:30", kNow);
  ASSERT_TRUE(moment.has_value());
  EXPECT_EQ(moment->first, moment->last);
  const std::string shown = text::local_time(moment->first);
  EXPECT_TRUE(shown == "2026-03-29 03:30:00 CEST" || shown == "2026-03-29 01:30:00 CET") << shown;
}

TEST_F(Moments, OfDaysThatClocksChangeLastTheirHours) {
  const auto spring = text::moment_of("2026-03-29", kNow);
  EXPECT_EQ(23 * kHour, spring->last + 1 - spring->first);
  const auto autumn = text::moment_of("2026-10-25", kNow);
  EXPECT_EQ(25 * kHour, autumn->last + 1 - autumn->first);
  // "yesterday" is a day of the calendar, not 24 hours.
  EXPECT_EQ("2026-10-25 00:00:00 CEST to 2026-10-25 23:59:59 CET",
            meaning("yesterday", text::moment_of("2026-10-26 00:30", kNow)->first));
}

TEST_F(Moments, AreReadBackAsTheyAreShown) {
  for (const char* zone : {"Europe/Berlin", "America/St_Johns", "Pacific/Chatham", "UTC"}) {
    live_in(zone);
    // Each twenty minutes around both changes of the clocks.
    for (const int64_t begin : {1774742400L, 1792886400L, 1793491200L, 1775304000L}) {
      for (int64_t at = begin; at < begin + 86400; at += 1200) {
        const std::string shown = text::local_time(at * kSecond);
        const auto moment = text::moment_of(shown, kNow);
        ASSERT_TRUE(moment.has_value()) << shown;
        EXPECT_EQ(at * kSecond, moment->first) << shown;
        EXPECT_EQ(at * kSecond, moment->last) << shown;
      }
    }
  }
}

TEST_F(Moments, OfOtherTextsAreNone) {
  for (const char* text : {"",
                           " ",
                           "soon",
                           "2026",
                           "2026-13-01",
                           "2026-02-30",
                           "26-11-20",
                           "2026-11-20 25:00",
                           "2026-11-20 14:60",
                           "2026-11-20 14",
                           "14:",
                           ":30",
                           "14:00:",
                           "14:00:05.",
                           "7",
                           "7x",
                           "d",
                           "-",
                           "ago",
                           "2h later",
                           "yesterday noon",
                           "2026-11-20 14:00 XYZ",
                           "2026-11-20T14:00+1",
                           "99999999999999999999",
                           "@",
                           "@x",
                           "1795345200.",
                           "99999999999w",
                           "2026-11-20 14:00:-5"}) {
    EXPECT_EQ("nothing", meaning(text)) << text;
  }
}

}  // namespace
}  // namespace tavrix::test
