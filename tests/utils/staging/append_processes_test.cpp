// SPDX-License-Identifier: LGPL-3.0-or-later
// Many writers, flushes going on, and processes killed at any moment: nothing acknowledged is lost.

#include <fcntl.h>
#include <sys/wait.h>
#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <random>

#include "tests/support/staging.hpp"

namespace tavrix::test {
namespace {

class Processes : public Staging {
 protected:
  // "writer number" and some filler.
  static std::string payload(int writer, int number) {
    return std::to_string(writer) + " " + std::to_string(number) + " " +
           std::string(20 + number % 60, 'x');
  }
  static std::map<int, std::vector<int>> by_writer(const std::vector<std::string>& payloads) {
    std::map<int, std::vector<int>> numbers;
    for (const std::string& text : payloads) {
      int writer = -1;
      int number = -1;
      EXPECT_EQ(2, std::sscanf(text.c_str(), "%d %d", &writer, &number)) << text;
      EXPECT_EQ(payload(writer, number), text);
      numbers[writer].push_back(number);
    }
    return numbers;
  }
  // Dump files in the order of their names' times, then what is still in the buffer.
  static std::vector<std::string> everything() {
    std::vector<std::string> names = dumps();
    const auto time_of = [](const std::string& name) { return name.substr(name.find('_', 8) + 1); };
    std::sort(names.begin(), names.end(),
              [&](const std::string& a, const std::string& b) { return time_of(a) < time_of(b); });
    std::vector<std::string> all;
    for (const std::string& name : names) {
      const auto some = payloads_of(read_file(std::string(kDir) + "/" + name));
      all.insert(all.end(), some.begin(), some.end());
    }
    const auto rest = payloads_of(content());
    all.insert(all.end(), rest.begin(), rest.end());
    return all;
  }
};

TEST_F(Processes, EveryEventOfManyWritersIsInOnePlaceInOrder) {
  constexpr int kWriters = 64;
  constexpr int kEvents = 2000;
  remove_staging_buffers();
  configure(4 << 20, 80, kDir);
  ASSERT_EQ(0, create_staging_buffer());
  std::vector<std::unique_ptr<Child>> writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    writers.push_back(std::make_unique<Child>([writer] {
      for (int number = 0; number < kEvents; ++number)
        ASSERT_EQ(0, append(payload(writer, number)));
    }));
  }
  Child flusher([] {
    while (!exists("/scratch/stop")) {
      ASSERT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
      usleep(2000);
    }
  });
  for (auto& writer : writers) {
    const Outcome outcome = writer->wait();
    ASSERT_TRUE(outcome.ok()) << outcome.out << outcome.err;
  }
  write_file("/scratch/stop", "");
  EXPECT_TRUE(flusher.wait().ok());
  const auto numbers = by_writer(everything());
  ASSERT_EQ(static_cast<std::size_t>(kWriters), numbers.size());
  for (const auto& [writer, list] : numbers) {
    ASSERT_EQ(static_cast<std::size_t>(kEvents), list.size()) << writer;
    ASSERT_TRUE(std::is_sorted(list.begin(), list.end())) << writer;
  }
  EXPECT_EQ(0, attach_count(ftok("/dev/null", 1234)));
}

// No sweeper runs here. A killed writer may have stored one event without learning of it. A flusher
// that was killed between the reset of the buffer and the rename leaves its events under a
// temporary name; the test counts that file in.
TEST_F(Processes, WhatWasAcknowledgedSurvivesKills) {
  constexpr int kRounds = 300;
  std::mt19937 random(11);
  remove_staging_buffers();
  configure(1 << 20, 80, kDir);
  ASSERT_EQ(0, create_staging_buffer());
  std::map<int, int> acknowledged;
  // A slow machine writes little in a round: more of them follow until it was enough.
  int events = 0;
  for (int round = 0; round < kRounds || (events <= kRounds && round < 10 * kRounds); ++round) {
    const std::string log = "/scratch/ack" + std::to_string(round);
    Child writer([round, &log] {
      const int fd = open(log.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
      for (int number = 0;; ++number) {
        append(payload(round, number));
        const std::string line = std::to_string(number) + "\n";
        if (write(fd, line.data(), line.size()) < 0) _exit(1);
      }
    });
    Child flusher([] {
      for (;;) flush_staging_buffer(FB_CTX_SWPR);
    });
    const auto moments = [&random](unsigned most) {
      return static_cast<unsigned>(random() % most);
    };
    usleep(moments(6000));
    if (random() % 2 == 0) {
      writer.kill();
      usleep(moments(1000));
      flusher.kill();
    } else {
      flusher.kill();
      usleep(moments(1000));
      writer.kill();
    }
    writer.wait();
    flusher.wait();
    const auto lines = lines_of(log);
    acknowledged[round] = lines.empty() ? -1 : std::stoi(lines.back());
    events += acknowledged[round] + 1;
    remove_all(log);
    ASSERT_GE(header().next_offset, 16U);
    ASSERT_LE(header().next_offset, 1U << 20);
  }
  EXPECT_TRUE(semaphore_is_free());
  std::vector<std::string> all = everything();
  for (const std::string& name : list(kDir)) {
    if (!name.starts_with("txtemp")) continue;
    const std::string bytes = read_file(std::string(kDir) + "/" + name);
    // Either whole, or cut off while the buffer still holds its records.
    std::size_t at = 0;
    while (at + 8 <= bytes.size()) {
      staging_data_s head{};
      std::memcpy(&head, bytes.data() + at, sizeof head);
      if (at + 8 + head.size > bytes.size()) break;
      all.push_back(bytes.substr(at + 8, head.size));
      at += 8 + head.size;
    }
  }
  std::map<int, std::vector<int>> numbers = by_writer(all);
  int checked = 0;
  for (const auto& [writer, last] : acknowledged) {
    std::vector<int>& list = numbers[writer];
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
    for (int number = 0; number <= last; ++number) {
      ASSERT_TRUE(std::binary_search(list.begin(), list.end(), number)) << writer << " " << number;
      ++checked;
    }
  }
  EXPECT_GT(checked, kRounds);
}

}  // namespace
}  // namespace tavrix::test
