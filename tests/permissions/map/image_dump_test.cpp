// SPDX-License-Identifier: LGPL-3.0-or-later
// An image as lines of the system log.

#include <gtest/gtest.h>
#include <pthread.h>
#include <cstring>
#include <string_view>
#include <utility>

#include "read_perms.h"
#include "tests/support/log_capture.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class ImageDump : public testing::Test {
 protected:
  tavrix_be_header* header() { return reinterpret_cast<tavrix_be_header*>(image_.data()); }
  std::vector<std::byte> image_ =
      build_image({.name = "/",
                   .users = {{1, 7}},
                   .children = {{.name = "a", .children = {{.name = "b"}}}, {.name = "c"}}},
                  {.name = "team", .version = "1", .generation = 3, .timestamp = 12});
};

TEST_F(ImageDump, TellsTheHeader) {
  set_debug_level(7);
  clear_log();
  print_tree(header());
  const std::vector<std::string> expected = {"Summary",
                                             "Map name team",
                                             "next map ",
                                             "Generation number 3",
                                             "Time stamp 12",
                                             "Total filesystem elems 4",
                                             "Total ACEs 1",
                                             "Total lists 0",
                                             "Fselem offset 176",
                                             "Fselem size 96",
                                             "Next free fselem  96",
                                             "Name elem offser 272",
                                             "Name eleem size 56",
                                             "Next free nameelem 56",
                                             "Acl offset 328",
                                             "ACL size 44",
                                             "Next free ACL 44",
                                             "List offset 372",
                                             "List size 64",
                                             "Next free list 52",
                                             "Signature 514297519"};
  EXPECT_EQ(expected, messages());
}

TEST_F(ImageDump, TellsTheTreeAboveLevelNine) {
  set_debug_level(10);
  clear_log();
  print_tree(header());
  std::vector<std::string> names = messages();
  names.erase(names.begin(), names.begin() + 21);
  EXPECT_EQ((std::vector<std::string>{"Level 1 Name /", "Level 2 Name a", "Level 3 Name b",
                                      "Level 2 Name c"}),
            names);
}

TEST_F(ImageDump, IsSilentBelow) {
  set_debug_level(6);
  clear_log();
  print_tree(header());
  EXPECT_TRUE(messages().empty());
}

// Depth costs heap, not stack: this thread has a small one.
TEST_F(ImageDump, WalksAMapDeeperThanTheStack) {
  constexpr std::size_t kStack = 256 << 10;
  // Sanitizers make the frames of the recursive model larger too.
  constexpr int kDepth = std::string_view(TAVRIX_SANITIZED_BUILD) == "ON" ? 2500 : 8000;
  Folder deep{.name = "x"};
  for (int i = 0; i < kDepth; ++i) deep = {.name = "d", .children = {std::move(deep)}};
  image_ = build_image({.name = "/", .children = {std::move(deep)}});
  const Outcome outcome = in_child([this] {
    set_debug_level(-1);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStack);
    pthread_t thread{};
    const auto walk = [](void* image) -> void* {
      print_tree(static_cast<tavrix_be_header*>(image));
      return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, &attributes, walk, image_.data()));
    pthread_join(thread, nullptr);
  });
  EXPECT_TRUE(outcome.ok()) << outcome.signal << outcome.err;
}

TEST_F(ImageDump, AbortsOnABrokenImage) {
  const auto with = [this](std::size_t at, auto call) {
    return in_child([&] {
      std::memset(image_.data() + at, 1, 4);
      call();
    });
  };
  const auto print = [this] { print_tree(header()); };
  EXPECT_TRUE(with(176, print).aborted_with("fselem->signature == FSELEMSIG"));
  EXPECT_TRUE(with(200, print).aborted_with("fselem->signature == FSELEMSIG"));
  EXPECT_TRUE(with(372 + 16, print).aborted_with("clist->signature == LISTSIG"));
  EXPECT_TRUE(with(172, [this] {
                walk_tree(header(), reinterpret_cast<fs_elem_s*>(image_.data() + 176), 0);
              }).aborted_with("beheader->signature == TAVRIX_BE_HEADER_SIGNATURE"));
}

}  // namespace
}  // namespace tavrix::test
