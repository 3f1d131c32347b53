// SPDX-License-Identifier: LGPL-3.0-or-later
// The layers of the library, compared with the tables of docs/architecture.md: what each object
// calls, what each source includes, and what state a process keeps.

#include <gtest/gtest.h>
#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

const std::string kSource = TAVRIX_SOURCE_DIR;
const std::string kObjectList = TAVRIX_BUILD_DIR "/tavrix_objects.txt";
constexpr const char* kLibraryFolders[] = {"connection", "events",      "hooks",        "include",
                                           "internal",   "permissions", "regex_parser", "sessions",
                                           "sweeper",    "utils"};

using Names = std::set<std::string>;
// The users of each part, what they use, and by which names.
using Uses = std::map<std::string, std::map<std::string, Names>>;

// --- the tables of the document ------------------------------------------------------------------

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(' ');
  return first == std::string::npos ? ""
                                    : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(trimmed(part));
  return parts;
}

// The words between backticks.
std::vector<std::string> names_in(const std::string& text) {
  std::vector<std::string> words;
  const std::regex word("`([^`]*)`");
  for (std::sregex_iterator at(text.begin(), text.end(), word), end; at != end; ++at) {
    words.push_back((*at)[1]);
  }
  return words;
}

// The rows of the table whose head begins with that cell.
std::vector<std::vector<std::string>> table(const std::string& first_cell) {
  std::vector<std::vector<std::string>> rows;
  bool is_inside = false;
  for (const std::string& line : lines_of(kSource + "/docs/architecture.md")) {
    if (line.starts_with("| " + first_cell + " |")) {
      is_inside = true;
    } else if (is_inside && !line.starts_with("|")) {
      break;
    } else if (is_inside && !line.starts_with("|-")) {
      std::vector<std::string> cells = split(line, '|');
      cells.erase(cells.begin());
      rows.push_back(cells);
    }
  }
  EXPECT_FALSE(rows.empty()) << first_cell;
  return rows;
}

struct Layer {
  std::string name;
  std::vector<std::string> files;
  Names may_use;
};

class Layers {
 public:
  Layers() {
    for (const auto& row : table("layer")) {
      Layer layer{row.at(0), names_in(row.at(2)), {}};
      if (row.at(3) == "all below") {
        uses_all_below_ = layer.name;
      } else if (!row.at(3).empty()) {
        for (const std::string& name : split(row.at(3), ',')) layer.may_use.insert(name);
      }
      layers_.push_back(layer);
    }
  }
  [[nodiscard]] const std::vector<Layer>& all() const { return layers_; }
  // The layer with the longest name of the file or of its folders; null for a file in none.
  [[nodiscard]] const Layer* of(const std::string& file) const {
    const Layer* found = nullptr;
    std::size_t longest = 0;
    for (const Layer& layer : layers_) {
      for (const std::string& name : layer.files) {
        const bool holds = name.ends_with('/') ? file.starts_with(name) : file == name;
        if (!holds || name.size() <= longest) continue;
        longest = name.size();
        found = &layer;
      }
    }
    return found;
  }
  [[nodiscard]] bool may_use(const Layer& user, const Layer& used) const {
    return user.name == used.name || user.name == uses_all_below_ ||
           user.may_use.contains(used.name);
  }

 private:
  std::vector<Layer> layers_;
  std::string uses_all_below_;
};

// --- the sources ---------------------------------------------------------------------------------

bool is_source(const fs::path& path) {
  static const Names kExtensions = {".c", ".cpp", ".h", ".hpp"};
  return kExtensions.contains(path.extension());
}

