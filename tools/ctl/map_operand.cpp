// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_operand.hpp"

#include <unistd.h>
#include <charconv>

#include "tools/ctl/output.hpp"
#include "tools/files/checksum.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapkeep/held.hpp"
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
  complain_as(code::kMapBroken, "{}: the image is broken; \"tavrixctl map {}\" shows why",
              image.origin(), advice);
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

constexpr std::string_view kKept = "kept-";

// The number of "kept-N"; nothing for other words.
std::optional<uint32_t> number_of(std::string_view word) {
  if (!word.starts_with(kKept)) return std::nullopt;
  word.remove_prefix(kKept.size());
  uint32_t number = 0;
  const auto [end, wrong] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (wrong != std::errc{} || end != word.data() + word.size()) return std::nullopt;
  return number;
}

std::optional<Image> with_checksum(const std::string& path, const files::Digest& digest) {
  auto image = Image::file(path);
  if (image && files::digest_of(image->bytes()) != digest) {
    complain("{} is damaged: its checksum is not the one that was noted", path);
    return std::nullopt;
  }
  return image;
}

}  // namespace

std::vector<std::string> known_operands() {
  std::vector<std::string> words = {"current"};
  if (mapkeep::is_map_held()) words.emplace_back("held");
  for (const mapkeep::KeptMap& map : mapkeep::kept_maps()) {
    words.push_back(std::string(kKept) + std::to_string(map.number));
  }
  words.emplace_back(":files");
  return words;
}

std::optional<mapkeep::KeptMap> kept_map(uint32_t number) {
  for (mapkeep::KeptMap& map : mapkeep::kept_maps()) {
    if (map.number == number) return std::move(map);
  }
  complain("there is no kept map {}; \"tavrixctl map history\" lists them", number);
  return std::nullopt;
}

std::optional<Image> image_of(const mapkeep::KeptMap& map) {
  return with_checksum(map.image_path(), map.image.digest);
}

std::optional<Image> map_named(const std::string& word, cli::ProgressBar& bar) {
  if (const auto number = number_of(word)) {
    const auto map = kept_map(*number);
    return map ? image_of(*map) : std::nullopt;
  }
  if (word == "held") {
    const auto held = mapkeep::held_map();
    if (held) return with_checksum(mapkeep::HeldMap::image_path(), held->image.digest);
    complain("no map is held");
    return std::nullopt;
  }
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
