// SPDX-License-Identifier: LGPL-3.0-or-later
// Appends in sessions, while processes die and buffer and semaphore are replaced at any moment.

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <algorithm>
#include <atomic>
#include <memory>
#include <random>

#include "tavrix_session.h"
#include "tests/support/staging.hpp"
#include "tests/support/stops.hpp"

namespace tavrix::test {
namespace {

using Payloads = std::vector<std::string>;

class SessionAppend : public Staging {
 protected:
  static constexpr int kEvents = 3;
  static constexpr int kMostCalls = 300;

  // Memory that this test shares with its children: what they write there needs no call.
  struct Shared {
    std::atomic<int> acknowledged{0};
    std::atomic<int> value_at_end{0};  // of the semaphore, while the writer lives
    std::atomic<int> paused{0};
    std::atomic<bool> must_pause{false};
    std::atomic<bool> must_end{false};
  };
  void SetUp() override {
    Staging::SetUp();
    void* block =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, block);
    shared_ = new (block) Shared;
  }
  void TearDown() override { munmap(shared_, sizeof(Shared)); }

  static key_t buffer_key() { return ftok("/dev/null", 1234); }
  static int set() { return semget(ftok("/dev/null", 2345), 0, 0); }
  static int value_of_set() { return semctl(set(), 0, GETVAL); }
  static std::string name_of(int number) { return "event-" + std::to_string(number); }

  // An event in each state of a session: not attached yet, held, idle.
  void append_some() const {
    int number = 0;
    const auto append_next = [&] {
      if (append(name_of(number++)) == 0) ++shared_->acknowledged;
    };
    tavrix_session_begin();
    append_next();
    append_next();
    tavrix_session_idle();
    append_next();
    tavrix_session_end();
    // The set may go between the look-up and the question.
    while ((shared_->value_at_end = value_of_set()) == -1) {
    }
  }

  // Does as a sweeper when the size of the buffer changes. It keeps the semaphore meanwhile.
  static Payloads replace_buffer() {
    const Payloads events = payloads_of(content());
    EXPECT_EQ(0, remove_staging_buffers());
    EXPECT_EQ(0, create_staging_buffer());
    return events;
  }
  static void replace_set() {
    ASSERT_EQ(1, destroy_eventstore_staging_buffer_semaphore());
    ASSERT_EQ(1, create_eventstore_staging_semaphore());
  }
  // False when the semaphore is not free.
  static bool try_to_take() {
    sembuf step{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO | IPC_NOWAIT};
    return semop(set(), &step, 1) == 0;
  }
  static void give_back() {
    sembuf step{.sem_num = 0, .sem_op = 1, .sem_flg = SEM_UNDO};
    ASSERT_EQ(0, semop(set(), &step, 1));
  }

  // Each event is there once; at most one more than was acknowledged, from a writer that died
  // between its store and its count.
  void expect_each_once(const Payloads& events, const std::string& where) const {
    const int acknowledged = shared_->acknowledged;
    const int there = static_cast<int>(events.size());
    EXPECT_TRUE(there == acknowledged || there == acknowledged + 1)
        << where << ": " << there << " of " << acknowledged;
    for (int number = 0; number < there; ++number) {
      EXPECT_EQ(1, std::count(events.begin(), events.end(), name_of(number)))
          << where << ": " << name_of(number);
    }
  }
  void forget() {
    shared_->acknowledged = 0;
    initialize_staging_buffer();
  }

  Shared* shared_ = nullptr;
};

// --- a writer that dies --------------------------------------------------------------------------

TEST_F(SessionAppend, AWriterMayDieInFrontOfAnyCall) {
  int nth = 1;
  for (; killed_at_call(nth, [this] { append_some(); }); ++nth) {
    ASSERT_LT(nth, kMostCalls);
    const std::string where = "killed in front of call " + std::to_string(nth);
    ASSERT_TRUE(semaphore_is_free()) << where;
    EXPECT_EQ(1, value_of_set()) << where;
    EXPECT_EQ(0, attachments()) << where;
    expect_each_once(payloads_of(content()), where);
    EXPECT_EQ(0, append("next")) << where;
    EXPECT_EQ("next", payloads_of(content()).back()) << where;
    forget();
  }
  EXPECT_GT(nth, 20) << "the writer made few calls";
}

// --- a semaphore that is replaced ----------------------------------------------------------------

// The writer goes on with the new set, and posts on none that it did not take: the value stays 1,
// so that two never hold it together.
TEST_F(SessionAppend, TheSetMayBeReplacedInFrontOfAnyChange) {
  int nth = 1;
  for (; stopped_at_change(
           nth, [this] { append_some(); }, [] { replace_set(); });
       ++nth) {
    ASSERT_LT(nth, kMostCalls);
    const std::string where = "replaced in front of change " + std::to_string(nth);
    EXPECT_EQ(1, shared_->value_at_end) << where;
    EXPECT_EQ(1, value_of_set()) << where;
    EXPECT_EQ(kEvents, shared_->acknowledged) << where;
    expect_each_once(payloads_of(content()), where);
    EXPECT_EQ(0, attachments()) << where;
    forget();
  }
  EXPECT_GT(nth, 12) << "the writer changed little";
}

// --- a buffer that is replaced -------------------------------------------------------------------

// Its events move on with the sweeper that replaced it, and none is written to it afterwards.
TEST_F(SessionAppend, TheBufferMayBeReplacedInFrontOfAnyChange) {
  int replaced = 0;
  Payloads moved;
  const auto replace_if_free = [&] {
    if (!try_to_take()) return;
    moved = replace_buffer();
    give_back();
    ++replaced;
  };
  for (int nth = 1; stopped_at_change(
           nth, [this] { append_some(); }, replace_if_free);
       ++nth) {
    ASSERT_LT(nth, kMostCalls);
    const std::string where = "replaced in front of change " + std::to_string(nth);
    EXPECT_EQ(kEvents, shared_->acknowledged) << where;
    const Payloads rest = payloads_of(content());
    moved.insert(moved.end(), rest.begin(), rest.end());
    expect_each_once(moved, where);
    EXPECT_EQ(1, segments_in_use()) << where << ": the old buffer is still there";
    EXPECT_EQ(0, attachments()) << where;
    moved.clear();
    forget();
  }
  EXPECT_GT(replaced, 6);
}

// --- both, under many writers --------------------------------------------------------------------

class SessionWriters : public SessionAppend, public testing::WithParamInterface<int> {
 protected:
  static constexpr int kWriters = 10;
  static constexpr int kRounds = 400;

