// SPDX-License-Identifier: LGPL-3.0-or-later
// The judgement of facts that take hours to come about.

#include "tools/status/judge.hpp"

#include <gtest/gtest.h>

#include "tools/status/sentences.hpp"

namespace tavrix::status {
namespace {

constexpr int64_t kNow = 1'700'000'000;
constexpr int64_t kHour = 3600;

// A world in which nothing is to be said.
Facts well() {
  Facts facts;
  facts.now = kNow;
  facts.settings.exists = facts.settings.is_loaded = true;
  facts.settings.flush_period = 5;
  facts.map.has_set = facts.map.has_copy = true;
  facts.map.current = 0;
  facts.map.initialized = 1;
  facts.map.tables[0] = {.id = 7, .bytes = 1000, .created = kNow - 10};
  facts.map.is_copy_equal = true;
  facts.groups.exists = true;
  facts.services = {{"sweeper", {{1, "tavrix-sweeper"}}, {}, {}, {}},
                    {"loader", {{2, "tavrix-loader"}}, {}, {}, {}}};
  facts.buffer.exists = facts.buffer.is_sound = facts.buffer.has_semaphore = true;
  facts.buffer.is_free = true;
  return facts;
}

std::string judged(const Facts& facts) {
  std::string text;
  for (const Finding& finding : judge(facts)) {
    text += std::string(text.empty() ? "" : " ") + name_of(finding.level) + ":" + finding.id;
    EXPECT_NE("", finding.sentence);
    EXPECT_NE("", finding.advice);
  }
  return text;
}

TEST(Judge, SaysNothingWhenAllIsWell) {
  EXPECT_EQ("", judged(well()));
  EXPECT_EQ(Level::kWell, worst({}));
}

TEST(Judge, LetsEventsWaitAFewPeriods) {
  Facts facts = well();
  facts.buffer.oldest = kNow - 59;
  EXPECT_EQ("", judged(facts));
  facts.buffer.oldest = kNow - 61;
  EXPECT_EQ("warning:events-wait", judged(facts));
  facts.settings.flush_period = 30;
  EXPECT_EQ("", judged(facts));
  facts.buffer.oldest = kNow - kHour;
  EXPECT_EQ("critical:events-wait", judged(facts));
}

TEST(Judge, LetsTheAgentTakeItsTime) {
  Facts facts = well();
  facts.events = {.folder = "/f", .is_readable = true, .count = 2, .oldest = kNow - 60};
  EXPECT_EQ("", judged(facts));
  facts.events.oldest = kNow - kHour;
  EXPECT_EQ("warning:agent-not-collecting", judged(facts));
  facts.events.oldest = kNow - 25 * kHour;
  EXPECT_EQ("critical:agent-not-collecting", judged(facts));
}

TEST(Judge, LetsAnEarlierMapStayForAWhile) {
  Facts facts = well();
  facts.connections.pinned = {{{.id = 3, .bytes = 10, .attached = 1, .created = kNow - kHour}, {}}};
  EXPECT_EQ("", judged(facts));  // it was replaced ten seconds ago
  facts.map.tables[0].created = kNow - kHour;
  EXPECT_EQ("warning:map-pinned", judged(facts));
}

TEST(Judge, KnowsALongImport) {
  Facts facts = well();
  facts.map.inbox.in_work_since = kNow - kHour + 1;
  EXPECT_EQ("", judged(facts));
  facts.map.inbox.in_work_since = kNow - kHour - 1;
  EXPECT_EQ("warning:map-in-work", judged(facts));
}

TEST(Judge, ComparesVersions) {
  Facts facts = well();
  facts.versions = {.tools = "1.0.0", .library = "1.0.1"};
  EXPECT_EQ("warning:library-version", judged(facts));
  facts.versions.has_module = true;
  facts.versions.module_samba = "4.17";
  for (const char* fitting : {"4.17.12", "4.17.13", "4.17"}) {
    facts.versions.samba = fitting;
    EXPECT_EQ("warning:library-version", judged(facts)) << fitting;
  }
  for (const char* other : {"4.18.1", "4.1.7", "4.170.1", "5.17.12"}) {
    facts.versions.samba = other;
    EXPECT_EQ("critical:module-version warning:library-version", judged(facts)) << other;
  }
  facts.versions.module_samba = "";
  EXPECT_EQ("critical:module-version warning:library-version", judged(facts));
}

TEST(Judge, KnowsALackOfSpace) {
  Facts facts = well();
  facts.disks = {{.folder = "/d", .purpose = "events", .bytes = 1000, .free = 40}};
  EXPECT_EQ("warning:space-events", judged(facts));
  facts.disks[0].needed = 41;
  EXPECT_EQ("critical:space-events", judged(facts));
  facts.disks[0] = {.folder = "/d", .purpose = "events", .bytes = 1000, .free = 900, .files = 5};
  EXPECT_EQ("critical:space-events", judged(facts));
}

// On a new machine the loader runs and has nothing to load.
TEST(Judge, AsksForAMapWhereTheLoaderRuns) {
  Facts facts = well();
  facts.map.has_set = facts.map.has_copy = false;
  EXPECT_EQ("hand a map over, or look into the journal of tavrix-loader",
            judge(facts).front().advice);
  facts.services[1].processes.clear();
  EXPECT_EQ("start tavrix-loader, or look into its journal", judge(facts).front().advice);
}

TEST(Judge, ExcusesWhatItCouldNotRead) {
  Facts facts = well();
  facts.buffer.is_sound = false;
  EXPECT_EQ("critical:buffer-damaged", judged(facts));
  facts.unread = {{"buffer", "the staging buffer", "Permission denied"}};
  EXPECT_EQ("", judged(facts));
}

TEST(Judge, KnowsAHistorianThatStopped) {
  Facts facts = well();
  facts.services.push_back({"historian", {}, {}, {}, {}});
  EXPECT_EQ("warning:historian-stopped", judged(facts));
}

TEST(Judge, LooksAtTheHistory) {
  Facts facts = well();
  facts.services.push_back({"historian", {{3, "tavrix-historian"}}, {}, {}, {}});
  facts.history = {.folder = "/f", .is_readable = true, .is_on = true, .waiting = 2};
  facts.history->oldest = kNow - 60;
  EXPECT_EQ("", judged(facts));
  facts.history->oldest = kNow - kHour;
  EXPECT_EQ("warning:history-waits", judged(facts));
  facts.history->refused = 1;
  EXPECT_EQ("warning:history-refused warning:history-waits", judged(facts));
  facts.history = {.folder = "/f", .is_readable = true};
  EXPECT_EQ("warning:history-off", judged(facts));
}

TEST(Sentences, RoundDurations) {
  EXPECT_EQ("1 second", duration_text(1));
  EXPECT_EQ("119 seconds", duration_text(119));
  EXPECT_EQ("2 minutes", duration_text(120));
  EXPECT_EQ("2 hours", duration_text(2 * kHour));
  EXPECT_EQ("3 days", duration_text(80 * kHour));
  EXPECT_EQ("0 seconds", duration_text(-5));  // a clock that was set back
}

}  // namespace
}  // namespace tavrix::status
