// SPDX-License-Identifier: LGPL-3.0-or-later
// Runs a target without a fuzzer on every input of its corpus: whole, cut short, and with seeded
// changes. usage: replay FOLDER

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "fuzz/target.hpp"

namespace {

constexpr int kChangesPerInput = 1500;

using Input = std::vector<uint8_t>;

void run(const Input& input) {
  // A block of the exact size lets a sanitizer see an access to the first byte behind it.
  const Input exact(input.begin(), input.end());
  LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

void run_changed(const Input& input, std::mt19937& random) {
  Input changed = input;
  for (auto changes = random() % 4 + 1; changes > 0 && !changed.empty(); --changes) {
    const std::size_t at = random() % changed.size();
    switch (random() % 4) {
      case 0:
        changed[at] = static_cast<uint8_t>(random());
        break;
      case 1:
        changed.erase(changed.begin() + static_cast<std::ptrdiff_t>(at));
        break;
      case 2:
        changed.insert(changed.begin() + static_cast<std::ptrdiff_t>(at),
                       static_cast<uint8_t>(random()));
        break;
      default:
        changed[at] = static_cast<uint8_t>(changed[at] ^ (1U << random() % 8));
    }
  }
  run(changed);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: replay FOLDER\n");
    return 2;
  }
  std::mt19937 random(1);
  std::size_t inputs = 0;
  run({});
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream in(entry.path(), std::ios::binary);
    const Input input{std::istreambuf_iterator<char>(in), {}};
    ++inputs;
    run(input);
    for (std::size_t size = 0; size < input.size(); size += input.size() / 200 + 1) {
      run({input.begin(), input.begin() + static_cast<std::ptrdiff_t>(size)});
    }
    for (int change = 0; change < kChangesPerInput; ++change) run_changed(input, random);
  }
  std::fprintf(stderr, "%zu inputs\n", inputs);
  return inputs > 0 ? 0 : 1;
}
