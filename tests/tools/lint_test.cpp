// SPDX-License-Identifier: LGPL-3.0-or-later
// The lint of a size file and a data file.

#include "tools/mapcheck/lint.hpp"

#include <gtest/gtest.h>
#include <malloc.h>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tests/tools/operator.hpp"
#include "tools/sample/sample_tree.hpp"

namespace {

std::atomic<long> heap_bytes{0};  // allocated by operator new
std::atomic<long> heap_peak{0};

}  // namespace

void* operator new(std::size_t size) {
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  heap_bytes += static_cast<long>(malloc_usable_size(block));
  if (heap_bytes > heap_peak) heap_peak = heap_bytes.load();
  return block;
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  void* block = std::malloc(size);
  if (block != nullptr) heap_bytes += static_cast<long>(malloc_usable_size(block));
  return block;
}
void operator delete(void* block) noexcept {
  heap_bytes -= static_cast<long>(malloc_usable_size(block));
  std::free(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept { operator delete(block); }

namespace tavrix::test {
namespace {

using mapcheck::LintResult;
using mapcheck::Severity;

// Reads memory like a file, in small pieces: the end of a chunk may fall anywhere.
class TextSource : public mapcheck::Source {
 public:
  explicit TextSource(std::string text, std::size_t piece = 7)
      : text_(std::move(text)), piece_(piece) {}
  std::size_t read(char* buffer, std::size_t room) override {
    const std::size_t length = std::min({room, piece_, text_.size() - at_});
    std::memcpy(buffer, text_.data() + at_, length);
    at_ += length;
    return length;
  }

 private:
  std::string text_;
  std::size_t piece_;
  std::size_t at_ = 0;
};

LintResult lint_texts(const std::string& size, const std::string& data) {
  TextSource size_source(size);
  TextSource data_source(data);
  return mapcheck::lint(size_source, data_source);
}

std::string told(const LintResult& result) {
  std::string text;
  for (const auto& finding : result.findings.kept()) {
    text += (finding.severity == Severity::kError ? "E " : "W ") + finding.file + " " +
            finding.where + " " + std::to_string(finding.offset) + " " + finding.text + "\n";
  }
  return text;
}

Folder sound() {
  return {.name = "/",
          .users = {{1, 7}},
          .children = {{.name = "Shared", .children = {{.name = "Team", .groups = {{5, 3}}}}}}};
}
std::string sound_size() { return size_json(count(sound())); }

TEST(Lint, FindsNothingInASoundPair) {
  const LintResult result = lint_texts(sound_size(), data_json(sound()));
  EXPECT_EQ("", told(result));
  EXPECT_EQ(3U, result.data.folders);
  EXPECT_EQ(2U, result.data.aces);
  EXPECT_EQ(14U, result.data.name_bytes);
  EXPECT_EQ(2U, result.data.deepest);
  EXPECT_EQ(176U + 180 + 14 + 24, result.image_bytes);
}

TEST(Lint, FindsNothingInRandomTrees) {
  for (uint32_t seed = 1; seed < 20; ++seed) {
    const Folder tree = random_tree(seed, 200, Bytes::kUtf8);
    const LintResult result = lint_texts(size_json(count(tree)), data_json(tree));
    EXPECT_EQ(0U, result.findings.errors()) << told(result);
  }
}

class LintOfFiles : public Isolated {};

TEST_F(LintOfFiles, FindsNothingInASample) {
  const sample::Shape shape{.folders = 5000};
  sample::write_sample(shape, "/scratch/size.json", "/scratch/data.json");
  std::string error;
  const auto result = mapcheck::lint_files("/scratch/size.json", "/scratch/data.json", error);
  ASSERT_TRUE(result) << error;
  EXPECT_EQ("", told(*result));
  EXPECT_EQ(5000U, result->data.folders);
}

struct Row {
  const char* text;
  const char* finding;
};

TEST(Lint, FindsMistakesOfTheSizeFile) {
  const Row rows[] = {
      {"{\"TOTALFSELEMS\":3,", "E size file  18 the file ends in the middle"},
      {"{\"FOO\":3}", "unknown key \"FOO\"; the import stops here"},
      {"{\"TOTALACES\":\"3\"}", "E size file  16 \"TOTALACES\" is a text; a number is expected"},
      {"{\"MAPNAME\":3}", "\"MAPNAME\" is a number; a text is expected"},
      {"{\"TOTALACES\":null}", "\"TOTALACES\" is null"},
      {"{\"TOTALACES\":true}", "\"TOTALACES\" is true"},
      {"{\"TOTALACES\":{}}", "an object inside the object"},
      {"{\"TOTALACES\":[1]}", "an array where a member is expected"},
      {"{\"TOTALACES\":4294967296}", "more than 32 bits hold"},
      {"{\"TOTALACES\":1.5}", "W size file  16 \"TOTALACES\" is 1.5, read as 1"},
      {"{\"TOTALACES\":1,\"TOTALACES\":2}", "W size file  26 \"TOTALACES\" appears twice"},
      {"{}", "E size file  2 \"TOTALFSELEMS\" is missing"},
      {"{}", "W size file  2 \"MAPNAME\" is missing"},
      {"[]", "an array where a member is expected"},
      {"5", "the document is not an object"},
      {"{\"MAPNAME\":\"12345678901234567890123456789012\"}",
       "\"MAPNAME\" has 32 bytes; 31 is the most"},
      {"{\"VERSION\":\"1234567890123456789012345678901234567\"}", "has 37 bytes; 36 is the most"},
      {"{\"TOTALFSELEMS\":100000000,\"TOTALACES\":0,\"TOTALNAMELEN\":0}", "the image would have"},
      {"nonsense", "lexical error"},
  };
  for (const Row& row : rows) {
    const LintResult result = lint_texts(row.text, data_json(sound()));
    EXPECT_TRUE(contains(told(result), row.finding)) << row.text << "\n" << told(result);
  }
}

std::string folder(const std::string& inside) {
  return "[{\"NUMCHILDREN\":1},{\"DIR\":\"/"
         "\",\"ACL\":[{\"NUMUSERS\":0},{\"NUMGROUPS\":0},{\"USERS\":{}},"
         "{\"GROUPS\":{}}],\"CHILDREN\":[{\"NUMCHILDREN\":1}," +
         inside + "]}]";
}
std::string acl(const std::string& users) {
  return "\"ACL\":[{\"NUMUSERS\":1},{\"NUMGROUPS\":0},{\"USERS\":{" + users + "}},{\"GROUPS\":{}}]";
}

TEST(Lint, FindsMistakesOfTheDataFile) {
  const std::string leaf = "\"CHILDREN\":[{\"NUMCHILDREN\":0}]";
  const std::pair<std::string, const char*> rows[] = {
      {"{}", "the document is not an array"},
      {"5", "the document is not an array"},
      {"\"x\"", "the document is not an array"},
      {"[]", "an array of children without its count"},
      {"[[]]", "an array does not fit here"},
      {"[{}]", "an empty object where a count is expected"},
      {"[{\"NUMCHILDREN\":0}]", "the count around the root is 0"},
      {"[{\"NUMCHILDREN\":1}]", "NUMCHILDREN is 1, and 0 folders follow"},
      {"[{\"NUMCHILDREN\":\"1\"}]", "a text where a number"},
      {"[{\"NUMCHILDREN\":[]}]", "an array does not fit here"},
      {"[{\"NUMCHILDREN\":1,\"x\":1}]", "the key \"x\" does not fit here"},
      {"[{\"NUMCHILDREN\":true}]", "true does not fit anywhere"},
      {"[{\"NUMCHILDREN\":1},5]", "a number does not fit here"},
      {folder("{\"DIR\":\"a\"," + acl("\"1\":7") + "}"), "E data file /a "},
      {folder("{\"DIR\":\"a\"," + acl("\"1\":7") + "}"), "a folder without CHILDREN"},
      {folder("{\"DIR\":\"a\"," + leaf + "}"), "a folder without ACL"},
      {folder("{" + acl("\"1\":7") + "," + leaf + "}"), "E data file /? "},
      {folder("{" + acl("\"1\":7") + "," + leaf + "}"), "a folder without DIR"},
      {folder("{\"DIR\":\"\"}"), "an empty name"},
      {folder("{\"DIR\":\"a/b\"}"), "the name holds a slash"},
      {folder("{\"DIR\":\"..\"}"), "a folder cannot be named \".\" or \"..\""},
      {folder("{\"DIR\":\"a\\u0000b\"}"), "the name holds a NUL"},
      {folder("{\"DIR\":\"a\",\"DIR\":\"b\"}"), "\"DIR\" appears twice"},
      {folder("{\"DIR\":5}"), "a number does not fit here"},
      {folder("{\"DIR\":{}}"), "an object does not fit here"},
      {folder("{\"FOO\":5}"), "the key \"FOO\" does not fit here"},
      {folder("{\"ACL\":[]}"), "the ACL has 0 of its 4 objects"},
      {folder("{\"ACL\":[{}]}"), "an empty object in an ACL"},
      {folder("{\"ACL\":[{\"NUMGROUPS\":0}]}"), "the key \"NUMGROUPS\" does not fit here"},
      {folder("{\"ACL\":[{\"NUMUSERS\":0},{\"NUMGROUPS\":0},{\"GROUPS\":{}}]}"),
       "the key \"GROUPS\" does not fit"},
      {folder("{" + acl("\"anna\":7") + "}"), "the id \"anna\" is read as 0"},
      {folder("{" + acl("\"4294967296\":7") + "}"), "the id 4294967296 has more than 32 bits"},
      {folder("{" + acl("\"1\":65536") + "}"), "the mask 65536 has more than 16 bits"},
      {folder("{" + acl("\"1\":32") + "}"), "W data file /? "},
      {folder("{" + acl("\"1\":32") + "}"), "the mask 32 has bits without a meaning"},
      {folder("{" + acl("\"1\":1,\"1\":2") + "}"), "two entries for the id 1"},
      {folder("{" + acl("\"1\":1,\"2\":2") + "}"), "NUMUSERS is 1, and there are 2 entries"},
      {folder("{" + acl("\"1\":\"7\"") + "}"), "a text where a number"},
      {folder("{\"DIR\":\"a\\ud800b\"}"), "half of a surrogate pair"},
      {folder("{\"DIR\":\"a\\udc00\"}"), "half of a surrogate pair"},
      {folder("{\"DIR\":\"\xff\"}"), "invalid bytes in UTF8"},
      {folder("{\"DIR\":\"a\"," + acl("\"1\":7") + "," + leaf + "},{\"DIR\":\"A\"," +
              acl("\"1\":7") + "," + leaf + "}"),
       "a sibling's name differs only in case"},
      {"[{\"NUMCHILDREN\":1},{\"DIR\":\"root\"}]", "the root is named \"root\", not \"/\""},
      {"[{\"NUMCHILDREN\":1},{\"DIR\":\"/\"", "the file ends in the middle of the document"},
      {"[{\"NUMCHILDREN\":1}] x", "parse error"},
      {folder("{\"DIR\":\"" + std::string(65536, 'x') + "\"}"), "the name has 65536 bytes"},
  };
  for (const auto& [text, finding] : rows) {
    const LintResult result = lint_texts(sound_size(), text);
    EXPECT_TRUE(contains(told(result), finding)) << text.substr(0, 200) << "\n" << told(result);
  }
}

TEST(Lint, TakesAWholeSurrogatePair) {
  const LintResult result =
      lint_texts(sound_size(), folder("{\"DIR\":\"\\ud83d\\ude00\\\\ud800\"}"));
  EXPECT_FALSE(contains(told(result), "surrogate")) << told(result);
}

TEST(Lint, ComparesTheCounts) {
  const Counts counts = count(sound());
  const auto result = [&](Counts stated) {
    return told(lint_texts(size_json(stated), data_json(sound())));
  };
  EXPECT_TRUE(contains(result({counts.folders - 1, counts.aces, counts.name_bytes}),
                       "E size file  0 TOTALFSELEMS is 2; the data file needs 3"));
  EXPECT_TRUE(contains(result({counts.folders + 1, counts.aces, counts.name_bytes}),
                       "E size file  0 TOTALFSELEMS is 4; the data file needs only 3"));
  EXPECT_TRUE(contains(result({counts.folders, counts.aces - 1, counts.name_bytes}),
                       "E size file  0 TOTALACES is 1; the data file needs 2"));
  EXPECT_TRUE(contains(result({counts.folders, counts.aces, counts.name_bytes - 1}),
                       "E size file  0 TOTALNAMELEN is 13; the data file needs 14"));
  EXPECT_TRUE(contains(result({counts.folders, counts.aces, counts.name_bytes + 1}),
                       "W size file  0 TOTALNAMELEN is 15; the data file needs only 14"));
}

// An image has 176 + 60 F + N + 12 A bytes. The first one has a byte more than the kernel moves in
// one call, the second one exactly as many.
TEST(Lint, KnowsTheMostThatOneWriteCanSave) {
  const auto told_of = [](uint32_t name_bytes) {
    return told(lint_texts(size_json({1, 0, name_bytes}), data_json({.name = "/"})));
  };
  const std::string finding = "2147479552 is the most";
  EXPECT_TRUE(contains(told_of(2147479552U - 236 + 1), finding)) << told_of(2147479317U);
  EXPECT_FALSE(contains(told_of(2147479552U - 236), finding));
}

TEST(Lint, CountsTheChildListsOfAWideRoot) {
  const LintResult result = lint_texts(
      R"({"MAPNAME":"m","VERSION":"1","GENERATIONNUM":1,"TIMESTAMP":1,"TOTALFSELEMS":1,"TOTALACES":0,"TOTALNAMELEN":2})",
      R"([{"NUMCHILDREN":1000},{"DIR":"/","ACL":[{"NUMUSERS":0},{"NUMGROUPS":0},{"USERS":{}},{"GROUPS":{}}],
          "CHILDREN":[{"NUMCHILDREN":0}]}])");
  EXPECT_TRUE(contains(told(result), "the child lists need 4012 bytes; the image has 16"))
      << told(result);
}

TEST(Lint, KeepsTheFirstFindingsAndCountsTheRest) {
  std::string many;
  for (int i = 0; i < 1000; ++i) many += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "x\":7";
  const LintResult result = lint_texts(sound_size(), folder("{" + acl(many)));
  EXPECT_EQ(200U, result.findings.kept().size());
  EXPECT_GT(result.findings.errors(), 999U);
}

TEST(Lint, WalksDeepDocumentsInLittleMemory) {
  std::string text = "[";
  for (int i = 0; i < 200000; ++i) text += "[";
  EXPECT_TRUE(contains(told(lint_texts(sound_size(), text)), "an array does not fit here"));
}

TEST_F(LintOfFiles, NeedsMemoryForTheTreesDepthOnly) {
  const sample::Shape shape{.folders = 200000};
  sample::write_sample(shape, "/scratch/size.json", "/scratch/data.json");
  std::string error;
  const long before = heap_bytes;
  heap_peak = before;
  const auto result = mapcheck::lint_files("/scratch/size.json", "/scratch/data.json", error);
  EXPECT_LT(heap_peak - before, 1 << 20);  // the file has more than 25 MiB
  ASSERT_TRUE(result);
  EXPECT_EQ(0U, result->findings.errors());
}

}  // namespace
}  // namespace tavrix::test
