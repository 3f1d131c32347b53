// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks of the Samba server: its libraries, the module, and the settings of the shares.

#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>

#include "internal/scoped.hpp"
#include "tavrix_api.h"
#include "tools/doctor/checks.hpp"
#include "tools/status/samba.hpp"
#include "tools/status/series.hpp"

namespace tavrix::doctor {
namespace {

constexpr const char* kComparison = "strncasecmp_m";

struct CloseLibrary {
  void operator()(void* library) const { dlclose(library); }
};

using Section = std::map<std::string, std::string>;
using Sections = std::map<std::string, Section>;  // "global", and one a share

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

Sections sections_of(const std::string& text) {
  Sections sections;
  std::string name;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    line = trimmed(line);
    if (line.starts_with('[')) name = line.substr(1, line.find(']') - 1);
    const auto equals = line.find('=');
    if (name.empty() || equals == std::string::npos || line.starts_with('#')) continue;
    sections[name][trimmed(line.substr(0, equals))] = trimmed(line.substr(equals + 1));
  }
  return sections;
}

// The settings of one share. What its section leaves out stands in [global], the defaults too.
class Share {
 public:
  Share(std::string name, const Section& own, const Section& global)
      : name_(std::move(name)), own_(own), global_(global) {}

  [[nodiscard]] std::string value(const std::string& key) const {
    if (const auto found = own_.find(key); found != own_.end()) return found->second;
    const auto found = global_.find(key);
    return found == global_.end() ? "" : found->second;
  }
  [[nodiscard]] bool has_module(const std::string& module) const {
    std::istringstream in(value("vfs objects"));
    for (std::string word; in >> word;) {
      if (word == module) return true;
    }
    return false;
  }
  [[nodiscard]] std::string name() const { return "share " + name_; }
  [[nodiscard]] std::string section() const { return "[" + name_ + "] of smb.conf"; }

 private:
  std::string name_;
  const Section& own_;
  const Section& global_;
};

bool is_yes(std::string value) {
  std::transform(value.begin(), value.end(), value.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return value == "yes" || value == "true" || value == "1" || value == "on";
}

Check check_threads(const Share& share) {
  const std::string id = "worker-threads";
  if (share.value("aio read size") == "0" && share.value("aio write size") == "0") {
    return {id, Level::kWell, share.name() + " works with one thread", ""};
  }
  return {id, Level::kWarning,
          share.name() + " starts worker threads, which make each operation several times dearer",
          "set \"aio read size = 0\" and \"aio write size = 0\" in " + share.section()};
}

Check check_case(const Share& share) {
  const std::string id = "case-settings";
  if (is_yes(share.value("case sensitive"))) {
    return {id, Level::kWell, share.name() + " takes names as they are spelled", ""};
  }
  return {id, Level::kWarning,
          share.name() + " scans the whole folder for each name that does not exist",
          "set \"case sensitive = yes\" in " + share.section()};
}

Check check_path(const Share& share) {
  const std::string id = "share-path";
  const std::string path = share.value("path");
  const CString real(realpath(path.c_str(), nullptr));
  const CString tree(realpath(TAVRIX_TREE, nullptr));
  const std::string inside = real == nullptr ? path : real.get();
  const std::string root = tree == nullptr ? TAVRIX_TREE : tree.get();
  if (inside == root || inside.starts_with(root + "/")) {
    return {id, Level::kWell, share.name() + " lies in the tree", ""};
  }
  return {id, Level::kCritical,
          fmt::format("{} has the path {}, which is not in {}: nobody may connect", share.name(),
                      path, TAVRIX_TREE),
          "set \"path = " TAVRIX_TREE "\" in " + share.section()};
}

Check check_links_and_streams(const Share& share) {
  const std::string id = "refused-settings";
  for (const char* module : {"streams_xattr", "streams_depot"}) {
    if (!share.has_module(module)) continue;
    return {id, Level::kCritical,
            fmt::format("{} has the module {}: nobody may connect", share.name(), module),
            "remove it from \"vfs objects\" in " + share.section()};
  }
  // The server itself ignores "wide links" while its extensions for UNIX are on and the two may
  // not stand together.
  if (is_yes(share.value("wide links")) && (!is_yes(share.value("unix extensions")) ||
                                            is_yes(share.value("allow insecure wide links")))) {
    return {id, Level::kCritical, share.name() + " has wide links: nobody may connect",
            "set \"wide links = no\" in " + share.section()};
  }
  return {id, Level::kWell, share.name() + " has no setting that the module refuses", ""};
}

}  // namespace

Check check_comparison_library() {
  const std::string id = "comparison-library";
  const std::string file = status::samba_comparison_library();
  const std::unique_ptr<void, CloseLibrary> library(dlopen(file.c_str(), RTLD_LAZY | RTLD_LOCAL));
  if (library != nullptr && dlsym(library.get(), kComparison) != nullptr) {
    return {id, Level::kWell, "names are compared as Samba compares them", ""};
  }
  const char* error = dlerror();
  const std::string name = status::samba_name_of_comparison_library();
  return {id, Level::kCritical,
          fmt::format("Samba's comparison of names is missing: a server process that compares a "
                      "name beyond ASCII ends ({})",
                      error == nullptr ? file : error),
          name.empty() ? "install samba-libs" : fmt::format("ln -sf {} {}", name, file)};
}

Check check_module() {
  const std::string id = "module-version";
  const std::string file = status::samba_module();
  const std::string samba = status::samba_version_in(status::samba_library());
  if (samba.empty()) return {id, Level::kWarning, "Samba is not installed", "install samba"};
  if (access(file.c_str(), F_OK) != 0) {
    return {id, Level::kWarning, "the module is not installed: " + file,
            "install the package samba-vfs-tavrix, or build the module"};
  }
  const std::string series = status::samba_series_of_module(file);
  if (status::is_of_series(samba, series)) {
    return {id, Level::kWell,
            fmt::format("the module is built for Samba {}, and {} is installed", series, samba),
            ""};
  }
  return {id, Level::kCritical, status::sentence_about_module(series, samba),
          "install or build the module for this Samba"};
}

Checks check_server_settings(const std::string& smb_conf) {
  const auto text = status::testparm(smb_conf);
  if (!text) {
    return {{"server-settings", Level::kWarning, "testparm cannot read the server's settings",
             "run \"testparm -s " + smb_conf + "\" and correct what it says"}};
  }
  Sections sections = sections_of(*text);
  const Section global = sections["global"];
  sections.erase("global");
  Checks checks;
  for (const auto& [name, section] : sections) {
    const Share share(name, section, global);
    if (!share.has_module("tavrix")) continue;
    checks.push_back(check_path(share));
    checks.push_back(check_links_and_streams(share));
    checks.push_back(check_threads(share));
    checks.push_back(check_case(share));
  }
  if (checks.empty()) {
    checks.push_back({"share-missing", Level::kWarning, "no share has the module",
                      "set \"vfs objects = tavrix\" in a share of smb.conf; docs/appliance.md has "
                      "an example"});
  }
  return checks;
}

}  // namespace tavrix::doctor
