// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map lint and map verify: checks that change nothing.

#include "tools/cli/help.hpp"
#include "tools/cli/progress.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapcheck/lint.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

int lint(const Options& options, const std::string& size_path, const std::string& data_path) {
  std::string error;
  cli::ProgressBar bar(!options.no_progress);
  const auto result = mapcheck::lint_files(
      size_path, data_path, error,
      [&bar](uint64_t done, uint64_t bytes) { bar.show("checking", done, bytes); });
  bar.clear();
  if (!result) {
    complain("{}", error);
    return kFailure;
  }
  const auto& found = result->data;
  if (options.json) {
    Json json = document("map-lint");
    set_findings(json, result->findings);
    json["stated"] = {{"folders", result->size.folders},
                      {"aces", result->size.aces},
                      {"name_bytes", result->size.name_bytes}};
    json["found"] = {{"folders", found.folders},
                     {"aces", found.aces},
                     {"name_bytes", found.name_bytes},
                     {"deepest", found.deepest},
                     {"widest", found.widest}};
    json["image_bytes"] = result->image_bytes;
    print(json);
  } else {
    print_findings(result->findings);
    fmt::print("{}, {}, {} of names; {} deep, {} wide; image {}\n",
               text::counted(found.folders, "folder"), text::counted(found.aces, "entry"),
               text::counted(found.name_bytes, "byte"), found.deepest, found.widest,
               human_bytes(result->image_bytes));
    fmt::print("{}\n", counts(result->findings));
  }
  return result->findings.errors() == 0 ? kYes : kNo;
}

// Compares the image with the checksum that was taken at its import. The checksum of a file is
// beside it; that of the published table is in the mark.
void check_checksum(const std::string& path, const Image& image, mapcheck::Findings& findings) {
  const files::Digest digest = files::digest_of(image.bytes());
  const auto add = [&findings](mapcheck::Severity severity, std::string text) {
    findings.add({severity, "", "", 0, std::move(text)});
  };
  if (path.empty()) {
    const auto mark = mapload::read_mark();
    if (!mark) {
      add(mapcheck::Severity::kWarning, "there is no mark of an import to compare the table with");
    } else if (mark->digest != digest) {
      add(mapcheck::Severity::kError, "the table is not what was imported: its checksum differs");
    }
    return;
  }
  switch (files::compare_checksum(path, digest)) {
    case files::Checksum::kMatches:
      return;
    case files::Checksum::kMissing:
      if (path == mapload::kLocalCopy) {
        add(mapcheck::Severity::kWarning, "there is no " + files::checksum_path(path));
      }
      return;
    case files::Checksum::kDiffers:
      add(mapcheck::Severity::kError, "the file does not match " + files::checksum_path(path));
  }
}

int verify(const Options& options, const std::string& path) {
  const auto image = path.empty() ? Image::current() : Image::file(path);
  if (!image) return kFailure;
  cli::ProgressBar bar(!options.no_progress);
  mapcheck::Findings findings = mapcheck::verify(
      image->bytes(),
      [&bar](uint64_t done, uint64_t folders) { bar.show("verifying", done, folders); });
  bar.clear();
  check_checksum(path, *image, findings);
  if (options.json) {
    Json json = document("map-verify");
    json["image"] = image->origin();
    json["bytes"] = image->bytes().size();
    set_findings(json, findings);
    print(json);
  } else {
    print_findings(findings);
    fmt::print("{}: {}, {}\n", image->origin(), human_bytes(image->bytes().size()),
               counts(findings));
  }
  return findings.errors() == 0 ? kYes : kNo;
}

}  // namespace

void add_map_check_commands(CLI::App& map, Options& options, Action& action) {
  static std::string size_path, data_path, image_path;
  CLI::App* lint_command = map.add_subcommand(
      "lint", "Check a size file and a data file without importing them (exit 1: errors)");
  lint_command->add_option("SIZE", size_path, "the size file")->required()->type_name("FILE");
  lint_command->add_option("DATA", data_path, "the data file")->required()->type_name("FILE");
  lint_command->callback(
      [&] { action = [&options] { return lint(options, size_path, data_path); }; });

  CLI::App* verify_command = map.add_subcommand(
      "verify", "Check every record and link of an image (exit 1: it is broken)");
  verify_command->add_option("FILE", image_path, "a local copy; without it, the current table")
      ->type_name("FILE");
  verify_command->callback([&] { action = [&options] { return verify(options, image_path); }; });

  cli::add_examples(*lint_command,
                    {{"tavrixctl map lint size.json data.json", "are the files fit for an import?"},
                     {"tavrixctl --json map lint size.json data.json", "the same, for a program"}});
  cli::add_examples(*verify_command,
                    {{"tavrixctl map verify", "is the map in force sound?"},
                     {"tavrixctl map verify /etc/tavrix/.permbe_map", "is the local copy sound?"},
                     {"tavrixctl --json map verify", "the same, for a program"}});
}

}  // namespace tavrix::ctl
