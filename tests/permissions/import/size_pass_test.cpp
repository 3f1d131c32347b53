// SPDX-License-Identifier: LGPL-3.0-or-later
// The size file.

#include <gtest/gtest.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "mkperms_shm.h"
#include "permissions/import/parse_stack.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

struct FreeSummary {
  void operator()(memsummary_s* summary) const {
    tavrix::empty_stack(summary->sth);
    std::free(summary->perm_map_name_size);
    std::free(summary->perm_map_name_data);
    std::free(summary);
  }
};
using Summary = std::unique_ptr<memsummary_s, FreeSummary>;

class SizePass : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    write_file(kData, "[]");
  }
  static constexpr const char* kSize = "/scratch/size.json";
  static constexpr const char* kData = "/scratch/data.json";

  static Summary pass(const std::string& json) {
    write_file(kSize, json);
    memsummary_s* summary = nullptr;
    EXPECT_EQ(SHM_MEMBE_OK, get_permbe_shmsize(kSize, kData, &summary));
    return Summary(summary);
  }
  static Outcome outcome(const std::string& json) {
    return in_child([&] { pass(json); });
  }
  // The fields of the last line of the operator's log behind the time: severity, text, index.
  static std::string told() {
    const auto lines = lines_of("/var/log/tavrix_perms.log");
    if (lines.empty()) return "";
    const std::string& line = lines.back();
    return line.substr(line.find(',', line.find(',') + 1) + 1);
  }
};

TEST_F(SizePass, ReadsEveryField) {
  const Summary sum = pass(R"({"MAPNAME": "team", "VERSION": "v1", "GENERATIONNUM": 7,
      "TIMESTAMP": 1700000001, "TOTALFSELEMS": 3, "TOTALACES": 5, "TOTALNAMELEN": 21})");
  EXPECT_STREQ("team", sum->mapname);
  EXPECT_STREQ("v1", sum->version);
  EXPECT_EQ(7U, sum->generationnum);
  EXPECT_EQ(1700000001, sum->timestamp);
  EXPECT_EQ(3U, sum->total_fselems);
  EXPECT_EQ(5U, sum->total_aces);
  EXPECT_EQ(21U, sum->total_namelen);
  EXPECT_EQ(437U, sum->memsize);
  EXPECT_STREQ(kSize, sum->perm_map_name_size);
  EXPECT_STREQ(kData, sum->perm_map_name_data);
  EXPECT_EQ(nullptr, sum->membuf);
  EXPECT_EQ(0U, sum->fselem_offset + sum->nameelem_offset + sum->acl_offset + sum->list_offset);
  EXPECT_EQ(0U, sum->sth.totalelems);
}

TEST_F(SizePass, TakesMembersInAnyOrderWithCommentsAndGaps) {
  const Summary sum = pass("/* agent */ {\"TOTALACES\": 5, // entries\n \"TOTALFSELEMS\": 3}");
  EXPECT_EQ(3U, sum->total_fselems);
  EXPECT_EQ(5U, sum->total_aces);
  EXPECT_EQ(0U, sum->total_namelen);
  EXPECT_STREQ("", sum->mapname);
}

TEST_F(SizePass, OfNothingIsAHeader) {
  EXPECT_EQ(176U, pass(R"({"TOTALFSELEMS": 0, "TOTALACES": 0, "TOTALNAMELEN": 0})")->memsize);
  EXPECT_EQ(176U, pass("{}")->memsize);
  EXPECT_EQ(176U, pass("")->memsize);
}

TEST_F(SizePass, CutsNumbersToTheirFields) {
  const auto folders = [](const std::string& number) {
    return pass("{\"TOTALFSELEMS\": " + number + "}")->total_fselems;
  };
  EXPECT_EQ(1U, folders("1.9"));
  EXPECT_EQ(2U, folders("2e3"));
  EXPECT_EQ(1U, folders("4294967297"));
  EXPECT_EQ(0xFFFFFFFFU, folders("99999999999999999999999"));
  EXPECT_EQ(0xFFFFFFFFU, folders("-1"));
  EXPECT_EQ(5000000000, pass("{\"TIMESTAMP\": 5000000000}")->timestamp);
}

TEST_F(SizePass, KeepsTheLongestNameAndVersion) {
  const std::string name(31, 'n');
  const std::string version(36, 'v');
  const Summary sum = pass("{\"MAPNAME\": \"" + name + "\", \"VERSION\": \"" + version + "\"}");
  EXPECT_EQ(name, sum->mapname);
  EXPECT_EQ(0, std::memcmp(version.data(), sum->version, 36));
}

