// SPDX-License-Identifier: LGPL-3.0-or-later
// The servers that the module registers with: those of the series that it is built for, whatever
// their point release, and no others.

#include <algorithm>
#include <memory>

#include "tests/samba/appliance.hpp"
#include "tests/support/system_log.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kShipped = TAVRIX_BUILD_DIR "/samba/tavrix.so";

// --- the file of the module ----------------------------------------------------------------------

struct Symbol {
  std::string kind;  // as nm prints it
  std::string name;
  std::string version;
};

std::vector<Symbol> undefined_symbols() {
  std::vector<Symbol> symbols;
  std::istringstream lines(run_program({"nm", "-D", "-u", kShipped}).out);
  Symbol symbol;
  while (lines >> symbol.kind >> symbol.name) {
    const std::size_t at = symbol.name.find('@');
    symbol.version = at == std::string::npos ? "" : symbol.name.substr(at + 1);
    symbol.name.resize(std::min(at, symbol.name.size()));
    symbols.push_back(symbol);
  }
  return symbols;
}

// Names that the compiler asks for in every shared object.
bool is_of_the_compiler(const std::string& name) {
  return name == "__gmon_start__" || name.starts_with("_ITM_");
}

// "4.17"
std::string series_of_module(const std::string& file = kShipped) {
  const std::string mark = "TAVRIX_MODULE_FOR=Samba ";
  const std::string content = read_file(file);
  const std::size_t at = content.find(mark);
  if (at == std::string::npos) return "";
  const std::size_t begin = at + mark.size();
  return content.substr(begin, content.find(',', begin) - begin);
}

TEST(ServerModule, IsBoundToNoPointRelease) {
  const std::vector<Symbol> symbols = undefined_symbols();
  EXPECT_GT(symbols.size(), 100U);
  for (const Symbol& symbol : symbols) {
    if (symbol.version.starts_with("GLIBC_") || symbol.version.starts_with("TAVRIX_")) continue;
    EXPECT_EQ("", symbol.version) << symbol.name;
    EXPECT_EQ("w", symbol.kind) << symbol.name << " would keep the module from being loaded";
  }
  const std::string needed = run_program({"readelf", "-d", kShipped}).out;
  std::set<std::string> libraries;
  std::istringstream lines(needed);
  for (std::string line; std::getline(lines, line);) {
    if (line.find("(NEEDED)") == std::string::npos) continue;
    const std::size_t open = line.find('[');
    libraries.insert(line.substr(open + 1, line.find(']') - open - 1));
  }
  EXPECT_EQ((std::set<std::string>{"libc.so.6", "libtavrix.so.1"}), libraries);
}

TEST(ServerModule, TakesTheReviewedNamesFromTheServer) {
  std::set<std::string> reviewed;
  std::istringstream lines(read_file(TAVRIX_SOURCE_DIR "/tests/samba/private_names.txt"));
  for (std::string line; std::getline(lines, line);) {
    const std::size_t space = line.find(' ');
    if (line.starts_with('#')) continue;
    if (space == std::string::npos || line.substr(0, space) == series_of_module()) {
      reviewed.insert(line.substr(space + 1));
    }
  }
  std::set<std::string> taken;
  for (const Symbol& symbol : undefined_symbols()) {
    if (symbol.version.empty() && !is_of_the_compiler(symbol.name)) taken.insert(symbol.name);
  }
  EXPECT_EQ(reviewed, taken);
}

// --- with a real server --------------------------------------------------------------------------

