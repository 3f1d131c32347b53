// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl events and audit.

#include <gtest/gtest.h>
#include <unistd.h>
#include <csignal>
#include <sstream>

#include "internal/scoped.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tools/operator.hpp"
#include "tools/events/dump_reader.hpp"
#include "vfs_common.h"

namespace tavrix::test {
namespace {

std::string frame(const Malloced<staging_data_s>& record) {
  return {reinterpret_cast<const char*>(record.get()), record->size + sizeof(staging_data_s)};
}

std::string event_bytes(const std::string& path, uid_t uid = 1001,
                        VFSEvent__OpType type = VFSEVENT__OP_TYPE__OPTYPE_CLOSE,
                        const char* rename = nullptr, int time_sec = 1700000000) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>(path.c_str());
  event.rename_path = const_cast<char*>(rename);
  event.uid = uid;
  event.optype = type;
  event.client_pid = 42;
  event.time_sec = time_sec;
  event.time_usec = 123;
  return frame(Malloced<staging_data_s>(create_staging_data_buf(&event)));
}

class EventsCommand : public Operator {
 protected:
  void SetUp() override {
    Operator::SetUp();
    set_debug_level(-1);
  }
  static std::vector<nlohmann::json> lines(const Outcome& outcome) {
    std::vector<nlohmann::json> all;
    std::istringstream in(outcome.out);
    for (std::string line; std::getline(in, line);) all.push_back(nlohmann::json::parse(line));
    return all;
  }
  static Outcome decode(const std::string& bytes) {
    write_file("/scratch/dump", bytes);
    return ctl({"events", "decode", "/scratch/dump"});
  }
};

TEST_F(EventsCommand, DecodesARecordALine) {
  const Outcome outcome =
      decode(event_bytes("a") + event_bytes("b", 7, VFSEVENT__OP_TYPE__OPTYPE_RENAME, "c"));
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  const auto all = lines(outcome);
  ASSERT_EQ(2U, all.size());
  EXPECT_EQ("2023-11-14T22:13:20.000123Z", all[0]["time"]);
  EXPECT_EQ(1700000000, all[0]["time_sec"]);
  EXPECT_EQ("CLOSE", all[0]["type"]);
  EXPECT_EQ("FILE", all[0]["object"]);
  EXPECT_EQ(42, all[0]["client_pid"]);
  EXPECT_FALSE(all[0].contains("rename_path"));
  EXPECT_EQ("RENAME", all[1]["type"]);
  EXPECT_EQ("c", all[1]["rename_path"]);
}

// Programs read these lines: the order and the names of known fields stay.
TEST_F(EventsCommand, PrintsTheSameLineAsEver) {
  VFSEvent event = VFSEVENT__INIT;
  event.client_pid = 42;
  event.path = const_cast<char*>("Shared/a\xff");
  event.uid = 4000000000U;
  event.rename_path = const_cast<char*>("Shared/b");
  event.optype = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
  event.time_sec = 1700000000;
  event.time_usec = 123;
  event.fselem_type = VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
  event.tavrix_user = const_cast<char*>("anna");
  const Malloced<staging_data_s> record(create_staging_data_buf(&event));
  EXPECT_EQ(
      "{\"time\":\"2023-11-14T22:13:20.000123Z\",\"time_sec\":1700000000,\"time_usec\":123,"
      "\"type\":\"RENAME\",\"object\":\"DIR\",\"path\":\"Shared/a\xef\xbf\xbd\","
      "\"path_base64\":\"U2hhcmVkL2H/\",\"rename_path\":\"Shared/b\",\"uid\":4000000000,"
      "\"user\":\"anna\",\"client_pid\":42}\n",
      decode(frame(record)).out);
}

// A newer server process may send more than this program knows.
TEST_F(EventsCommand, ShowsFieldsThatItDoesNotKnow) {
  // Field 20 as a number, twice, 21 as a text, 22 and 23 of 4 and of 8 bytes.
  const std::string more = "\xa0\x01\xac\x02\xa0\x01\x07\xaa\x01\x05later\xb5\x01\x01\x02" +
                           std::string("\0\0\xb9\x01\x05\0\0\0\0\0\0\0", 12);
  std::string bytes = event_bytes("a") + more;
  bytes[0] = static_cast<char>(bytes.size() - sizeof(staging_data_s));
  const Outcome outcome = decode(bytes);
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(contains(outcome.out,
                       ",\"unknown_20\":300,\"unknown_20[1]\":7,"
                       "\"unknown_21\":\"later\",\"unknown_22\":513,\"unknown_23\":5}\n"))
      << outcome.out;
}

TEST_F(EventsCommand, DecodesPathsOfAnyBytes) {
  EXPECT_EQ("Yf8=", lines(decode(event_bytes("a\xff")))[0]["path_base64"]);
}

TEST_F(EventsCommand, PrintsWhatComesBeforeDamage) {
  const std::string sound = event_bytes("a");
  const std::string torn = event_bytes("b");
  const std::pair<std::string, std::string> rows[] = {
      {sound + torn.substr(0, 5),
       "byte " + std::to_string(sound.size()) + ": 5 bytes are no record"},
      {sound + torn.substr(0, 12), "are left"},
      {sound + std::string(16, 'x'), "the signature is 0x78787878"},
      {sound + std::string("\3\0\0\0\x10\x20\x01\x04"
                           "abc",
                           11),
       "the record is not a message of this kind"},
  };
  for (const auto& [bytes, message] : rows) {
    const Outcome outcome = decode(bytes);
    EXPECT_EQ(1, outcome.exit_code) << message;
    EXPECT_EQ(1U, lines(outcome).size()) << message;
    EXPECT_TRUE(contains(outcome.err, message)) << outcome.err;
  }
}

TEST_F(EventsCommand, SurvivesEveryTruncation) {
  const std::string bytes = event_bytes("abc") + event_bytes("def");
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    events::DumpReader reader(std::string_view(bytes).substr(0, size));
    while (const auto payload = reader.next()) static_cast<void>(events::unpack_event(*payload));
    EXPECT_EQ(size == 0 || size == bytes.size() / 2, reader.damage().empty()) << size;
  }
}