TEST_F(SizePass, AbortsOnALongerNameOrVersion) {
  EXPECT_TRUE(outcome("{\"MAPNAME\": \"" + std::string(32, 'n') + "\"}")
                  .aborted_with("stringLen < MAXMAP_NAMELEN"));
  EXPECT_TRUE(outcome("{\"VERSION\": \"" + std::string(37, 'v') + "\"}")
                  .aborted_with("stringLen <= MAXMAP_VERSION_NAMELEN"));
}

TEST_F(SizePass, AbortsOnWhatIsNotOneFlatObject) {
  const char* nested = "memsummary1->sth.totalelems == 0";
  EXPECT_TRUE(outcome(R"({"MAPNAME": {}})").aborted_with(nested));
  EXPECT_TRUE(outcome(R"({"TOTALACES": null})").aborted_with(nested));
  EXPECT_TRUE(outcome(R"({"MAPNAME": 5})").aborted_with("0"));
  EXPECT_TRUE(outcome(R"({"VERSION": 5})").aborted_with("0"));
  EXPECT_TRUE(outcome("5").aborted_with("stelem != NULL"));
}

TEST_F(SizePass, KeepsWhatItReadBeforeAnUnknownKey) {
  const Summary sum = pass(R"({"TOTALFSELEMS": 4, "totalaces": 3, "TOTALNAMELEN": 9})");
  EXPECT_EQ(4U, sum->total_fselems);
  EXPECT_EQ(0U, sum->total_namelen);
  EXPECT_EQ(1U, sum->sth.totalelems);
  EXPECT_EQ(0, level_of("Invalid state totalaces state 9", [] { pass(R"({"totalaces": 3})"); }));
}

TEST_F(SizePass, KeepsWhatItReadBeforeATextForACount) {
  const Summary sum = pass(R"({"TOTALFSELEMS": 4, "TOTALACES": "5", "TOTALNAMELEN": 9})");
  EXPECT_EQ(4U, sum->total_fselems);
  EXPECT_EQ(0U, sum->total_aces + sum->total_namelen);
}

TEST_F(SizePass, KeepsWhatItReadBeforeASyntaxErrorAndTellsIt) {
  testing::internal::CaptureStderr();
  const Summary sum = pass("{\"TOTALFSELEMS\": 4, ]");
  EXPECT_EQ(4U, sum->total_fselems);
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("parse error"));
}

TEST_F(SizePass, ReadsFilesOfManyChunks) {
  const Summary sum = pass("{" + std::string(200000, ' ') + "\"TOTALFSELEMS\": 12345" +
                           std::string(100000, '\n') + ", \"TOTALACES\": 6}");
  EXPECT_EQ(12345U, sum->total_fselems);
  EXPECT_EQ(6U, sum->total_aces);
}

TEST_F(SizePass, PrintsItsTraces) {
  write_file(kSize, R"({"MAPNAME": "m", "TOTALACES": 5})");
  testing::internal::CaptureStdout();
  memsummary_s* raw = nullptr;
  get_permbe_shmsize(kSize, kData, &raw);
  const Summary sum(raw);
  std::fflush(stdout);
  const std::string text = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(std::string(text).starts_with("beshm_map_key(")) << text;
  for (const char* part : {") Here name MAPNAME st 2\n", ") Here m cstate 2\n",
                           ") Here name TOTALACES st 7\n", ") Here val 5\n", "beshm_end_map("}) {
    EXPECT_NE(std::string::npos, text.find(part)) << part << text;
  }
  EXPECT_TRUE(text.ends_with(") Here \n")) << text;
}

// --- arguments and files -------------------------------------------------------------------------

TEST_F(SizePass, WithoutPathsTakesTheSizeOfTheLocalCopy) {
  write_file("/etc/tavrix/.permbe_map", std::string(1234, 'x'));
  memsummary_s own{};
  memsummary_s* summary = &own;
  EXPECT_EQ(SHM_MEMBE_OK, get_permbe_shmsize(nullptr, nullptr, &summary));
  EXPECT_EQ(&own, summary);
  EXPECT_EQ(1234U, own.memsize);
  memsummary_s* none = nullptr;
  EXPECT_EQ(SHM_MEMBE_OK, get_permbe_shmsize(nullptr, nullptr, &none));
  const Summary made(none);
  EXPECT_EQ(1234U, made->memsize);
}

TEST_F(SizePass, WithoutPathsNeedsALocalCopy) {
  memsummary_s own{};
  memsummary_s* summary = &own;
  const char* text = "Perm map location does not exist /etc/tavrix/.permbe_map";
  EXPECT_EQ(0, level_of(text, [&] {
              EXPECT_EQ(SHM_MEMBE_ERR_NOCACHE_FILE, get_permbe_shmsize(nullptr, nullptr, &summary));
            }));
  EXPECT_EQ(std::string("5,") + text + ",4", told());
}

