// SPDX-License-Identifier: LGPL-3.0-or-later
// The view of other programs: the headers, the exported names, the libraries that are needed.

#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

const std::string kSource = TAVRIX_SOURCE_DIR;
const std::string kLibrary = TAVRIX_BUILD_DIR "/libtavrix.so";

std::vector<std::string> headers() {
  std::vector<std::string> names;
  for (const std::string& name : list(kSource + "/include")) {
    if (name.ends_with(".h")) names.push_back(name);
  }
  return names;
}

std::string words(const std::vector<std::string>& parts) {
  std::string text;
  for (const auto& part : parts) text += part + " ";
  return text;
}

// The exported names of the library, from nm.
std::set<std::string> exported() {
  const Outcome nm = run_program({"nm", "-D", "--defined-only", kLibrary});
  std::set<std::string> names;
  std::istringstream in(nm.out);
  for (std::string address, type, name; in >> address >> type >> name;) {
    if (type == "A") continue;  // the node of the version script
    names.insert(name.substr(0, name.find('@')));
  }
  return names;
}

// Everything marked TAVRIX_API: a declaration runs to its semicolon, and the name stands before the
// parenthesis, the bracket or the end.
std::set<std::string> declared() {
  std::set<std::string> names;
  const std::regex declaration("TAVRIX_API\\s+([^;]*);");
  const std::regex name("([A-Za-z_][A-Za-z0-9_]*)\\s*(\\(|\\[|$)");
  for (const std::string& header : headers()) {
    if (header == "tavrix_api.h") continue;
    const std::string text = read_file(kSource + "/include/" + header);
    for (std::sregex_iterator at(text.begin(), text.end(), declaration), end; at != end; ++at) {
      std::smatch found;
      const std::string words = (*at)[1];
      if (std::regex_search(words, found, name)) names.insert(found[1]);
    }
  }
  return names;
}

class Abi : public Isolated {};

TEST_F(Abi, ExportsWhatTheHeadersDeclareAndNothingElse) {
  std::set<std::string> wanted = declared();
  EXPECT_GT(wanted.size(), 80U);
  std::vector<std::string> missing, extra;
  const auto have = exported();
  std::set_difference(wanted.begin(), wanted.end(), have.begin(), have.end(),
                      std::back_inserter(missing));
  for (const std::string& name : have) {
    const bool is_generated = name.starts_with("vfsevent__") || name.starts_with("audit_event__");
    if (wanted.count(name) == 0 && !is_generated) extra.push_back(name);
  }
  EXPECT_TRUE(missing.empty()) << words(missing);
  EXPECT_TRUE(extra.empty()) << words(extra);
}

TEST_F(Abi, NeedsYajlProtobufAndTheCLibraryOnly) {
  const Outcome objdump = run_program({"objdump", "-p", kLibrary});
  std::istringstream in(objdump.out);
  for (std::string word; in >> word;) {
    if (word != "NEEDED") continue;
    in >> word;
    const bool is_sanitizer = word.starts_with("libasan") || word.starts_with("libubsan");
    EXPECT_TRUE(word == "libyajl.so.2" || word == "libprotobuf-c.so.1" || word == "libc.so.6" ||
                word == "ld-linux-x86-64.so.2" || is_sanitizer || word.starts_with("libgcov"))
        << word;
  }
  EXPECT_NE(std::string::npos, objdump.out.find("libtavrix.so.1\n"));
}

TEST_F(Abi, EachHeaderStandsAloneInC) {
  for (const std::string& header : headers()) {
    write_file("/scratch/unit.c", "#include \"" + header + "\"\nextern int not_empty;\n");
    const Outcome cc = run_program(
        {"gcc", "-std=c11", "-pedantic", "-Wall", "-Wextra", "-Werror", "-I" + kSource + "/include",
         "-I" + kSource + "/events/generated", "-fsyntax-only", "/scratch/unit.c"});
    EXPECT_TRUE(cc.ok()) << header << "\n" << cc.err;
  }
}

TEST_F(Abi, EachHeaderStandsAloneInCpp) {
  for (const std::string& header : headers()) {
    write_file("/scratch/unit.cpp", "#include \"" + header + "\"\nextern int not_empty;\n");
    const Outcome cc =
        run_program({"g++", "-std=c++20", "-pedantic", "-Wall", "-Wextra", "-Werror",
                     "-I" + kSource + "/include", "-I" + kSource + "/events/generated",
                     "-fsyntax-only", "/scratch/unit.cpp"});
    EXPECT_TRUE(cc.ok()) << header << "\n" << cc.err;
  }
}

TEST_F(Abi, ServesAProgramInC) {
  if (std::string(TAVRIX_SANITIZED_BUILD) == "ON") {
    // A sanitized library needs a program that brings the sanitizer's runtime.
    const Outcome cc =
        run_program({"gcc", "-fsanitize=address,undefined", "-std=c11", "-I" + kSource + "/include",
                     "-I" + kSource + "/events/generated", kSource + "/tests/abi/program.c",
                     kLibrary, "-o", "/scratch/program"});
    ASSERT_TRUE(cc.ok()) << cc.err;
  } else {
    const Outcome cc =
        run_program({"gcc", "-std=c11", "-pedantic", "-Wall", "-Wextra", "-Werror",
                     "-I" + kSource + "/include", "-I" + kSource + "/events/generated",
                     kSource + "/tests/abi/program.c", kLibrary, "-o", "/scratch/program"});
    ASSERT_TRUE(cc.ok()) << cc.err;
  }
  const Outcome program =
      run_program({"/scratch/program"}, "", {{"LD_LIBRARY_PATH", TAVRIX_BUILD_DIR}});
  EXPECT_TRUE(program.ok()) << program.err;
}

// Samba's headers define these as macros or types; a header that uses them could not be included
// after those.
TEST_F(Abi, KeepsOutOfTheWayOfSambasNames) {
  for (const std::string& header : headers()) {
    const std::string text = read_file(kSource + "/include/" + header);
    for (const char* name : {"FILE_SUPERSEDE", "FILE_OPEN", "FILE_CREATE", "FILE_OVERWRITE", "SEC_",
                             "False", "ARRAY_SIZE", "DEBUG("}) {
      EXPECT_FALSE(std::regex_search(
          text,
          std::regex("\\b" + std::regex_replace(std::string(name), std::regex("\\("), "\\("))))
          << header << " " << name;
    }
  }
}

}  // namespace
}  // namespace tavrix::test