TEST_F(EventsCommand, Counts) {
  write_file("/scratch/dump", event_bytes("a") + event_bytes("b") +
                                  event_bytes("c", 5, VFSEVENT__OP_TYPE__OPTYPE_UNLINK));
  const auto stats =
      nlohmann::json::parse(ctl({"events", "decode", "--stats", "/scratch/dump"}).out);
  EXPECT_EQ(3, stats["records"]);
  EXPECT_EQ(2, stats["by_type"]["CLOSE"]);
  EXPECT_EQ(1, stats["by_user"]["5"]);
  EXPECT_EQ(3, stats["by_minute"]["2023-11-14T22:13:00Z"]);
}

TEST_F(EventsCommand, NeedsItsFiles) {
  EXPECT_EQ(2, ctl({"events", "decode", "/none"}).exit_code);
  EXPECT_EQ(2, ctl({"events", "decode"}).exit_code);
}

TEST_F(EventsCommand, FollowsAFolder) {
  make_dirs("/scratch/staging");
  write_file("/scratch/staging/pending_1", event_bytes("first"));
  Child follower([] {
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "events", "decode", "--follow",
          "/scratch/staging", nullptr);
  });
  const auto shows = [&](const char* name) {
    return comes([&] { return contains(follower.out_so_far(), name); });
  };
  EXPECT_TRUE(shows("first"));
  write_file("/scratch/staging/.new", event_bytes("second"));
  ASSERT_EQ(0, rename("/scratch/staging/.new", "/scratch/staging/pending_2"));
  EXPECT_TRUE(shows("second"));
  ::kill(follower.pid(), SIGTERM);
  const Outcome outcome = follower.wait();
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  const auto all = lines(outcome);
  ASSERT_EQ(2U, all.size());
  EXPECT_EQ("first", all[0]["path"]);
  EXPECT_EQ("second", all[1]["path"]);
}

TEST_F(EventsCommand, DecodesAudits) {
  AuditEvent event = AUDIT_EVENT__INIT;
  event.path = const_cast<char*>("p");
  event.uid = 5;
  event.size = 123456789012ULL;
  event.time_sec = 1700000000;
  event.ip_address = const_cast<char*>("10.0.0.1");
  write_file("/scratch/dump", frame(Malloced<staging_data_s>(create_audit_data_buf(&event))));
  const auto all = lines(ctl({"audit", "decode", "/scratch/dump"}));
  EXPECT_EQ(123456789012ULL, all.at(0)["size"]);
  EXPECT_EQ("10.0.0.1", all[0]["ip_address"]);
  EXPECT_EQ("2023-11-14T22:13:20Z", all[0]["time"]);
}

std::string audit_bytes(const std::string& path, uid_t uid, int time_sec) {
  AuditEvent event = AUDIT_EVENT__INIT;
  event.path = const_cast<char*>(path.c_str());
  event.uid = uid;
  event.time_sec = time_sec;
  return frame(Malloced<staging_data_s>(create_audit_data_buf(&event)));
}

constexpr auto kUnlink = VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
constexpr auto kMkdir = VFSEVENT__OP_TYPE__OPTYPE_MKDIR;
constexpr auto kRename = VFSEVENT__OP_TYPE__OPTYPE_RENAME;