  static std::string payload(int writer, int number) {
    return std::to_string(writer) + " " + std::to_string(number) + " " +
           std::string(20 + number % 60, 'x');
  }
  void write_until_the_end(int writer, bool has_session) const {
    std::mt19937 random(static_cast<unsigned>(writer));
    if (has_session) {
      ASSERT_EQ(0, tavrix_session_begin());
    }
    int number = 0;
    while (!shared_->must_end) {
      if (shared_->must_pause) pause_here();
      ASSERT_EQ(0, append(payload(writer, number)));
      ++number;
      ++shared_->acknowledged;
      if (random() % 30 == 0) tavrix_session_idle();
      if (random() % 200 == 0) append_in_child(writer, number);
    }
    if (has_session) tavrix_session_end();
    EXPECT_EQ(0, tavrix_session_is_holding());
    write_file("/scratch/count" + std::to_string(writer), std::to_string(number));
  }
  void append_in_child(int writer, int& number) const {
    const Outcome outcome = in_child([&] { ASSERT_EQ(0, append(payload(writer, number))); });
    ASSERT_TRUE(outcome.ok()) << outcome.out << outcome.err;
    ++number;
    ++shared_->acknowledged;
  }
  void pause_here() const {
    ++shared_->paused;
    while (shared_->must_pause) usleep(100);
    --shared_->paused;
  }

  // A writer that finds no semaphore gives up, so the set goes while nobody appends; the sessions
  // stay open, and know the old one.
  void replace_all() {
    shared_->must_pause = true;
    while (shared_->paused < kWriters) usleep(100);
    replace_set();
    collect(replace_buffer());
    shared_->must_pause = false;
    while (shared_->paused > 0) usleep(100);
  }
  void replace_buffer_as_a_sweeper() {
    int cause = 0;
    ASSERT_EQ(0, wait_eventstore_semaphore(&cause));
    collect(replace_buffer());
    ASSERT_EQ(0, post_eventstore_semaphore());
  }
  void collect(const Payloads& events) { all_.insert(all_.end(), events.begin(), events.end()); }

  Payloads all_;
};

// Each record is whole and in its writer's order, so two
// were never in the buffer at once; none is missing, so none went to a buffer that was gone.
TEST_P(SessionWriters, LoseNoEventToABufferOrASetThatIsReplaced) {
  remove_staging_buffers();
  configure(1 << 20, 90, kDir);
  ASSERT_EQ(0, create_staging_buffer());
  std::vector<std::unique_ptr<Child>> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.push_back(std::make_unique<Child>(
        [this, writer] { write_until_the_end(writer, writer % 10 < GetParam()); }));
  }
  std::mt19937 random(7);
  for (int round = 0; round < kRounds && !HasFailure(); ++round) {
    usleep(static_cast<unsigned>(random() % 5000));
    random() % 4 == 0 ? replace_all() : replace_buffer_as_a_sweeper();
    // Writers may keep a buffer that was removed, each one at most.
    EXPECT_LE(segments_in_use(), 1 + kWriters);
  }
  shared_->must_end = true;
  for (auto& writer : writers) {
    const Outcome outcome = writer->wait();
    ASSERT_TRUE(outcome.ok()) << outcome.signal << outcome.out << outcome.err;
  }
  collect(payloads_of(content()));
  EXPECT_EQ(static_cast<std::size_t>(shared_->acknowledged), all_.size());
  std::vector<int> next(kWriters, 0);
  for (const std::string& text : all_) {
    int writer = -1;
    ASSERT_EQ(1, std::sscanf(text.c_str(), "%d ", &writer)) << text;
    ASSERT_EQ(payload(writer, next.at(static_cast<std::size_t>(writer))++), text);
  }
  for (int writer = 0; writer < kWriters; ++writer) {
    EXPECT_EQ(std::to_string(next[static_cast<std::size_t>(writer)]),
              read_file("/scratch/count" + std::to_string(writer)));
  }
  EXPECT_EQ(1, value_of_set());
  EXPECT_EQ(1, segments_in_use());
  EXPECT_EQ(0, attachments());
}

INSTANTIATE_TEST_SUITE_P(SessionsOfTen, SessionWriters, testing::Values(5, 10));

}  // namespace
}  // namespace tavrix::test
