// SPDX-License-Identifier: LGPL-3.0-or-later
// ACLs in memory, and their stored form.

#include <gtest/gtest.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "perm_utils.h"
#include "permissions/map/ace_list.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

class Acl : public testing::Test {
 protected:
  Acl() { create_empty_acl(&acl_); }
  ~Acl() override {
    free_tavrix_acl(acl_);
    std::free(acl_);
  }
  tavrix_acl_t* acl_ = nullptr;
};

TEST_F(Acl, BeginsEmpty) {
  EXPECT_EQ(0U, acl_->version);
  EXPECT_EQ(0U, acl_->num_aces);
  EXPECT_EQ(nullptr, acl_->ace_list_head.first_elem);
}

TEST_F(Acl, TakesNewEntriesAtItsHead) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 2);
  EXPECT_EQ(2U, acl_->num_aces);
  std::vector<uint32_t> ids;
  for (const tavrix_ace_s& ace : aces_of(*acl_)) {
    ids.push_back(ace.trustee.uid);
    EXPECT_EQ(0U, ace.version);
    EXPECT_EQ(0U, ace.ace_type);
    EXPECT_EQ(0U, ace.perm_mask);
  }
  EXPECT_EQ((std::vector<uint32_t>{2, 1}), ids);
}

TEST_F(Acl, SetsTheMaskOfTheFirstEntryOfATrustee) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 1);
  EXPECT_EQ(SHM_MEMBE_OK, add_ace_mask(acl_, ACE_TYPE_USER, 1, 7));
  std::vector<uint32_t> masks;
  for (const tavrix_ace_s& ace : aces_of(*acl_)) masks.push_back(ace.perm_mask);
  EXPECT_EQ((std::vector<uint32_t>{0, 7, 0}), masks);
}

TEST_F(Acl, MarksEveryEntry) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_USER, 2);
  EXPECT_EQ(SHM_MEMBE_OK, set_inheritance_flag(acl_, 1));
  for (const tavrix_ace_s& ace : aces_of(*acl_)) EXPECT_EQ(1U, ace.ace_type);
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, set_inheritance_flag(acl_, 2));
  EXPECT_EQ(SHM_MEMBE_ERR_LISTERR, set_inheritance_flag(nullptr, 1));
  EXPECT_EQ(SHM_MEMBE_ERR_BADARGS, set_inheritance_flag(nullptr, 2));
}

TEST_F(Acl, IsStoredInListOrder) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 0x11223344);
  add_ace_mask(acl_, ACE_TYPE_USER, 0x11223344, 0x12345);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 2);
  beacl_s* stored = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(SHM_MEMBE_OK, ACL_2_membuf(acl_, &stored, &size));
  ASSERT_EQ(32U, size);
  const uint8_t expected[] = {0xEF, 0xCD, 0xEF, 0xCD, 2,    0,    0,    0,    2, 0, 0,
                              0,    2,    0,    0,    0,    0,    0,    0,    0, 1, 0,
                              0,    0,    0x44, 0x33, 0x22, 0x11, 0x45, 0x23, 0, 0};
  EXPECT_EQ(0, std::memcmp(expected, stored, size));
  std::free(stored);
}

TEST_F(Acl, WithoutEntriesIsStoredInEightBytes) {
  beacl_s* stored = nullptr;
  uint32_t size = 0;
  ACL_2_membuf(acl_, &stored, &size);
  EXPECT_EQ(8U, size);
  EXPECT_EQ(0xCDEFCDEFU, stored->signature);
  EXPECT_EQ(0U, stored->num_aces);
  std::free(stored);
}

TEST_F(Acl, OfNothingIsStoredAsNothing) {
  beacl_s* stored = reinterpret_cast<beacl_s*>(this);
  uint32_t size = 0;
  EXPECT_EQ(SHM_MEMBE_OK, ACL_2_membuf(nullptr, &stored, &size));
  EXPECT_EQ(nullptr, stored);
}

TEST_F(Acl, ComesBackReversed) {
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 2);
  beacl_s* stored = nullptr;
  uint32_t size = 0;
  ACL_2_membuf(acl_, &stored, &size);
  tavrix_acl_t* back = nullptr;
  EXPECT_EQ(SHM_MEMBE_OK, membuf_2_ACL(stored, 0, 1, &back));
  std::vector<uint32_t> ids;
  for (const tavrix_ace_s& ace : aces_of(*back)) {
    ids.push_back(ace.trustee.uid);
    EXPECT_EQ(1U, ace.ace_type);
  }
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), ids);
  EXPECT_EQ(2U, back->num_aces);
  free_ACL(back);
  std::free(back);
  std::free(stored);
}

TEST_F(Acl, OfAnotherVersionDoesNotComeBack) {
  beacl_s stored{ACLSIG, 0};
  tavrix_acl_t* back = nullptr;
  const long before = allocations();
  EXPECT_EQ(SHM_MEMBE_ERR_VERSION_MISMATCH, membuf_2_ACL(&stored, 1, 0, &back));
  EXPECT_EQ(before, allocations());
  EXPECT_EQ(nullptr, back);
}