// Sources below a folder of the project, by their names from the top.
std::vector<std::string> sources_in(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::recursive_directory_iterator(kSource + "/" + folder)) {
    if (entry.is_regular_file() && is_source(entry.path())) {
      names.push_back(fs::relative(entry.path(), kSource).string());
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> library_sources() {
  std::vector<std::string> names;
  for (const char* folder : kLibraryFolders) {
    for (const std::string& name : sources_in(folder)) names.push_back(name);
  }
  return names;
}

// The project's headers that a file includes; the system's are not found, and not meant.
Names includes_of(const std::string& file) {
  static const std::regex kInclude("^\\s*#\\s*include\\s*[\"<]([^\">]+)[\">]");
  const std::string folders[] = {fs::path(file).parent_path().string() + "/", "include/",
                                 "events/generated/", ""};
  Names found;
  for (const std::string& line : lines_of(kSource + "/" + file)) {
    std::smatch match;
    if (!std::regex_search(line, match, kInclude)) continue;
    for (const std::string& folder : folders) {
      const std::string name = fs::path(folder + match[1].str()).lexically_normal().string();
      if (!exists(kSource + "/" + name)) continue;
      found.insert(name);
      break;
    }
  }
  return found;
}

Names words_of(const std::string& file) {
  static const std::regex kWord("\\w+");
  const std::string text = read_file(kSource + "/" + file);
  Names words;
  for (std::sregex_iterator at(text.begin(), text.end(), kWord), end; at != end; ++at) {
    words.insert(at->str());
  }
  return words;
}

bool is_public_header(const std::string& file) { return file.starts_with("include/"); }

// --- the objects ---------------------------------------------------------------------------------

struct Symbol {
  std::string file;  // the source
  std::string name;  // demangled
  char kind;         // as nm has it
  std::string section;
};

// Of every object of the library, as `nm -A -C -f sysv` tells them.
const std::vector<Symbol>& symbols() {
  static const std::vector<Symbol> all = [] {
    std::vector<std::string> command = {"nm", "-A", "-C", "-f", "sysv"};
    for (const std::string& object : lines_of(kObjectList)) {
      command.push_back(
          fs::path(object).is_absolute() ? object : std::string(TAVRIX_BUILD_DIR "/") + object);
    }
    const Outcome nm = run_program(command);
    EXPECT_TRUE(nm.ok()) << nm.err;
    const std::string folder = "tavrix_objects.dir/";
    std::vector<Symbol> found;
    std::istringstream in(nm.out);
    for (std::string line; std::getline(in, line);) {
      const std::vector<std::string> cells = split(line, '|');
      const auto object = line.find(folder);
      const auto end = line.find(".o:", object);
      if (cells.size() < 7 || object == std::string::npos || end == std::string::npos) continue;
      const std::size_t file = object + folder.size();
      found.push_back({fs::path(line.substr(file, end - file)).lexically_normal().string(),
                       trimmed(cells[0].substr(end + 3)), cells[2].empty() ? ' ' : cells[2][0],
                       cells[6]});
    }
    return found;
  }();
  return all;
}

// Strong definitions of functions and objects that other files can use.
bool is_definition(const Symbol& symbol) {
  return std::string("TDBRC").find(symbol.kind) != std::string::npos;
}

Uses calls() {
  std::map<std::string, std::string> definer;
  for (const Symbol& symbol : symbols()) {
    if (is_definition(symbol)) definer[symbol.name] = symbol.file;
  }
  Uses uses;
  for (const Symbol& symbol : symbols()) {
    const auto found = definer.find(symbol.name);
    if (symbol.kind != 'U' || found == definer.end() || found->second == symbol.file) continue;
    uses[symbol.file][found->second].insert(symbol.name);
  }
  return uses;
}

Uses includes() {
  Uses uses;
  for (const std::string& file : library_sources()) {
    for (const std::string& header : includes_of(file)) uses[file][header].insert("#include");
  }
  return uses;
}

// The exception: the public header declares something that the file may use, and names.
bool declares_what_it_may_use(const Layers& layers, const Layer& user, const std::string& file,
                              const std::string& header) {
  if (!is_public_header(header)) return false;
  const Names declared = words_of(header);
  const Names wanted = words_of(file);
  return std::any_of(symbols().begin(), symbols().end(), [&](const Symbol& symbol) {
    const Layer* definer = layers.of(symbol.file);
    return is_definition(symbol) && definer != nullptr && layers.may_use(user, *definer) &&
           declared.contains(symbol.name) && wanted.contains(symbol.name);
  });
}

std::string told(const Names& names) {
  std::string text;
  for (const std::string& name : names) text += " " + name;
  return text;
}

// Fails on a use that the table does not allow.
void expect_allowed(const Uses& uses) {
  const Layers layers;
  for (const auto& [user, used_files] : uses) {
    for (const auto& [used, names] : used_files) {
      const Layer* from = layers.of(user);
      const Layer* to = layers.of(used);
      ASSERT_NE(nullptr, from) << user << " stands in no layer";
      ASSERT_NE(nullptr, to) << user << " uses " << used << ", which stands in no layer";
      if (layers.may_use(*from, *to)) continue;
      if (declares_what_it_may_use(layers, *from, user, used)) continue;
      ADD_FAILURE() << user << " (" << from->name << ") must not use " << used << " (" << to->name
                    << "):" << told(names);
    }
  }
}

// Fails on a circle, with the files on it.
void expect_no_circle(const Uses& uses) {
  std::map<std::string, int> state;  // 1: on the way, 2: done
  std::vector<std::string> way;
  const std::function<void(const std::string&)> visit = [&](const std::string& file) {
    if (state[file] == 2) return;
    if (state[file] == 1) {
      std::string circle;
      for (auto at = std::find(way.begin(), way.end(), file); at != way.end(); ++at) {
        circle += *at + " -> ";
      }
      ADD_FAILURE() << "a circle: " << circle << file;
      return;
    }
    state[file] = 1;
    way.push_back(file);
    if (const auto found = uses.find(file); found != uses.end()) {
      for (const auto& [used, names] : found->second) visit(used);
    }
    way.pop_back();
    state[file] = 2;
  };
  for (const auto& [file, used] : uses) visit(file);
}

// --- the table itself ----------------------------------------------------------------------------

TEST(LayerTable, NamesEveryFileOfTheLibrary) {
  const Layers layers;
  for (const std::string& file : library_sources()) {
    EXPECT_NE(nullptr, layers.of(file)) << file << " stands in no layer";
  }
  for (const Symbol& symbol : symbols()) {
    ASSERT_NE(nullptr, layers.of(symbol.file)) << symbol.file << " stands in no layer";
  }
}

TEST(LayerTable, NamesNothingThatIsNotThere) {
  const Layers layers;
  for (const Layer& layer : layers.all()) {
    for (const std::string& name : layer.files) {
      EXPECT_TRUE(exists(kSource + "/" + name)) << layer.name << ": " << name;
    }
  }
}

// So there is no circle between layers either.
TEST(LayerTable, LetsALayerUseOnlyLayersBelowIt) {
  const std::vector<Layer> layers = Layers().all();
  for (std::size_t user = 0; user < layers.size(); ++user) {
    for (const std::string& name : layers[user].may_use) {
      const bool is_below =
          std::any_of(layers.begin() + static_cast<std::ptrdiff_t>(user) + 1, layers.end(),
                      [&](const Layer& layer) { return layer.name == name; });
      EXPECT_TRUE(is_below) << layers[user].name << " uses " << name;
    }
  }
}

// A permission that nobody needs would hide the next use.
TEST(LayerTable, AllowsNothingThatNobodyNeeds) {
  const Layers layers;
  std::map<std::string, Names> needed;
  for (const Uses& uses : {calls(), includes()}) {
    for (const auto& [user, used_files] : uses) {
      for (const auto& [used, names] : used_files) {
        if (layers.of(user) != nullptr && layers.of(used) != nullptr) {
          needed[layers.of(user)->name].insert(layers.of(used)->name);
        }
      }
    }
  }
  for (const Layer& layer : layers.all()) {
    for (const std::string& name : layer.may_use) {
      EXPECT_TRUE(needed[layer.name].contains(name)) << layer.name << " does not use " << name;
    }
  }
}

// --- calls and includes --------------------------------------------------------------------------

TEST(LayerCalls, GoDown) {
  const Uses uses = calls();
  EXPECT_GT(uses.size(), 30U);
  expect_allowed(uses);
}

TEST(LayerCalls, MakeNoCircle) { expect_no_circle(calls()); }

TEST(LayerIncludes, GoDown) {
  const Uses uses = includes();
  EXPECT_GT(uses.size(), 60U);
  expect_allowed(uses);
}

TEST(LayerIncludes, MakeNoCircle) { expect_no_circle(includes()); }

// --- programs outside the library ----------------------------------------------------------------

TEST(LayerOutside, IncludesOnlyWhatTheTableAllows) {
  std::map<std::string, Names> allowed;
  for (const auto& row : table("folder")) {
    for (const std::string& header : names_in(row.at(1))) allowed[row.at(0)].insert(header);
  }
  for (const std::string folder : {"examples", "samba", "tools"}) {
    Names used;
    for (const std::string& file : sources_in(folder)) {
      for (const std::string& header : includes_of(file)) {
        if (is_public_header(header) || header.starts_with("events/generated/") ||
            header.starts_with(folder + "/")) {
          continue;
        }
        used.insert(header);
        EXPECT_TRUE(allowed[folder].contains(header)) << file << " must not include " << header;
      }
    }
    for (const std::string& header : allowed[folder]) {
      EXPECT_TRUE(used.contains(header)) << folder << " does not include " << header;
    }
  }
}

// --- state ---------------------------------------------------------------------------------------

// Objects that change. Constants with addresses in them are writable only to the loader.
bool is_mutable(const Symbol& symbol) {
  if (symbol.section.starts_with(".data.rel.ro")) return false;
  return symbol.section.starts_with(".data") || symbol.section.starts_with(".bss") ||
         symbol.section.starts_with(".tdata") || symbol.section.starts_with(".tbss") ||
         symbol.kind == 'C';
}

// Sanitizers keep notes of their own beside the objects.
bool is_a_sanitizers(const std::string& name) {
  return name.starts_with("__") || name.starts_with(".L") || name.starts_with("Lubsan") ||
         name.starts_with("*");
}

// The name as the source has it: without scopes, and the type for an object of each thread.
std::string plain_name(const std::string& symbol) {
  std::string name = symbol;
  if (const auto argument = name.find("PerThread<"); argument != std::string::npos) {
    name = name.substr(argument + 10);
    name = name.substr(0, name.find('>'));
  }
  if (const auto scope = name.rfind("::"); scope != std::string::npos)
    name = name.substr(scope + 2);
  return name.substr(0, name.find('.'));
}

TEST(LayerState, StandsInTheTable) {
  std::map<std::string, std::string> places;  // of each name
  std::map<std::string, Names> rows;          // names of each row, by the first one
  for (const auto& row : table("state")) {
    const std::vector<std::string> names = names_in(split(row.at(0), ':').at(0));
    ASSERT_FALSE(names.empty()) << row.at(0);
    for (const std::string& name : names) {
      places[name] = names_in(row.at(1)).at(0);
      rows[names.front()].insert(name);
    }
  }
  Names seen;
  for (const Symbol& symbol : symbols()) {
    if (!is_mutable(symbol) || is_a_sanitizers(symbol.name)) continue;
    const std::string name = plain_name(symbol.name);
    seen.insert(name);
    ASSERT_TRUE(places.contains(name))
        << symbol.file << ": " << symbol.name << " " << symbol.section;
    // State in a header appears in every object that includes it.
    if (places[name].ends_with(".hpp")) continue;
    EXPECT_EQ(places[name], symbol.file) << symbol.name;
  }
  for (const auto& [first, names] : rows) {
    const bool is_there = std::any_of(names.begin(), names.end(),
                                      [&](const std::string& name) { return seen.contains(name); });
    EXPECT_TRUE(is_there) << first << " is no state of the library";
  }
}

}  // namespace
}  // namespace tavrix::test
