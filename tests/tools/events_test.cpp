// tavrixctl events and audit, and the sweeper.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <csignal>
#include <memory>
#include <sstream>

#include "internal/scoped.hpp"
#include "tavrix_vfs_utils.h"
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
                        const char* rename = nullptr) {
  VFSEvent event = VFSEVENT__INIT;
  event.path = const_cast<char*>(path.c_str());
  event.rename_path = const_cast<char*>(rename);
  event.uid = uid;
  event.optype = type;
  event.client_pid = 42;
  event.time_sec = 1700000000;
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
       "the record is no message of this kind"},
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
  usleep(500 * 1000);
  write_file("/scratch/staging/.new", event_bytes("second"));
  ASSERT_EQ(0, rename("/scratch/staging/.new", "/scratch/staging/pending_2"));
  usleep(700 * 1000);
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

// --- the buffer and its owner
// ---------------------------------------------------------------------

class Sweeper : public EventsCommand {
 protected:
  void SetUp() override {
    EventsCommand::SetUp();
    make_dirs("/scratch/staging");
    make_dirs("/tavrix/.conf");
    settings(65536, 1);
    use_settings();
  }
  static void settings(int size, int period, const std::string& more = "") {
    write_file("/scratch/conf",
               "[SWEEPER]\nstaging dir = /scratch/staging\nflush fill threshold pct = 80\n"
               "staging buffer size = " +
                   std::to_string(size) + "\nflush period = " + std::to_string(period) + "\n" +
                   more);
    ASSERT_EQ(0, ctl({"config", "load", "/scratch/conf"}).exit_code);
  }
  // This process's own settings, as a server process has them.
  static void use_settings() {
    ASSERT_EQ(0, read_tavrix_config());
    global_params[PARAM_DEBUG_LEVEL].value.intval = -1;
  }
  static Outcome once() {
    return run_program({TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "--once"});
  }
  static std::unique_ptr<Child> daemon() {
    auto child = std::make_unique<Child>([] {
      execl(TAVRIX_BUILD_DIR "/tools/tavrix-sweeper", "tavrix-sweeper", "--foreground", nullptr);
    });
    for (int i = 0; i < 200 && semget(ftok("/dev/null", 2345), 0, 0) == -1; ++i) usleep(10000);
    usleep(200 * 1000);
    return child;
  }
  static void send(const std::string& path) {
    VFSEvent event = VFSEVENT__INIT;
    event.path = const_cast<char*>(path.c_str());
    pop_vfs_event(&event, 1001);
    ASSERT_EQ(0, send_modify_vfs_event(&event));
  }
  static std::vector<std::string> dumped() {
    std::vector<std::string> paths;
    for (const std::string& name : list("/scratch/staging")) {
      for (const auto& line : lines(ctl({"events", "decode", "/scratch/staging/" + name}))) {
        paths.push_back(line["path"]);
      }
    }
    return paths;
  }
};

using Paths = std::vector<std::string>;

TEST_F(Sweeper, MakesTheBufferAndFlushesIt) {
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(0, ctl({"events", "buffer", "show"}).exit_code);
  send("a");
  EXPECT_EQ(1, json({"events", "buffer", "show"})["records"]);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
}

TEST_F(Sweeper, FlushesOnItsPeriod) {
  const auto sweeper = daemon();
  send("a");
  usleep(1500 * 1000);
  EXPECT_EQ(Paths{"a"}, dumped());
  ::kill(sweeper->pid(), SIGTERM);
  EXPECT_EQ(0, sweeper->wait().exit_code);
}

TEST_F(Sweeper, FlushesOnceMoreWhenItIsTold) {
  settings(65536, 3600);
  const auto sweeper = daemon();
  send("last");
  ::kill(sweeper->pid(), SIGTERM);
  EXPECT_EQ(0, sweeper->wait().exit_code);
  EXPECT_EQ(Paths{"last"}, dumped());
}

TEST_F(Sweeper, LeavesTheBufferAloneWhenDisabled) {
  settings(65536, 1, "disable sweeper flush = yes\n");
  const auto sweeper = daemon();
  send("a");
  usleep(1300 * 1000);
  EXPECT_TRUE(list("/scratch/staging").empty());
  ctl({"config", "set", "SWEEPER:disable sweeper flush", "no"});
  ::kill(sweeper->pid(), SIGHUP);
  usleep(1500 * 1000);
  EXPECT_EQ(Paths{"a"}, dumped());
  ::kill(sweeper->pid(), SIGTERM);
  sweeper->wait();
}

TEST_F(Sweeper, TakesOverWhatWasLeft) {
  once();
  send("a");
  settings(131072, 1);  // another size: the old segment is flushed and replaced
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
  EXPECT_EQ(131072, json({"events", "buffer", "show"})["bytes"]);
  use_settings();
  send("b");
  once();
  EXPECT_EQ((Paths{"a", "b"}), dumped());
}

TEST_F(Sweeper, MakesAMissingSemaphoreForWhatIsThere) {
  once();
  send("a");
  destroy_eventstore_staging_buffer_semaphore();
  EXPECT_EQ(0, once().exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
}

TEST_F(Sweeper, AsksForARescanWhenTheBufferIsDamaged) {
  once();
  staging_buffer_s* buffer = get_eventstore_staging_buffer();
  buffer->next_offset = 5;
  buffer->num_records = 3;
  put_eventstore_staging_buffer(buffer);
  EXPECT_EQ(0, once().exit_code);
  EXPECT_TRUE(exists("/tavrix/.conf/tavrix_event_status.dirty"));
  EXPECT_EQ(16, json({"events", "buffer", "show"})["used"]);
}

TEST_F(Sweeper, NeedsSettings) {
  ctl({"config", "remove"});
  const Outcome outcome = once();
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "there are no settings")) << outcome.err;
}

TEST_F(Sweeper, EndsLoudlyWhenItCannotKeepEvents) {
  once();
  send("a");
  remove_all("/scratch/staging");
  EXPECT_EQ(SIGABRT, once().signal);
  EXPECT_TRUE(exists("/tavrix/.conf/sync.off"));
  EXPECT_EQ(1, json({"events", "buffer", "show"})["records"]);
}

TEST_F(Sweeper, BufferCommandsMakeFlushAndRemove) {
  EXPECT_EQ(1, ctl({"events", "buffer", "show"}).exit_code);
  EXPECT_EQ(0, ctl({"events", "buffer", "create"}).exit_code);
  EXPECT_EQ(2, ctl({"events", "buffer", "create"}).exit_code);
  send("a");
  EXPECT_EQ(0, ctl({"events", "buffer", "flush"}).exit_code);
  EXPECT_EQ(Paths{"a"}, dumped());
  EXPECT_EQ(0, ctl({"events", "buffer", "remove"}).exit_code);
  EXPECT_EQ(2, ctl({"events", "buffer", "remove"}).exit_code);
  ctl({"config", "remove"});
  EXPECT_EQ(2, ctl({"events", "buffer", "show"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
