// SPDX-License-Identifier: LGPL-3.0-or-later
// The worked example of docs/formats.md is what an import makes.

#include <gtest/gtest.h>
#include <sstream>

#include "tests/support/importer.hpp"

namespace tavrix::test {
namespace {

// The text between a line and the next fence.
std::string block_after(const std::string& document, const std::string& line) {
  const auto start = document.find(line) + line.size();
  return document.substr(start, document.find("```", start) - start);
}

class FormatsDocument : public Importer {
 protected:
  const std::string document_ = read_file(TAVRIX_SOURCE_DIR "/docs/formats.md");
};

TEST_F(FormatsDocument, ShowsTheImageOfItsExample) {
  const std::string data = block_after(document_, "## The data file\n\n```\n");
  write_file(kData, data);
  const Counts counts{2, 2, 9};
  write_file(kSize, size_json(counts, {.name = "team", .version = "1.0"}));
  memsummary_s* sum = nullptr;
  testing::internal::CaptureStdout();
  get_permbe_shmsize(kSize, kData, &sum);
  std::vector<std::byte> made(sum->memsize);
  sum->membuf = made.data();
  EXPECT_EQ(SHM_MEMBE_OK, init_permbe_shm(sum));
  std::fflush(stdout);
  testing::internal::GetCapturedStdout();

  std::vector<std::byte> shown;
  std::istringstream lines(block_after(document_, "```hex\n"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    words >> word;  // the offset
    EXPECT_EQ(shown.size(), std::stoul(word, nullptr, 16));
    while (words >> word) shown.push_back(static_cast<std::byte>(std::stoul(word, nullptr, 16)));
  }
  EXPECT_EQ(shown, made);
  std::free(sum->perm_map_name_size);
  std::free(sum->perm_map_name_data);
  std::free(sum);
}

}  // namespace
}  // namespace tavrix::test