class OtherServers : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    log_ = std::make_unique<SystemLog>();
  }
  // Has a client try to work through that build of the module, and returns the one line about it.
  // The server hands the errors of its own log to the system log, too.
  std::string refusal_of(const std::string& module) {
    bash("cp " TAVRIX_BUILD_DIR "/samba/" + module + ".so $samba_modules/vfs/");
    configure({}, module);
    start_smbd();
    log_->take();
    const std::string answer =
        smb("Administrator", "ls; get Shared\\Team\\report.txt /scratch/got");
    EXPECT_NE(std::string::npos, answer.find("tree connect failed: NT_STATUS_")) << answer;
    EXPECT_FALSE(exists("/scratch/got"));
    Lines said;
    for (const SystemLine& line : log_->take()) {
      if (line.message.starts_with("tavrix: the module")) said.push_back(line.message);
    }
    EXPECT_EQ(1U, said.size()) << testing::PrintToString(said);
    const std::string line = said.empty() ? "" : said[0].substr(said[0].find("the module"));
    EXPECT_EQ(1U, times(smbd_log(), line)) << smbd_log();
    return line;
  }
  static std::size_t times(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
  }
  // "4.17.12-Debian"
  static std::string server_version() {
    const std::string said = run_program({"smbd", "-V"}).out;
    const std::string word = "Version ";
    return said.substr(word.size(), said.find('\n') - word.size());
  }

 private:
  std::unique_ptr<SystemLog> log_;
};

TEST_F(OtherServers, OfAnotherInterfaceAreRefused) {
  EXPECT_EQ(
      "the module tavrix_of_interface is built for Samba " + series_of_module() +
          ", SMB_VFS_INTERFACE_VERSION 1, and this server, Samba " + server_version() +
          ", has another version of the interface; nobody may connect until a module for this "
          "server is installed",
      refusal_of("tavrix_of_interface"));
}

TEST_F(OtherServers, OfAnotherSeriesAreRefused) {
  const std::string line = refusal_of("tavrix_of_series");
  const std::string series = series_of_module(TAVRIX_BUILD_DIR "/samba/tavrix_of_series.so");
  EXPECT_NE(series_of_module(), series);
  EXPECT_NE(std::string::npos,
            line.find(" is built for Samba " + series + ", SMB_VFS_INTERFACE_VERSION "))
      << line;
  EXPECT_NE(std::string::npos, line.find(", and this server is Samba " + server_version() + ";"));
}

TEST_F(OtherServers, WithoutAPrivateNameAreRefused) {
  const std::string line = refusal_of("tavrix_of_names");
  EXPECT_NE(std::string::npos, line.find(", and this server, Samba " + server_version() +
                                         ", has no smbd_name_that_no_server_has;"))
      << line;
}

// The versions of the private libraries' symbols and the version that the server reports are those
// of another point release; the code is the installed one.
TEST_F(OtherServers, OfAnotherPointReleaseAreServed) {
  const std::string version = server_version();
  const std::string old = version.substr(0, version.find('-'));
  std::string other = old;
  other.back() = other.back() == '9' ? '8' : '9';
  bash(
      "shopt -s globstar nullglob; libraries=/usr/lib/x86_64-linux-gnu\n"
      "/usr/bin/python3 tests/samba/point_release.py " +
      old + " " + other +
      " /scratch/other $(find $libraries/lib*.so.* $libraries/samba /usr/bin/smb* "
      "/usr/bin/testparm /usr/sbin/smbd -type f) >/scratch/files\n"
      "while read -r file; do case $file in\n"
      "  $samba_modules/*) cp --remove-destination /scratch/other$file $file ;;\n"
      "  *) mount --bind /scratch/other$file $file ;;\n"
      "esac; done </scratch/files");
  EXPECT_TRUE(server_version().starts_with(other)) << server_version();
  EXPECT_NE(std::string::npos,
            run_program({"readelf", "-V", "/usr/sbin/smbd"}).out.find("SAMBA_" + other));
  EXPECT_EQ(std::string::npos,
            run_program({"readelf", "-V", "/usr/sbin/smbd"}).out.find("SAMBA_" + old));
  write_file("/scratch/data.txt", "some data\n");
  bash("cp " TAVRIX_BUILD_DIR "/samba/tavrix.so $samba_modules/vfs/");
  configure({}, "tavrix");
  start_smbd();
  EXPECT_TRUE(succeeded(smb("Anna", "cd Shared\\Team; put /scratch/data.txt new; ls; rm new")));
  EXPECT_TRUE(denied(smb("Ben", "put /scratch/data.txt Shared\\Team\\new")));
  EXPECT_EQ("CREATE Shared/Team/new", new_events().at(0));
}

}  // namespace
}  // namespace tavrix::test
