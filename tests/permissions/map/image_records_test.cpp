// SPDX-License-Identifier: LGPL-3.0-or-later
// The primitives that write an image, record by record.

#include <gtest/gtest.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "perm_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class Records : public testing::Test {
 protected:
  Records() {
    summary_.total_fselems = 3;
    summary_.total_aces = 2;
    summary_.total_namelen = 30;
    estimate_shmbe_size(&summary_);
    image_.resize(summary_.memsize);
    summary_.membuf = image_.data();
    init_shmbe(&summary_);
    root_.state = child_.state = 0;
  }
  tavrix_be_header& header() { return *reinterpret_cast<tavrix_be_header*>(image_.data()); }
  uint32_t word(std::size_t at) const {
    uint32_t value = 0;
    std::memcpy(&value, image_.data() + at, sizeof value);
    return value;
  }
  std::size_t names() { return header().nameelem_offset; }
  std::size_t lists() { return header().list_offset; }

  std::vector<std::byte> image_;
  memsummary_s summary_{};
  jsonstack root_{}, child_{};
};

TEST_F(Records, RootIsTheFirstFolder) {
  root_.jsonoffset = 99;
  root_.stetype = STELEM_TYPE_INVALID;
  EXPECT_EQ(SHM_MEMBE_OK, create_fselem(&summary_, &root_, 0xFFFFFFFF));
  EXPECT_EQ(STELEM_TYPE_FSELEM, root_.stetype);
  EXPECT_EQ(0U, root_.jsonoffset);
  EXPECT_EQ(0x67896789U, word(176));
  EXPECT_EQ(0xFFFFFFFFU, word(180));
  for (std::size_t at = 184; at < 200; at += 4) EXPECT_EQ(0U, word(at));
  EXPECT_EQ(24U, header().next_free_fselem);
}

TEST_F(Records, RootMadeAgainTakesItsPlaceAgain) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  create_fselem(&summary_, &child_, 0xFFFFFFFF);
  EXPECT_EQ(24U, child_.jsonoffset);  // the next free place, although the root is at 0
  EXPECT_EQ(48U, header().next_free_fselem);
  EXPECT_TRUE(in_child([this] { create_fselem(&summary_, &root_, 0xFFFFFFFF); })
                  .aborted_with("beheader->next_free_fselem == 0 || beheader->next_free_fselem == "
                                "sizeof(fs_elem_s)"));
}

TEST_F(Records, FoldersFollowOneAnother) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  EXPECT_EQ(SHM_MEMBE_OK, create_fselem(&summary_, &child_, 0));
  EXPECT_EQ(24U, child_.jsonoffset);
  EXPECT_EQ(0U, word(176 + 24 + 4));
  EXPECT_EQ(48U, header().next_free_fselem);
}

TEST_F(Records, NamesFollowOneAnotherUnaligned) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  create_fselem(&summary_, &child_, 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(SHM_MEMBE_OK, create_nameelem(&summary_, 5, "Hello, world", &root_));
  EXPECT_EQ(18U, header().next_free_nameelem);
  EXPECT_EQ(SHM_MEMBE_OK, create_nameelem(&summary_, 1, "/", &child_));
  std::fflush(stdout);
  const std::string hash = std::to_string(process_namecomponent_4hash("Hello", 5));
  const std::string slash = std::to_string(process_namecomponent_4hash("/", 1));
  EXPECT_EQ("--------> Name Hello hahsval " + hash + " \n--------> Name / hahsval " + slash + " \n",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ(18U, word(176 + 24 + 8));
  EXPECT_EQ(5U, word(names()));
  EXPECT_EQ(0xABCDABCDU, word(names() + 4));
  EXPECT_EQ(process_namecomponent_4hash("HELLO", 5), word(names() + 8));
  EXPECT_EQ(0, std::memcmp(image_.data() + names() + 12, "Hello\0", 6));
}

TEST_F(Records, LongNamesArePrintedWhole) {
  summary_.memsize = 0;  // without a size nothing is checked
  image_.resize(3000);
  summary_.membuf = image_.data();
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  const std::string name(1000, 'n');
  testing::internal::CaptureStdout();
  create_nameelem(&summary_, 1000, name.c_str(), &root_);
  std::fflush(stdout);
  EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find(name + " hahsval "));
}

