// SPDX-License-Identifier: LGPL-3.0-or-later
// The JSON parser: chunks, cancelled parses, errors and numbers.

#include "permissions/import/json_parse.hpp"

#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

class JsonParseOfAFile : public Importer {};

TEST_F(JsonParseOfAFile, NumbersOfManyDigitsSaturate) {
  const Folder root{.name = "/", .users = {{0xFFFFFFFFU, 1}}};
  const std::string text = R"([{"NUMCHILDREN":1},{"DIR":"/",
      "ACL":[{"NUMUSERS":1},{"NUMGROUPS":0},{"USERS":{"99999999999999999999999999":1}},{"GROUPS":{}}],
      "CHILDREN":[{"NUMCHILDREN":0}]}])";
  EXPECT_EQ(build_image(root), import_text(count(root), text));
}

TEST(Decimal, IsThatOfATokenWithoutAnEnd) {
  EXPECT_EQ(12U, decimal_of("123", 2));
  EXPECT_EQ(0U, decimal_of("x1", 2));
  EXPECT_EQ(7U, decimal_of("7,8", 3));
  EXPECT_EQ(UINT64_MAX, decimal_of("99999999999999999999999", 23));
}

// Keeps each number; a zero cancels the parse.
int keep_number(void* /*context*/, const char* token, std::size_t length);
std::vector<std::string> numbers;
int keep_number(void* /*context*/, const char* token, std::size_t length) {
  numbers.emplace_back(token, length);
  return numbers.back() == "0" ? 0 : 1;
}

class JsonParseOfChunks : public testing::Test {
 protected:
  JsonParseOfChunks() {
    callbacks_.yajl_number = keep_number;
    numbers.clear();
  }
  // Parses the chunks; returns the text on standard error.
  std::string parse(const std::vector<std::string>& chunks) {
    testing::internal::CaptureStderr();
    {
      JsonParse parse(callbacks_);
      is_accepted_ = true;
      for (const std::string& chunk : chunks) {
        is_accepted_ = parse.feed(chunk.data(), chunk.size());
        if (is_accepted_) continue;
        parse.print_error(chunk, 0);
        break;
      }
      parse.finish();
    }
    std::fflush(stderr);
    return testing::internal::GetCapturedStderr();
  }

  yajl_callbacks callbacks_{};
  bool is_accepted_ = true;
};

TEST_F(JsonParseOfChunks, TakesTokensThatChunksTear) {
  EXPECT_EQ("", parse({"[1", "2, 3", "4]"}));
  EXPECT_TRUE(is_accepted_);
  EXPECT_EQ((std::vector<std::string>{"12", "34"}), numbers);
}

TEST_F(JsonParseOfChunks, TakesComments) {
  EXPECT_EQ("", parse({"[1, // one\n /* and */ 2]"}));
  EXPECT_EQ((std::vector<std::string>{"1", "2"}), numbers);
}

TEST_F(JsonParseOfChunks, RefusesWhatIsNoJsonAndSaysWhere) {
  const std::string said = parse({"[1, ,"});
  EXPECT_FALSE(is_accepted_);
  EXPECT_NE(std::string::npos, said.find("parse error")) << said;
  EXPECT_NE(std::string::npos, said.find("(right here)")) << said;
}

TEST_F(JsonParseOfChunks, EndsWhereACallbackCancels) {
  parse({"[1, 0, 2]"});
  EXPECT_FALSE(is_accepted_);
  EXPECT_EQ((std::vector<std::string>{"1", "0"}), numbers);
}

}  // namespace
}  // namespace tavrix::test