TEST_F(Acl, WithAnOddInheritanceComesBackWithIt) {
  struct {
    beacl_s head{ACLSIG, 1};
    beace_s ace{IDTYPE_UID, 5, 3, 0};
  } stored;
  const auto convert = [&] {
    tavrix_acl_t* back = nullptr;
    membuf_2_ACL(&stored.head, 0, 9, &back);
    EXPECT_EQ(9U, (*aces_of(*back).begin()).ace_type);
    free_tavrix_acl(back);
    std::free(back);
  };
  EXPECT_EQ(0, level_of("Invalid inheritance type 9", convert));
}

struct Misuse {
  const char* condition;
  const char* message;  // empty: none
  std::function<void()> call;
};

TEST_F(Acl, AbortsOnMisuse) {
  struct {
    beacl_s head{ACLSIG, 1};
    beace_s ace{3, 5, 3, 0};
  } odd;
  tavrix_acl_t* none = nullptr;
  const Misuse misuses[] = {
      {"*acl == NULL", "", [&] { create_empty_acl(&acl_); }},
      {"*acl != NULL", "malloc failure ",
       [&] {
         fail_call("malloc", ENOMEM);
         fail_call("calloc", ENOMEM);
         create_empty_acl(&none);
       }},
      {"acl != NULL", "Null ACL ", [&] { add_ace_to_acl(nullptr, ACE_TYPE_USER, 1); }},
      {"acl != NULL", "Null ACL ", [&] { add_ace_mask(nullptr, ACE_TYPE_USER, 1, 1); }},
      {"found == 1", "", [&] { add_ace_mask(acl_, ACE_TYPE_USER, 1, 1); }},
      {"0", "Invalid trustee type 3",
       [&] {
         add_ace_to_acl(acl_, ACE_TYPE_ALL, 0);
         beacl_s* stored = nullptr;
         uint32_t size = 0;
         ACL_2_membuf(acl_, &stored, &size);
       }},
      {"0", "Invalid trustee type 3", [&] { membuf_2_ACL(&odd.head, 0, 0, &none); }},
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

TEST_F(Acl, NeedsAnEmptyContainerToComeBack) {
  beacl_s stored{ACLSIG, 0};
  for (tavrix_acl_t** container : {static_cast<tavrix_acl_t**>(nullptr), &acl_}) {
    const Outcome outcome = in_child([&] {
      std::signal(SIGABRT, [](int) { std::fprintf(stderr, "<%s>\n", messages().back().c_str()); });
      membuf_2_ACL(&stored, 0, 0, container);
    });
    EXPECT_EQ(SIGABRT, outcome.signal);
    const char* expected =
        container == nullptr ? "<Empty tavrix_acl container>" : "<non empty tavrix_acl_t >";
    EXPECT_NE(std::string::npos, outcome.err.find(expected)) << outcome.err;
  }
}

TEST_F(Acl, OfNothingIsFreedSilently) {
  free_ACL(nullptr);
  free_tavrix_acl(nullptr);
}

std::string printed(const std::function<void()>& print) {
  testing::internal::CaptureStdout();
  print();
  std::fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

TEST_F(Acl, IsPrinted) {
  add_ace_to_acl(acl_, ACE_TYPE_GROUP, 7);
  add_ace_mask(acl_, ACE_TYPE_GROUP, 7, 15);
  const std::string text = printed([this] { print_acl(acl_); });
  EXPECT_TRUE(text.starts_with("ACL Version 0 Num ACES 1")) << text;
  EXPECT_NE(std::string::npos,
            text.find("ACE version: 0\nACE Type: Explicit\nACE trustee_type: GROUP\nACE gid: 7\n"
                      "ACE perm mask: RDWRDEL\nACE perm mask: NAVIGATE\nACE Container ACL "))
      << text;
}

TEST_F(Acl, IsPrintedWithTheNamesOfItsMasks) {
  const std::pair<uint32_t, const char*> rows[] = {
      {7, "RDWRDEL"},      {3, "RDWR"},   {1, "RDONLY"},   {5, "RDONLY"},
      {16, "VIEWER_ONLY"}, {0, "NOPERM"}, {8, "NAVIGATE"}, {19, "RDWR"}};
  add_ace_to_acl(acl_, ACE_TYPE_USER, 1);
  for (const auto& [mask, name] : rows) {
    add_ace_mask(acl_, ACE_TYPE_USER, 1, mask);
    const std::string text = printed([this] { print_acl(acl_); });
    EXPECT_NE(std::string::npos, text.find(std::string("ACE perm mask: ") + name + "\n")) << mask;
    EXPECT_EQ(text.find("perm mask"), text.rfind("perm mask")) << mask;
  }
}

TEST_F(Acl, IsPrintedInItsStoredForm) {
  struct {
    beacl_s head{ACLSIG, 1};
    beace_s ace{2, 42, 0x1f, 0};
  } stored;
  const std::string text = printed([&] { print_bacl(&stored.head); });
  EXPECT_NE(std::string::npos, text.find("Acl numaces 1")) << text;
  EXPECT_NE(std::string::npos, text.find("Ace Type: 2 id 42 maks 1f")) << text;
  EXPECT_NE(std::string::npos, printed([] { print_bacl(nullptr); }).find("Null ACL"));
}

}  // namespace
}  // namespace tavrix::test
