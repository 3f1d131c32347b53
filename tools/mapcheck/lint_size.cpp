// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapcheck/lint_size.hpp"

#include <fmt/format.h>
#include <charconv>
#include <limits>
#include <set>

#include "mkperms_shm.h"
#include "tools/mapcheck/json_stream.hpp"

namespace tavrix::mapcheck {
namespace {

constexpr const char* kFile = "size file";
constexpr uint64_t kMost32 = std::numeric_limits<uint32_t>::max();

class SizeLinter : public JsonEvents {
 public:
  explicit SizeLinter(LintResult& result) : result_(result), stream_(*this) {}

  void run(Source& source) {
    const bool parsed = stream_.run(source);
    if (!stream_.error().empty()) error(stream_.error());
    if (parsed) check_missing();
  }

  bool start_object() override {
    if (depth_ > 0) return stop("an object inside the object");
    ++depth_;
    return true;
  }
  bool end_object() override {
    --depth_;
    return true;
  }
  bool start_array() override { return stop("an array where a member is expected"); }
  bool end_array() override { return true; }
  bool other(std::string_view what) override {
    return stop(fmt::format("\"{}\" is {}; a number or a text is expected", key_, what));
  }

  bool key(std::string_view text) override {
    key_ = text;
    if (!is_known(text))
      return stop(fmt::format("unknown key \"{}\"; the import stops here", text));
    if (!seen_.insert(key_).second)
      warn(fmt::format("\"{}\" appears twice; the last one counts", text));
    return true;
  }

  bool text(std::string_view text) override {
    if (depth_ == 0) return stop("the document is not an object");
    if (key_ == "MAPNAME") return take_text(text, result_.size.map_name, MAXMAP_NAMELEN - 1);
    if (key_ == "VERSION") return take_text(text, result_.size.version, MAXMAP_VERSION_NAMELEN);
    return stop(fmt::format("\"{}\" is a text; a number is expected", key_));
  }

  bool number(std::string_view token) override {
    if (depth_ == 0) return stop("the document is not an object");
    if (key_ == "MAPNAME" || key_ == "VERSION") {
      return stop(fmt::format("\"{}\" is a number; a text is expected", key_));
    }
    const Number number = number_of(token);
    if (!number.is_plain) warn(fmt::format("\"{}\" is {}, read as {}", key_, token, number.value));
    if (key_ == "TIMESTAMP") {
      result_.size.timestamp = number.value;
      return true;
    }
    if (number.value > kMost32)
      error(fmt::format("\"{}\" is {}, more than 32 bits hold", key_, token));
    *count_of(key_) = number.value;
    return true;
  }

 private:
  static bool is_known(std::string_view key) {
    static const std::set<std::string_view> kKeys = {"MAPNAME",     "VERSION",      "GENERATIONNUM",
                                                     "TIMESTAMP",   "TOTALFSELEMS", "TOTALACES",
                                                     "TOTALNAMELEN"};
    return kKeys.count(key) != 0;
  }

  uint64_t* count_of(const std::string& key) {
    if (key == "GENERATIONNUM") return &result_.size.generation;
    if (key == "TOTALFSELEMS") return &result_.size.folders;
    if (key == "TOTALACES") return &result_.size.aces;
    return &result_.size.name_bytes;
  }

  bool take_text(std::string_view text, std::string& field, std::size_t longest) {
    field = text;
    if (text.size() > longest) {
      return stop(fmt::format("\"{}\" has {} bytes; {} is the most", key_, text.size(), longest));
    }
    return true;
  }

  void check_missing() {
    for (const char* key : {"TOTALFSELEMS", "TOTALACES", "TOTALNAMELEN"}) {
      if (seen_.count(key) == 0) error(fmt::format("\"{}\" is missing", key));
    }
    for (const char* key : {"MAPNAME", "VERSION", "GENERATIONNUM", "TIMESTAMP"}) {
      if (seen_.count(key) == 0) warn(fmt::format("\"{}\" is missing", key));
    }
  }

  void error(std::string text) { add(Severity::kError, std::move(text)); }
  void warn(std::string text) { add(Severity::kWarning, std::move(text)); }
  bool stop(std::string text) {
    error(std::move(text));
    return false;
  }
  void add(Severity severity, std::string text) {
    result_.findings.add({severity, kFile, "", stream_.offset(), std::move(text)});
  }

  LintResult& result_;
  JsonStream stream_;
  std::string key_;
  std::set<std::string> seen_;
  int depth_ = 0;
};

}  // namespace

Number number_of(std::string_view token) {
  Number number;
  const auto [end, failure] =
      std::from_chars(token.data(), token.data() + token.size(), number.value);
  if (failure == std::errc::result_out_of_range) {
    number.value = std::numeric_limits<uint64_t>::max();
  } else {
    number.is_plain = failure == std::errc{} && end == token.data() + token.size();
  }
  return number;
}

uint64_t image_bytes_of(const SizeFile& size) {
  constexpr uint64_t kPerFolder = sizeof(fs_elem_s) + sizeof(name_elem_s) + sizeof(beacl_s) +
                                  sizeof(child_list_s) + sizeof(uint32_t);
  return sizeof(tavrix_be_header) + kPerFolder * size.folders + size.name_bytes +
         sizeof(beace_s) * size.aces;
}

void lint_size_file(Source& source, LintResult& result) { SizeLinter(result).run(source); }

}  // namespace tavrix::mapcheck
