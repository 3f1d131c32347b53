// SPDX-License-Identifier: LGPL-3.0-or-later
// System calls of the process that serves a client, for one operation: the module's price, whatever
// the machine's load. scripts/bench-samba.sh counts the same for docs/benchmarks.md.

#include "tests/samba/appliance.hpp"
#include "tests/samba/lease.hpp"

namespace tavrix::test {
namespace {

constexpr int kEntries = 1000;  // of the listed folder

struct Bound {
  const char* operation;
  double calls;  // at most, with everything that the server itself does
};
std::ostream& operator<<(std::ostream& out, const Bound& bound) {
  return out << "at most " << bound.calls;
}
constexpr Bound kBounds[] = {
    {"list", 6.5}, {"list-again", 6.5}, {"put", 130}, {"get", 80}, {"rename", 265}, {"delete", 260},
};
// A call of the server's own housekeeping now and then.
constexpr double kHousekeeping = 0.5;

class CallCounts : public Appliance, public testing::WithParamInterface<Bound> {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    for (const char* folder : {"list", "empty", "put"}) {
      make_folder("/tavrix/Shared/Team/" + std::string(folder));
    }
    bash("cd /tavrix/Shared/Team/list && seq -f 'entry%05g.txt' " + std::to_string(kEntries) +
         " | xargs touch");
    write_file("/scratch/data.txt", "some data\n");
    // The build that is shipped: the debug build makes calls of its own.
    bash("cp " TAVRIX_BUILD_DIR "/samba/tavrix.so $samba_modules/vfs/");
    configure({}, "tavrix");
    start_smbd();
  }
};

// The server of a busy machine begins a second thread at times, and each change of identity must be
// told to it. A count of such a server says nothing.
Outcome count_calls(const std::string& operation) {
  const std::string counter = TAVRIX_SOURCE_DIR "/scripts/lib/bench_samba_calls.py";
  Outcome outcome;
  for (int tries = 0; tries < 4; ++tries) {
    outcome = run_program({"/usr/bin/python3", counter, "Administrator", "Team",
                           std::to_string(kEntries), operation});
    if (outcome.out.find("tgkill") == std::string::npos) break;
  }
  return outcome;
}

void expect_bound(const Bound& bound) {
  const Outcome outcome = count_calls(bound.operation);
  ASSERT_TRUE(outcome.ok()) << outcome.err;
  double calls = 0;
  std::istringstream lines(outcome.out);  // "put fstat 12.0000"
  std::string operation;
  std::string name;
  for (double count = 0; lines >> operation >> name >> count;) calls += count;
  EXPECT_GT(calls, 0);
  EXPECT_LE(calls, bound.calls + kHousekeeping) << outcome.out;
}

TEST_P(CallCounts, OfOneOperationHoldTheirBound) { expect_bound(GetParam()); }

// The fence compares a number in memory with the clock.
TEST_P(CallCounts, BehindTheFenceHoldTheSameBound) {
  stop_smbd();
  make_private_run();
  lease_for(3600);
  configure({"tavrix:fence = yes"}, "tavrix");
  start_smbd();
  expect_bound(GetParam());
}

std::string name_of(const testing::TestParamInfo<Bound>& bound) {
  std::string name = bound.param.operation;
  std::erase(name, '-');
  return name;
}
INSTANTIATE_TEST_SUITE_P(Operations, CallCounts, testing::ValuesIn(kBounds), name_of);

}  // namespace
}  // namespace tavrix::test
