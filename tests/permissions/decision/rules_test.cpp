// SPDX-License-Identifier: LGPL-3.0-or-later
// The rule table: every operation, every kind of object, every pair of masks.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <climits>
#include <csignal>
#include <cstdio>

#include "perm_enforcer.h"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"
#include "tests/support/rule_table.hpp"

namespace tavrix::test {
namespace {

using testing::TestWithParam;
using Lines = std::vector<std::string>;

constexpr uint32_t kMasks = 32;  // every combination of the five bits

// The kinds of objects, and values that are no kind; those count as missing.
constexpr int kObjects[] = {FSTYPE_FILE, FSTYPE_FOLDER, FSTYPE_DOES_NOT_EXIST, FSTYPE_INVAL, 0,
                            -1,          INT_MAX};

e_file_type object(int value) { return static_cast<e_file_type>(value); }

std::string announcement(int op, uint32_t self, uint32_t parent) {
  return "Checking op " + std::to_string(op) + " against path perm " + std::to_string(self) +
         " parent perm " + std::to_string(parent);
}

// Names of tests may not contain a minus.
std::string name_of_number(const testing::TestParamInfo<int>& number) {
  return number.param < 0 ? "Minus" + std::to_string(-static_cast<long>(number.param))
                          : std::to_string(number.param);
}

// --- the whole table ----------------------------------------------------------------------------

class RuleFor : public TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Object, RuleFor, testing::ValuesIn(kObjects), name_of_number);

TEST_P(RuleFor, EveryOperationAndPairOfMasksIsThePolicy) {
  set_debug_level(-1);
  for (const e_fsop_type op : operations_with_a_rule()) {
    for (uint32_t masks = 0; masks < kMasks * kMasks; ++masks) {
      const uint32_t self = masks / kMasks;
      const uint32_t parent = masks % kMasks;
      const bool granted = rule_says(op, object(GetParam()), self, parent).granted;
      ASSERT_EQ(granted ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM,
                enforce_tavrix_permissions(op, object(GetParam()), self, parent))
          << name_of(op) << " self " << self << " parent " << parent;
    }
  }
}

TEST_P(RuleFor, BitsWithoutAMeaningAreIgnored) {
  for (const e_fsop_type op : operations_with_a_rule()) {
    for (uint32_t masks = 0; masks < kMasks * kMasks; ++masks) {
      const uint32_t self = masks / kMasks;
      const uint32_t parent = masks % kMasks;
      ASSERT_EQ(enforce_tavrix_permissions(op, object(GetParam()), self, parent),
                enforce_tavrix_permissions(op, object(GetParam()), self | 0xFFFFFFE0U,
                                           parent | 0xFFFFFFE0U))
          << name_of(op) << " self " << self << " parent " << parent;
    }
  }
}

TEST_P(RuleFor, TheAnswerIsTheOnlyMessageAboveLevelOne) {
  set_debug_level(2);
  for (const e_fsop_type op : operations_with_a_rule()) {
    for (uint32_t masks = 0; masks < kMasks * kMasks; ++masks) {
      const uint32_t self = masks / kMasks;
      const uint32_t parent = masks % kMasks;
      const std::string message = rule_says(op, object(GetParam()), self, parent).message;
      clear_log();
      enforce_tavrix_permissions(op, object(GetParam()), self, parent);
      ASSERT_EQ(message.empty() ? Lines{} : Lines{message}, messages())
          << name_of(op) << " self " << self << " parent " << parent;
    }
  }
}

TEST_P(RuleFor, EveryAnswerHasLevelTwo) {
  for (const e_fsop_type op : operations_with_a_rule()) {
    for (const uint32_t mask : {0U, 31U}) {
      const std::string message = rule_says(op, object(GetParam()), mask, mask).message;
      if (message.empty()) continue;
      const auto ask = [&] { enforce_tavrix_permissions(op, object(GetParam()), mask, mask); };
      EXPECT_EQ(2, level_of(message, ask)) << name_of(op) << " mask " << mask;
    }
  }
}

TEST_P(RuleFor, DetailsAboveLevelThreeComeBeforeTheAnswer) {
  set_debug_level(4);
  for (const e_fsop_type op : operations_with_a_rule()) {
    Lines expected{announcement(op, 9, 23)};
    const bool any_object = op == FSOP_CREATE || op == FSOP_MKDIR || op == FSOP_OPEN_CHATTR;
    if (!any_object && GetParam() == FSTYPE_FOLDER) {
      expected.emplace_back("Checking permission for folder type");
    }
    if (!any_object && GetParam() == FSTYPE_FILE) {
      expected.emplace_back("Checking permission for file type");
    }
    const std::string answer = rule_says(op, object(GetParam()), 9, 23).message;
    if (!answer.empty()) expected.push_back(answer);
    clear_log();
    enforce_tavrix_permissions(op, object(GetParam()), 9, 23);
    EXPECT_EQ(expected, messages()) << name_of(op);
  }
}

// --- single sentences ---------------------------------------------------------------------------

TEST(Rule, CreatingNeedsReadAndWriteOnTheParent) {
  for (const int type : kObjects) {
    EXPECT_EQ(TXPERMS_NO_PERM, enforce_tavrix_permissions(FSOP_CREATE, object(type), 31, 1));
    EXPECT_EQ(TXPERMS_HAS_PERMS, enforce_tavrix_permissions(FSOP_CREATE, object(type), 0, 3));
    EXPECT_EQ(TXPERMS_NO_PERM, enforce_tavrix_permissions(FSOP_CREATE, object(type), 31, 8));
  }
}

TEST(Rule, AViewerMayStateAFolderBelowANavigableOne) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, enforce_tavrix_permissions(FSOP_STAT, FSTYPE_FOLDER, 16, 8));
}