TEST_F(Records, ChildListsHoldTheirChildrenInOrder) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  EXPECT_EQ(SHM_MEMBE_OK, create_child_list(&summary_, 1, &root_));
  EXPECT_EQ(SHM_MEMBE_OK, create_child_list(&summary_, 2, &root_));
  EXPECT_EQ(16U, word(176 + 12));
  EXPECT_EQ(16U + 20U, header().next_free_list);
  create_fselem(&summary_, &child_, 0);
  EXPECT_EQ(SHM_MEMBE_OK, add_to_parentlist(&summary_, &child_, 0));
  EXPECT_EQ(0x789A789AU, word(lists() + 16));
  EXPECT_EQ(2U, word(lists() + 20));
  EXPECT_EQ(1U, word(lists() + 24));
  EXPECT_EQ(24U, word(lists() + 28));
  EXPECT_EQ(0U, word(lists() + 32));
}

struct Misuse {
  const char* condition;
  const char* message;  // empty: none
  std::function<void()> call;
};

TEST_F(Records, AbortOnMisuse) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  jsonstack name{};
  name.stetype = STELEM_TYPE_NAMEELEM;
  const Misuse misuses[] = {
      {"stelem != NULL", "Null stelem ", [&] { create_fselem(&summary_, nullptr, 0); }},
      {"memsummary != NULL", "", [&] { create_fselem(nullptr, &child_, 0); }},
      {"fselem->signature == FSELEMSIG", "", [&] { create_fselem(&summary_, &child_, 24); }},
      {"name != NULL && len > 0", "Invalid name parameters",
       [&] { create_nameelem(&summary_, 0, "", &root_); }},
      {"name != NULL && len > 0", "Invalid name parameters",
       [&] { create_nameelem(&summary_, 3, nullptr, &root_); }},
      {"stelem != NULL", "Invalid stelem", [&] { create_nameelem(&summary_, 1, "/", nullptr); }},
      {"memsummary != NULL", "Invalid memsummary",
       [&] { create_nameelem(nullptr, 1, "/", &root_); }},
      {"stelem->stetype == STELEM_TYPE_FSELEM", "",
       [&] { create_nameelem(&summary_, 1, "/", &name); }},
      {"memsummary != NULL", "Invalid memsummary", [&] { create_child_list(nullptr, 1, &root_); }},
      {"stelem != NULL", "Invalid stelem", [&] { create_child_list(&summary_, 1, nullptr); }},
      {"memsummary != NULL", "Invalid memsummary", [&] { add_to_parentlist(nullptr, &root_, 0); }},
      {"stelem != NULL", "Invalid stelem", [&] { add_to_parentlist(&summary_, nullptr, 0); }},
      {"clist->signature == LISTSIG", "", [&] { add_to_parentlist(&summary_, &root_, 0); }},
      {"fselem->name_elem_offset == 0", "",
       [&] {
         // A first name lies at offset 0 and cannot be told from none; a second one can.
         create_nameelem(&summary_, 1, "/", &root_);
         create_nameelem(&summary_, 1, "/", &root_);
         create_nameelem(&summary_, 1, "/", &root_);
       }},
      {"beheader->signature == TAVRIX_BE_HEADER_SIGNATURE", "",
       [&] {
         header().signature = 1;
         create_child_list(&summary_, 1, &root_);
       }},
  };
  for (const Misuse& misuse : misuses) {
    const Outcome outcome = in_child([&] {
      std::signal(SIGABRT, [](int) {
        for (const auto& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
      });
      misuse.call();
    });
    EXPECT_TRUE(outcome.aborted_with(misuse.condition)) << misuse.condition << "\n" << outcome.err;
    EXPECT_NE(std::string::npos, outcome.err.find(misuse.message)) << outcome.err;
  }
}

TEST_F(Records, NeverLeaveTheImage) {
  create_fselem(&summary_, &root_, 0xFFFFFFFF);
  const std::string name(60000, 'x');
  EXPECT_TRUE(in_child([&] {
                create_nameelem(&summary_, 60000, name.c_str(), &root_);
              }).aborted_with("record lies inside the image"));
  EXPECT_TRUE(in_child([&] {
                create_child_list(&summary_, 0xFFFFFFFF, &root_);
              }).aborted_with("record lies inside the image"));
  EXPECT_TRUE(in_child([&] {
                create_nameelem(&summary_, 70000, name.c_str(), &root_);
              }).aborted_with("len <= UINT16_MAX"));
}

}  // namespace
}  // namespace tavrix::test
