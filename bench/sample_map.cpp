// SPDX-License-Identifier: LGPL-3.0-or-later
#include "bench/sample_map.hpp"

#include <fcntl.h>
#include <sys/shm.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <stdexcept>
#include <tuple>

#include "mkperms_shm.h"
#include "perm_map.h"

namespace tavrix::bench {
namespace {

const std::string kFolder = "/scratch";

std::string stem(const sample::Shape& shape) {
  return kFolder + "/" + std::to_string(shape.folders) + "x" + std::to_string(shape.fan_out);
}

bool is_there(const std::string& path) { return access(path.c_str(), R_OK) == 0; }

std::vector<std::byte> import_image(const sample::Shape& shape) {
  const JsonPair files = json_pair(shape);
  const OutputToFile output;
  memsummary_s* summary = nullptr;
  if (get_permbe_shmsize(files.size.c_str(), files.data.c_str(), &summary) != SHM_MEMBE_OK) {
    throw std::runtime_error("size pass");
  }
  std::vector<std::byte> image(summary->memsize);
  summary->membuf = image.data();
  if (init_permbe_shm(summary) != SHM_MEMBE_OK) throw std::runtime_error("data pass");
  std::free(summary->perm_map_name_size);
  std::free(summary->perm_map_name_data);
  std::free(summary);
  return image;
}

}  // namespace

JsonPair json_pair(const sample::Shape& shape) {
  const JsonPair master{stem(shape) + ".size", stem(shape) + ".data"};
  if (!is_there(master.data)) sample::write_sample(shape, master.size, master.data);
  const JsonPair links{master.size + ".link", master.data + ".link"};
  unlink(links.size.c_str());
  unlink(links.data.c_str());
  if (link(master.size.c_str(), links.size.c_str()) != 0 ||
      link(master.data.c_str(), links.data.c_str()) != 0) {
    throw std::runtime_error("link");
  }
  return links;
}

const std::vector<std::byte>& image_of(const sample::Shape& shape) {
  static std::map<std::tuple<uint64_t, unsigned>, std::vector<std::byte>> images;
  auto& image = images[{shape.folders, shape.fan_out}];
  if (image.empty()) image = import_image(shape);
  return image;
}

void publish(const sample::Shape& shape) {
  const auto& image = image_of(shape);
  init_perm_map_semaphore();
  const int current = get_current_perm_table_index_for_fill();
  int shmid = -1;
  void* table = create_perm_map_shm(get_next_perm_table_key(current),
                                    static_cast<unsigned>(image.size()), &shmid);
  if (table == nullptr) throw std::runtime_error("no table");
  std::memcpy(table, image.data(), image.size());
  shmdt(table);
  swap_maps(static_cast<unsigned>(current));
  map_initialized(1);
}

std::vector<std::string> some_paths(const sample::Shape& shape, std::size_t count) {
  std::mt19937_64 random(42);
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < count; ++i) {
    paths.push_back(sample::sample_path(shape, 1 + random() % (shape.folders - 3)));
  }
  return paths;
}

OutputToFile::OutputToFile() {
  std::fflush(stdout);
  saved_ = dup(STDOUT_FILENO);
  const int file =
      open((kFolder + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  dup2(file, STDOUT_FILENO);
  close(file);
}

OutputToFile::~OutputToFile() {
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
}

}  // namespace tavrix::bench