TEST(Rule, EverybodyMayOpenAFolderForWriting) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, enforce_tavrix_permissions(FSOP_OPEN_WRITE, FSTYPE_FOLDER, 0, 0));
}

TEST(Rule, UnlinkingAFileNeedsDeleteToo) {
  EXPECT_EQ(TXPERMS_NO_PERM, enforce_tavrix_permissions(FSOP_UNLINK, FSTYPE_FILE, 31, 3));
  EXPECT_EQ(TXPERMS_HAS_PERMS, enforce_tavrix_permissions(FSOP_UNLINK, FSTYPE_FILE, 0, 7));
}

TEST(Rule, RenamingAFileInsideItsFolderNeedsLessThanMovingItOut) {
  EXPECT_EQ(TXPERMS_HAS_PERMS, enforce_tavrix_permissions(FSOP_RENAME_SRC, FSTYPE_FILE, 0, 3));
  EXPECT_EQ(TXPERMS_NO_PERM, enforce_tavrix_permissions(FSOP_MOVE_SRC, FSTYPE_FILE, 0, 3));
}

TEST(Rule, WhatDoesNotExistOpensForReading) {
  for (uint32_t mask = 0; mask < kMasks; ++mask) {
    EXPECT_EQ(TXPERMS_HAS_PERMS,
              enforce_tavrix_permissions(FSOP_OPEN_READ, FSTYPE_DOES_NOT_EXIST, mask, mask));
  }
}

TEST(Rule, TheRefusalOfARemovalTellsTheOperation) {
  const auto ask = [] { enforce_tavrix_permissions(FSOP_RMDIR, FSTYPE_FOLDER, 31, 3); };
  EXPECT_EQ(2, level_of("Deny due to no Read/Write/Delete on parent op=21", ask));
}

// --- operations that are none -------------------------------------------------------------------

class NoOperation : public TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Code, NoOperation, testing::Values(0, 30, -1, 31, INT_MAX, INT_MIN),
                         name_of_number);

TEST_P(NoOperation, IsAnInvalidArgumentForEveryObject) {
  const auto op = static_cast<e_fsop_type>(GetParam());
  for (const int type : kObjects) {
    EXPECT_EQ(TXPERMS_INVALID_ARGS, enforce_tavrix_permissions(op, object(type), 31, 31));
    EXPECT_EQ(TXPERMS_INVALID_ARGS, enforce_tavrix_permissions(op, object(type), 0, 0));
  }
}

TEST_P(NoOperation, IsAnError) {
  const auto ask = [] {
    enforce_tavrix_permissions(static_cast<e_fsop_type>(GetParam()), FSTYPE_FILE, 1, 2);
  };
  EXPECT_EQ(0, level_of("ENFORCE_PERMS Invalid argument op " + std::to_string(GetParam()), ask));
  EXPECT_EQ(4, level_of(announcement(GetParam(), 1, 2), ask));
}

// --- operations without a rule ------------------------------------------------------------------

class WithoutRule : public TestWithParam<e_fsop_type> {};
INSTANTIATE_TEST_SUITE_P(Operation, WithoutRule, testing::ValuesIn(operations_without_a_rule()),
                         [](const auto& operation) { return name_of(operation.param); });

// Prints the log to standard error when the process aborts.
void tell_log_on_abort() {
  std::signal(SIGABRT, [](int) {
    for (const std::string& message : messages()) std::fprintf(stderr, "<%s>\n", message.c_str());
  });
}

TEST_P(WithoutRule, EndsTheProcessWhateverTheObjectAndTheMasks) {
  for (const int type : kObjects) {
    for (const uint32_t mask : {0U, 31U}) {
      const Outcome outcome =
          in_child([&] { enforce_tavrix_permissions(GetParam(), object(type), mask, mask); });
      EXPECT_EQ(SIGABRT, outcome.signal) << "object " << type;
      EXPECT_NE(std::string::npos, outcome.err.find("Assertion `0' failed.")) << outcome.err;
    }
  }
}

TEST_P(WithoutRule, OnlyAChangeOfOwnerIsTold) {
  for (const int level : {3, 4}) {
    const Outcome outcome = in_child([&] {
      set_debug_level(level);
      tell_log_on_abort();
      enforce_tavrix_permissions(GetParam(), FSTYPE_FILE, 31, 31);
    });
    const bool told =
        outcome.err.find("<CHOWN op trapped, but code is not in place>") != std::string::npos;
    EXPECT_EQ(level == 4 && GetParam() == FSOP_CHOWN, told) << outcome.err;
    EXPECT_EQ(SIGABRT, outcome.signal);
  }
}

TEST(RulePolicy, ThirteenOperationsHaveNoRule) {
  EXPECT_EQ(13U, operations_without_a_rule().size());
  EXPECT_EQ(16U, operations_with_a_rule().size());
}

}  // namespace
}  // namespace tavrix::test
