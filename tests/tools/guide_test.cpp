// SPDX-License-Identifier: LGPL-3.0-or-later
// The administrator's guide as scripts/test-guide.sh reads it, without the machines that it needs
// to run it; and the links between the documents.

#include <gtest/gtest.h>
#include <map>
#include <sstream>

#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

std::string document(const std::string& path) {
  return read_file(std::string(TAVRIX_SOURCE_DIR) + "/" + path);
}

class Guide : public Operator {
 protected:
  static constexpr const char* kReader = TAVRIX_SOURCE_DIR "/scripts/lib/guide_steps.py";

  static bool fits(const std::string& shown, const std::string& said) {
    write_file("/scratch/shown", shown);
    write_file("/scratch/said", said);
    return run_program({"python3", kReader, "compare", "/scratch/shown", "/scratch/said"}).ok();
  }
  // The steps of a kind in a guide.
  static std::vector<std::string> steps(const std::string& path, const std::string& kind) {
    const std::string text = run_program({"python3", kReader, "steps", path}).out;
    std::vector<std::string> fields, found;
    std::istringstream in(text);
    for (std::string field; std::getline(in, field, '\0');) fields.push_back(field);
    for (std::size_t i = 0; i + 2 < fields.size(); i += 3) {
      if (fields[i] == kind) found.push_back(fields[i + 2]);
    }
    return found;
  }
};

TEST_F(Guide, ShowsNoCommandThatIsNotRun) {
  std::istringstream in(document("docs/appliance.md"));
  bool is_open = false;
  for (std::string line; std::getline(in, line);) {
    if (!line.starts_with("```")) continue;
    const std::string language = line.substr(3);
    is_open = !is_open;
    if (!is_open) {
      EXPECT_EQ("", language);
    } else {
      EXPECT_TRUE(language == "sh" || language == "output" || language == "fstab") << line;
    }
  }
  EXPECT_FALSE(is_open);
}

TEST_F(Guide, HasTheStepsOfAWholeLife) {
  const auto commands = steps(TAVRIX_SOURCE_DIR "/docs/appliance.md", "command");
  std::string all;
  for (const std::string& command : commands) all += command + "\n";
  for (const char* word :
       {"apt-get install", "smbpasswd -s -a anna", "groupmap build", "map lint", "testparm",
        "smbclient //localhost/tavrix", "events decode", "systemctl reboot", "tar --extract",
        "./newer/", "apt-get purge", "cmake --install"}) {
    EXPECT_TRUE(contains(all, word)) << word;
  }
}

TEST_F(Guide, IsCutIntoWholeCommands) {
  write_file(
      "/scratch/guide.md",
      "# A\n```sh\ntrue\ncat >x <<'END'\na\nEND\nfor i in 1; do\n  true\ndone\necho \\\n  a\n"
      "```\n```fstab\nno command\n```\n");
  EXPECT_EQ((std::vector<std::string>{"true", "cat >x <<'END'\na\nEND",
                                      "for i in 1; do\n  true\ndone", "echo \\\n  a"}),
            steps("/scratch/guide.md", "command"));
}

TEST_F(Guide, IsComparedLineByLine) {
  EXPECT_TRUE(fits("one\ntwo\n", "one\ntwo\n"));
  EXPECT_FALSE(fits("one\n", "one\ntwo\n"));
  EXPECT_FALSE(fits("one\ntwo\n", "one\n"));
  EXPECT_FALSE(fits("one\n", "ones\n"));
  EXPECT_TRUE(fits("after ... seconds\n", "after 17 seconds\n"));
  EXPECT_FALSE(fits("after ... seconds\n", "after 17 seconds or so\n"));
  EXPECT_TRUE(fits("one\n...\nfour\n", "one\ntwo\nthree\nfour\n"));
  EXPECT_TRUE(fits("...\none\n...\n", "one\n"));
  EXPECT_FALSE(fits("...\nfive\n...\n", "one\ntwo\n"));
}

TEST_F(Guide, TakesTheEntriesOfAListingInAnyOrder) {
  const std::string a =
      "  a                                   D        0  Sun Nov 22 09:40:54 2026\n";
  const std::string b =
      "  b                                   N       10  Sun Nov 22 09:40:54 2026\n";
  const std::string shown =
      "  b                                   N       10  ...\n"
      "  a                                   D        0  ...\n";
  EXPECT_TRUE(fits(shown, a + b));
  EXPECT_TRUE(fits(shown, b + a));
  EXPECT_FALSE(fits(shown, a + a));
}

// The headings of a document, as the anchors of links name them.
std::set<std::string> anchors(const std::string& text) {
  std::set<std::string> found;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (!line.starts_with('#')) continue;
    std::string anchor;
    for (const char c : line.substr(line.find(' ') + 1)) {
      if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_')
        anchor += static_cast<char>(std::tolower(c));
      if (c == ' ') anchor += '-';
    }
    found.insert(anchor);
  }
  return found;
}

TEST_F(Guide, AndTheOtherDocumentsHaveNoDeadLinks) {
  std::vector<std::string> documents = {"README.md", "CONTRIBUTING.md", "samba/README.md"};
  for (const std::string& name : list(TAVRIX_SOURCE_DIR "/docs")) {
    if (name.ends_with(".md")) documents.push_back("docs/" + name);
  }
  const std::regex link(R"(\]\(([^)#: ]*)(?:#([^)]*))?\))");
  for (const std::string& path : documents) {
    const std::string text = document(path);
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end; ++at) {
      const std::string target = (*at)[1].length() == 0 ? path : folder + (*at)[1].str();
      const bool exists =
          access((std::string(TAVRIX_SOURCE_DIR) + "/" + target).c_str(), F_OK) == 0;
      EXPECT_TRUE(exists) << path << ": " << target;
      if ((*at)[2].length() == 0 || !exists) continue;
      EXPECT_TRUE(anchors(document(target)).contains((*at)[2])) << path << ": " << (*at)[0];
    }
  }
}

}  // namespace
}  // namespace tavrix::test
