// SPDX-License-Identifier: LGPL-3.0-or-later
// The comparison of names from Samba's library.

#include <gtest/gtest.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "tavrix_utils.h"
#include "tests/support/fail_call.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kLowerE = "caf\xc3\xa9";
constexpr const char* kUpperE = "caf\xc3\x89";

class SambaComparison : public Isolated {};

TEST_F(SambaComparison, KnowsTheCaseOfExtendedLetters) {
  give_samba_library_its_name();
  EXPECT_EQ(0, strcasecmp_m_wrapper(kLowerE, kUpperE));
  EXPECT_NE(0, strcasecmp_m_wrapper(kLowerE, "caf\xc3\xaa"));
  EXPECT_NE(0, strcasecmp_m_wrapper(kLowerE, "caf\xc3\xa9s"));
  EXPECT_NE(0, strcasecmp_m_wrapper("\xc3\xa9\xc3\xa9", "\xc3\xa9"));
}

TEST_F(SambaComparison, OfTheBoundedFormLooksAtTheStartOnly) {
  give_samba_library_its_name();
  EXPECT_EQ(0, strncasecmp_m_wrapper("\xc3\xa9yz", "\xc3\x89yq", 2));
  EXPECT_NE(0, strncasecmp_m_wrapper("\xc3\xa9yz", "\xc3\x89yq", 3));
}

TEST_F(SambaComparison, LoadsTheLibraryOnceAndItsRoutineEachTime) {
  give_samba_library_its_name();
  reset_calls();
  init_samba_lib_handle();
  strcasecmp_m_wrapper("a", "a");
  strncasecmp_m_wrapper("a", "a", 1);
  EXPECT_EQ(1, calls("dlopen"));
  EXPECT_EQ(2, calls("dlsym"));
}

// Runs the body in a child that prints its log to standard error at its end.
Outcome log_of(const std::function<void()>& body) {
  return in_child([&] {
    std::atexit([] {
      for (const std::string& text : messages()) std::fprintf(stderr, "<%s>\n", text.c_str());
    });
    body();
  });
}

TEST_F(SambaComparison, WithoutTheLibraryEndsTheProcess) {
  hide_samba_library();
  const Outcome outcome = in_child([] {
    std::atexit([] { std::fprintf(stderr, "<%s>", messages().at(0).c_str()); });
    strcasecmp_m_wrapper("a", "a");
  });
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_NE(std::string::npos, outcome.err.find("<Failed to open samba common lib: "))
      << outcome.err;
  EXPECT_NE(std::string::npos, outcome.err.find("libsamdb-common.so.0: cannot open"))
      << outcome.err;
}

TEST_F(SambaComparison, WithoutItsRoutineEndsTheProcess) {
  hide_samba_library();
  // A library without the routine stands under the name of the right one.
  ASSERT_EQ(0, symlink("/lib/x86_64-linux-gnu/libyajl.so.2",
                       "/usr/lib/x86_64-linux-gnu/samba/libsamdb-common.so.0"));
  const Outcome two = log_of([] { strcasecmp_m_wrapper("a", "a"); });
  EXPECT_EQ(1, two.exit_code);
  EXPECT_NE(std::string::npos, two.err.find("<Failed to find samba strcasecmp_m pointer : "))
      << two.err;
  const Outcome three = log_of([] { strncasecmp_m_wrapper("a", "a", 1); });
  EXPECT_EQ(1, three.exit_code);
  EXPECT_NE(std::string::npos, three.err.find("<Failed to find samba strncasecmp_m pointer : "))
      << three.err;
}

}  // namespace
}  // namespace tavrix::test
