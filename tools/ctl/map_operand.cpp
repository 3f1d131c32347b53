// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_operand.hpp"

#include <unistd.h>

#include "tools/ctl/output.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/private_import.hpp"

namespace tavrix::ctl {
namespace {

// Complains with the command that tells more when the image is broken.
bool is_sound(const Image& image, const std::string& advice, cli::ProgressBar& bar) {
  const auto findings = mapcheck::verify(image.bytes(), [&bar](uint64_t done, uint64_t folders) {
    bar.show("verifying", done, folders);
  });
  bar.clear();
  if (findings.errors() == 0) return true;
  complain("{}: the image is broken; \"tavrixctl map {}\" shows why", image.origin(), advice);
  return false;
}

std::optional<Image> image_of_pair(const std::string& size, const std::string& data,
                                   cli::ProgressBar& bar) {
  std::string error;
  mapload::SharedMemory memory = mapload::import_privately(
      size, data, error,
      [&bar](uint64_t done, uint64_t folders) { bar.show("importing", done, folders); });
  bar.clear();
  if (!memory) {
    complain("{}", error);
    return std::nullopt;
  }
  Image image(std::move(memory), data);
  if (!is_sound(image, "lint " + size + " " + data, bar)) return std::nullopt;
  return image;
}

}  // namespace

std::optional<Image> map_named(const std::string& word, cli::ProgressBar& bar) {
  const auto comma = word.find(',');
  if (comma != std::string::npos && access(word.c_str(), F_OK) != 0) {
    return image_of_pair(word.substr(0, comma), word.substr(comma + 1), bar);
  }
  const bool is_current = word == "current";
  auto image = is_current ? Image::current() : Image::file(word);
  if (image && !is_sound(*image, is_current ? "verify" : "verify " + word, bar)) {
    return std::nullopt;
  }
  return image;
}

}  // namespace tavrix::ctl