// The paths of the lines.
std::string paths(const Outcome& outcome) {
  std::string text;
  std::istringstream in(outcome.out);
  for (std::string line; std::getline(in, line);) {
    text += (text.empty() ? "" : " ") + nlohmann::json::parse(line)["path"].get<std::string>();
  }
  return text;
}

// Process 20 flushed before process 3 and after it.
TEST_F(EventsCommand, PutsSeveralDumpsInOrderOfTime) {
  const auto at = [](const char* path, int time) {
    return event_bytes(path, 1, kUnlink, nullptr, time);
  };
  write_file("/scratch/pending_20_1", at("first", 100) + at("third", 300));
  write_file("/scratch/pending_20_4", at("fifth", 500));
  write_file("/scratch/pending_3_2", at("second", 200) + at("fourth", 400));
  EXPECT_EQ("first second third fourth fifth",
            paths(ctl({"events", "decode", "/scratch/pending_20_1", "/scratch/pending_20_4",
                       "/scratch/pending_3_2"})));
}

TEST_F(EventsCommand, KeepsTheOrderOfRecordsOfTheSameTime) {
  write_file("/scratch/a", event_bytes("1") + event_bytes("2"));
  write_file("/scratch/b", event_bytes("3"));
  EXPECT_EQ("1 2 3", paths(ctl({"events", "decode", "/scratch/a", "/scratch/b"})));
}

TEST_F(EventsCommand, PrintsTheSoundDumpsBesideABrokenOne) {
  write_file("/scratch/a", event_bytes("a", 1, kUnlink, nullptr, 2) + "torn");
  write_file("/scratch/b", event_bytes("b", 1, kUnlink, nullptr, 1));
  const Outcome outcome = ctl({"events", "decode", "/scratch/a", "/none", "/scratch/b"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ("b a", paths(outcome));
  EXPECT_TRUE(contains(outcome.err, "/scratch/a: byte ")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "/none: No such file")) << outcome.err;
}

TEST_F(EventsCommand, NamesTheUsers) {
  write_file("/scratch/dump", event_bytes("a", 2) + event_bytes("b", 2) + event_bytes("c", 4001));
  const auto all = lines(ctl({"events", "decode", "/scratch/dump"}));
  EXPECT_EQ("bin", all.at(0)["user_name"]);
  EXPECT_FALSE(all.at(2).contains("user_name"));
  const auto stats =
      nlohmann::json::parse(ctl({"events", "decode", "--stats", "/scratch/dump"}).out);
  EXPECT_EQ(nlohmann::json({{"bin", 2}}), stats["by_user_name"]);
  EXPECT_EQ(1, stats["by_user"]["4001"]);
}

TEST_F(EventsCommand, Filters) {
  write_file(
      "/scratch/dump",
      event_bytes("/tavrix/Shared/Team/plan.txt", 2, kUnlink, nullptr, 1700000000) +
          event_bytes("/tavrix/Shared/Teams/x.doc", 2, kMkdir, nullptr, 1700000001) +
          event_bytes("/tavrix/Shared/a", 4001, kRename, "/tavrix/Shared/Team/a", 1700000002) +
          event_bytes("/tavrix/Private/anna/Plan b", 4001, kUnlink, nullptr, 1700086400));
  const auto found = [](const std::vector<std::string>& filter) {
    std::vector<std::string> words{"events", "decode", "/scratch/dump"};
    words.insert(words.end(), filter.begin(), filter.end());
    const Outcome outcome = ctl(words);
    EXPECT_EQ(0, outcome.exit_code) << outcome.err;
    std::string names;
    std::istringstream in(outcome.out);
    for (std::string line; std::getline(in, line);) {
      const std::string path = nlohmann::json::parse(line)["path"];
      names += (names.empty() ? "" : ", ") + path.substr(path.rfind('/') + 1);
    }
    return names;
  };
  EXPECT_EQ("plan.txt, a", found({"--path", "Shared/Team"}));
  EXPECT_EQ("plan.txt, a", found({"--path", "\\Shared\\Team\\"}));
  EXPECT_EQ("plan.txt, a", found({"--path", "/tavrix/Shared/Team"}));
  EXPECT_EQ("plan.txt, Plan b", found({"--path", "PLAN"}));
  EXPECT_EQ("plan.txt, x.doc", found({"--path", "*.[dt]*"}));
  EXPECT_EQ("plan.txt, x.doc, a", found({"--path", "Shared/T*"}));
  EXPECT_EQ("plan.txt, x.doc", found({"--user", "bin"}));
  EXPECT_EQ("a, Plan b", found({"--user", "4001"}));
  EXPECT_EQ("plan.txt, Plan b", found({"--op", "delete"}));
  EXPECT_EQ("x.doc, a", found({"--op", "MKDIR,rename"}));
  EXPECT_EQ("plan.txt", found({"--until", "1700000000.5"}));
  EXPECT_EQ("a, Plan b", found({"--since", "1700000002"}));
  EXPECT_EQ("x.doc, a", found({"--since", "2023-11-14T22:13:21Z", "--until", "@1700000003"}));
  EXPECT_EQ("", found({"--since", "-2h"}));
  EXPECT_EQ("Plan b", found({"--path", "plan", "--user", "4001", "--op", "UNLINK"}));
}

TEST_F(EventsCommand, RefusesFiltersWithoutAMeaning) {
  write_file("/scratch/dump", "");
  const auto complaint = [](const char* option, const char* value) {
    const Outcome outcome = ctl({"events", "decode", "/scratch/dump", option, value});
    EXPECT_EQ(2, outcome.exit_code);
    return outcome.err;
  };
  EXPECT_EQ(
      "tavrixctl: there is no user \"nobody-of-this-name\" on this machine; give the number of "
      "one that is gone\n",
      complaint("--user", "nobody-of-this-name"));
  EXPECT_EQ("tavrixctl: \"delte\" is not an operation; did you mean \"delete\"?\n",
            complaint("--op", "delte"));
  EXPECT_EQ(
      "tavrixctl: \"soon\" is not a time; give one such as \"2026-11-20 14:00\", "
      "\"yesterday\", \"7d\" or \"2h ago\"\n",
      complaint("--since", "soon"));
}

TEST_F(EventsCommand, FollowsInOrderOfTimeThroughTheFilter) {
  make_dirs("/scratch/staging");
  write_file("/scratch/staging/pending_20", event_bytes("early", 1, kUnlink, nullptr, 100));
  write_file("/scratch/staging/pending_3",
             event_bytes("late", 1, kUnlink, nullptr, 200) + event_bytes("other", 2));
  Child follower([] {
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "events", "decode", "--follow",
          "/scratch/staging", "--user", "1", nullptr);
  });
  EXPECT_TRUE(comes([&] { return contains(follower.out_so_far(), "late"); }));
  ::kill(follower.pid(), SIGTERM);
  EXPECT_EQ("early late", paths(follower.wait()));
}

