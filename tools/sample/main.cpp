// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-sample-tree --folders 100000 size.json data.json: writes a sample map.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "tools/cli/command_line.hpp"
#include "tools/cli/help.hpp"
#include "tools/sample/sample_tree.hpp"
#include "tools/text/counted.hpp"

int main(int argc, char** argv) {
  CLI::App app{"Writes the size file and the data file of a sample permission map."};
  tavrix::sample::Shape shape;
  std::string size_path, data_path;
  app.add_option("SIZE", size_path, "the size file")->required()->type_name("FILE");
  app.add_option("DATA", data_path, "the data file")->required()->type_name("FILE");
  app.add_option("--folders", shape.folders, "folders of the map")
      ->check(CLI::Range(4UL, 60000000UL))
      ->capture_default_str();
  app.add_option("--fan-out", shape.fan_out, "children of a folder")
      ->check(CLI::Range(1U, 1000000U))
      ->capture_default_str();
  app.add_option("--users", shape.users, "users that entries name")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--groups", shape.groups, "groups that entries name")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--seed", shape.seed, "another tree of the same shape")->capture_default_str();
  tavrix::cli::add_examples(app, {{"tavrix-sample-tree --folders 1000 size.json data.json",
                                   "a map of a thousand folders"}});
  if (const auto ended = tavrix::cli::parse(app, argc, argv); ended) return *ended;
  try {
    const auto sums = tavrix::sample::write_sample(shape, size_path, data_path);
    std::printf("%s, %s\n", tavrix::text::counted(sums.folders, "folder").c_str(),
                tavrix::text::counted(sums.aces, "entry").c_str());
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tavrix-sample-tree: %s\n", error.what());
    return 2;
  }
}
