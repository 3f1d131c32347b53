// SPDX-License-Identifier: LGPL-3.0-or-later
// The folder debian, compared with the sources and the library.

#include <gtest/gtest.h>
#include <unistd.h>
#include <algorithm>
#include <set>
#include <sstream>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

const std::string kDebian = TAVRIX_SOURCE_DIR "/debian/";

std::set<std::string> words_before(const std::string& text, const std::string& end) {
  std::set<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) {
    if (const auto at = word.find(end); at != std::string::npos) words.insert(word.substr(0, at));
  }
  return words;
}

// scripts/abi-reference.sh adds a new name.
TEST(Debian, TheSymbolsFileHasTheLibrarysNames) {
  const Outcome nm =
      run_program({"nm", "--dynamic", "--defined-only", TAVRIX_BUILD_DIR "/libtavrix.so"});
  ASSERT_TRUE(nm.ok()) << nm.err;
  std::set<std::string> exported = words_before(nm.out, "@@TAVRIX_");
  exported.insert("TAVRIX_1.0");  // the node itself
  EXPECT_EQ(exported, words_before(read_file(kDebian + "libtavrix1.symbols"), "@TAVRIX_"));
  EXPECT_GT(exported.size(), 100U);
}

TEST(Debian, TheScriptsAreWellFormed) {
  int count = 0;
  for (const std::string& name : list(kDebian)) {
    if (!name.ends_with("inst") && !name.ends_with("rm")) continue;
    const Outcome check = run_program({"dash", "-n", kDebian + name});
    EXPECT_TRUE(check.ok()) << name << ": " << check.err;
    const std::string text = read_file(kDebian + name);
    EXPECT_NE(std::string::npos, text.find("\nset -e\n")) << name;
    EXPECT_TRUE(text.find("\n#DEBHELPER#\n") != std::string::npos) << name;
    ++count;
  }
  EXPECT_GT(count, 3);
}

// Each override of lintian stands below a comment with its reason.
TEST(Debian, EveryOverrideHasItsReason) {
  int count = 0;
  for (const std::string file :
       {"libtavrix1.lintian-overrides", "tavrix-tools.lintian-overrides",
        "tavrix-historian.lintian-overrides", "samba-vfs-tavrix.lintian-overrides",
        "tavrix-cluster.lintian-overrides", "source/lintian-overrides"}) {
    bool has_reason = false;
    for (const std::string& line : lines_of(kDebian + file)) {
      if (line.empty() || line.starts_with('#')) {
        has_reason = !line.empty();
        continue;
      }
      EXPECT_TRUE(has_reason) << file << ": " << line;
      ++count;
    }
  }
  EXPECT_GT(count, 3);
}

// The keys of the shared memory that a purge removes are those of the headers.
TEST(Debian, APurgeKnowsTheKeys) {
  const std::string script = read_file(kDebian + "tavrix-tools.postrm");
  int count = 0;
  for (const std::string header : {"eventstore.h", "parameter_block.h", "perm_map.h"}) {
    for (const std::string& line : lines_of(TAVRIX_SOURCE_DIR "/include/" + header)) {
      std::istringstream in(line);
      std::string define, name, value;
      in >> define >> name >> value;
      const bool is_key = name.ends_with("_KEY_ID") || name.ends_with("_TABLE0_KEY") ||
                          name.ends_with("_TABLE1_KEY");
      if (define != "#define" || !is_key) continue;
      EXPECT_NE(std::string::npos, script.find(value)) << name;
      ++count;
    }
  }
  EXPECT_EQ(6, count);
}

TEST(Debian, TheToolsBringTheirSettings) {
  const std::string install = read_file(TAVRIX_SOURCE_DIR "/cmake/TavrixInstall.cmake");
  EXPECT_NE(std::string::npos,
            install.find("install(FILES packaging/tavrix.conf packaging/exception_patterns\n"
                         "  DESTINATION ${TAVRIX_SYSCONFDIR}/tavrix COMPONENT tools)"));
}

// CTDB runs a script that stands in its folder, in the order of the numbers: 50.samba starts smbd.
TEST(Debian, TheEventScriptsAreWellFormedAndOn) {
  std::set<std::string> links;
  for (const std::string& line : lines_of(kDebian + "tavrix-cluster.links")) {
    std::istringstream in(line);
    std::string target, link;
    in >> target >> link;
    EXPECT_TRUE(target.starts_with("usr/share/ctdb/events/legacy/")) << line;
    EXPECT_TRUE(link.starts_with("etc/ctdb/events/legacy/")) << line;
    EXPECT_EQ(target.substr(target.rfind('/')), link.substr(link.rfind('/')));
    links.insert(link.substr(link.rfind('/') + 1));
  }
  const std::string folder = TAVRIX_SOURCE_DIR "/cluster/events/";
  const auto scripts = list(folder);
  EXPECT_EQ(links, std::set<std::string>(scripts.begin(), scripts.end()));
  for (const std::string& name : scripts) {
    const Outcome check = run_program({"dash", "-n", folder + name});
    EXPECT_TRUE(check.ok()) << name << ": " << check.err;
    EXPECT_EQ(0, access((folder + name).c_str(), X_OK)) << name;
  }
  EXPECT_TRUE(links.contains("45.tavrix.script"));
}

}  // namespace
}  // namespace tavrix::test