TEST_F(SizePass, WithoutPathsNeedsMemoryForTheLocation) {
  memsummary_s own{};
  memsummary_s* summary = &own;
  fail_call("strdup", ENOMEM);
  EXPECT_EQ(SHM_MEMBE_ERR_NOMEM, get_permbe_shmsize(nullptr, nullptr, &summary));
  EXPECT_TRUE(logged("Error getting permbe map location"));
  EXPECT_TRUE(logged("get_permbe_map_location: returns NULL"));
  EXPECT_EQ("5,Error getting permbe map location,4", told());
}

struct Refusal {
  const char* size;
  const char* data;
  membe_shm_err result;
  const char* text;
};

TEST_F(SizePass, RefusesMissingFiles) {
  write_file(kSize, "{}");
  const Refusal refusals[] = {
      {kSize, nullptr, SHM_MEMBE_ERR_BADARGS, "perm be JSON files are not given"},
      {nullptr, kData, SHM_MEMBE_ERR_BADARGS, "perm be JSON files are not given"},
      {"/none", kData, SHM_MEMBE_ERR_NOPERM_SIZE_FILE, "Missing JSON size file"},
      {kSize, "/none", SHM_MEMBE_ERR_NOPERM_FILE, "Missing JSON data file"},
      {"/none", "/none", SHM_MEMBE_ERR_NOPERM_SIZE_FILE, "Missing JSON size file"},
  };
  for (const Refusal& refusal : refusals) {
    memsummary_s* summary = nullptr;
    EXPECT_EQ(0, level_of(refusal.text, [&] {
                EXPECT_EQ(refusal.result, get_permbe_shmsize(refusal.size, refusal.data, &summary));
              }));
    EXPECT_EQ(nullptr, summary);
    EXPECT_EQ(std::string("5,") + refusal.text + ",1", told());
  }
}

TEST_F(SizePass, RefusesAFileThatCannotBeOpened) {
  write_file(kSize, "{}");
  memsummary_s* summary = nullptr;
  fail_call("fopen", EACCES, 1, 1);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, get_permbe_shmsize(kSize, kData, &summary));
  EXPECT_TRUE(logged("Cannot open perm size file /scratch/size.json"));
  EXPECT_EQ("5,Cannot open perm size file /scratch/size.json,1", told());
}

TEST_F(SizePass, AbortsWhenTheSizeFileIsAFolder) {
  EXPECT_TRUE(in_child([] {
                memsummary_s* summary = nullptr;
                get_permbe_shmsize("/scratch", kData, &summary);
              }).aborted_with("S_ISREG(st.st_mode)"));
}

TEST_F(SizePass, TellsMissingMemory) {
  write_file(kSize, "{}");
  memsummary_s* summary = nullptr;
  fail_call("calloc", ENOMEM);
  EXPECT_EQ(SHM_MEMBE_ERR_NOMEM, get_permbe_shmsize(kSize, kData, &summary));
  EXPECT_EQ("5,Cannot allocate mem summary retval 1 err Cannot allocate memory,3", told());
  const long blocks = live_allocations();
  for (const int nth : {1, 2}) {
    fail_call("strdup", ENOMEM, nth);
    EXPECT_EQ(SHM_MEMBE_ERR_NOMEM, get_permbe_shmsize(kSize, kData, &summary));
    EXPECT_EQ(nullptr, summary);
    EXPECT_EQ("5,Cannot allocate mem summary size path retval 1 err Cannot allocate memory,3",
              told());
  }
  EXPECT_EQ(blocks, live_allocations());
}

TEST_F(SizePass, CancelsWithoutMemoryForItsStack) {
  memsummary_s* summary = nullptr;
  write_file(kSize, R"({"TOTALFSELEMS": 4})");
  for (int nth = 1; nth < 40; ++nth) {
    in_child([&] {
      clear_log();
      fail_call("malloc", ENOMEM, nth);
      if (get_permbe_shmsize(kSize, kData, &summary) == SHM_MEMBE_OK &&
          logged("Cannot create stack element err 1")) {
        write_file("/scratch/seen", "yes");
        EXPECT_TRUE(logged("No memory 12"));
        EXPECT_EQ(0U, summary->total_fselems);
      }
    });
  }
  EXPECT_TRUE(exists("/scratch/seen"));
}

}  // namespace
}  // namespace tavrix::test