TEST_F(EventsCommand, FollowsNoMissingOrWrongFolder) {
  make_dirs("/scratch/other");
  write_file("/scratch/other/letter.txt", "");
  const auto complaint = [](const char* kind, const char* folder) {
    const Outcome outcome = run_program(
        {"timeout", "20", TAVRIX_BUILD_DIR "/tools/tavrixctl", kind, "decode", "--follow", folder});
    EXPECT_EQ(2, outcome.exit_code);
    return outcome.err;
  };
  EXPECT_EQ("tavrixctl: /none: No such file or directory\n", complaint("events", "/none"));
  EXPECT_EQ("tavrixctl: /scratch/other/letter.txt: Not a directory\n",
            complaint("events", "/scratch/other/letter.txt"));
  EXPECT_EQ(
      "tavrixctl: /scratch/other has other files and no dump files; dump files of this kind "
      "come to /tavrix/.conf/auditing\n",
      complaint("audit", "/scratch/other"));
}

TEST_F(EventsCommand, EndsWhenTheFolderThatItFollowsGoes) {
  make_dirs("/scratch/staging");
  write_file("/scratch/staging/pending_1", event_bytes("first"));
  Child follower([] {
    execl(TAVRIX_BUILD_DIR "/tools/tavrixctl", "tavrixctl", "events", "decode", "--follow",
          "/scratch/staging", nullptr);
  });
  EXPECT_TRUE(comes([&] { return contains(follower.out_so_far(), "first"); }));
  remove_all("/scratch/staging");
  const Outcome outcome = follower.wait();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ("tavrixctl: /scratch/staging: No such file or directory\n", outcome.err);
}

TEST_F(EventsCommand, FiltersAndOrdersAuditsAlike) {
  write_file("/scratch/a", audit_bytes("/tavrix/Shared/late", 2, 1700000200));
  write_file("/scratch/b", audit_bytes("/tavrix/Shared/early", 2, 1700000100) +
                               audit_bytes("/tavrix/Shared/other", 3, 1700000100));
  const Outcome outcome = ctl({"audit", "decode", "/scratch/a", "/scratch/b", "--user", "bin",
                               "--path", "Shared", "--since", "1700000000"});
  EXPECT_EQ("/tavrix/Shared/early /tavrix/Shared/late", paths(outcome));
  EXPECT_EQ("bin", lines(outcome).at(0)["user_name"]);
}

}  // namespace
}  // namespace tavrix::test
